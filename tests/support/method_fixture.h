// The framework's side of the method for tests: error-number slot, message buffers, log sink.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "include/timefinder.h"
#include "tests/support/private_root.h"

namespace test {

// Every line that reached the sink, in order.
inline std::vector<std::string> &log_lines() {
    static std::vector<std::string> lines;
    return lines;
}
inline void collect_line(const char *line) {
    log_lines().push_back(line);
}

// A test of the method: TimeFinder_init has run and the sink collects at level 2.
class Method : public testing::Test {
  protected:
    Method() {
        strncpy(errmsg, "no message", sizeof errmsg - 1);
        strncpy(logmsg, "no message", sizeof logmsg - 1);
        TimeFinder_init(&errnum, logmsg, errmsg);
        set_level(2);
        log_lines().clear();
    }
    ~Method() override {
        TimeFinder_set_logf(nullptr, -1);
        TimeFinder_init(nullptr, nullptr, nullptr);
    }

    static void set_level(int32_t level) {
        TimeFinder_set_logf(&collect_line, level);
        log_lines().clear();
    }
    static bool logged(const std::string &line) { return times_logged(line) > 0; }
    static long times_logged(const std::string &line) {
        return std::count(log_lines().begin(), log_lines().end(), line);
    }
    // All lines, one under the other, for EXPECT_EQ with a whole expected log.
    static std::string whole_log() {
        std::string text;
        for (const std::string &line : log_lines()) text += line + "\n";
        return text;
    }
    // The last failure: its number, and its text in both buffers and, as the last line, in the log.
    void expect_failure(int32_t number, const std::string &text) const {
        EXPECT_EQ(errnum, number);
        EXPECT_EQ(std::string(errmsg), text);
        EXPECT_EQ(std::string(logmsg), text);
    }
    void expect_no_failure() const {
        EXPECT_EQ(errnum, 0);
        EXPECT_EQ(std::string(errmsg), "no message");
    }

    int32_t errnum = 0;
    char errmsg[TF_MESSAGE_SIZE] = {};
    char logmsg[TF_MESSAGE_SIZE] = {};
};

}  // namespace test
