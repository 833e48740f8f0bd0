// A keyword table with a collecting sink.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "fim_config/parse_table.h"
#include "tests/support/allocation_faults.h"

namespace test {

// Every line that reached the sink, in order.
inline std::vector<std::string> &fcp_lines() {
    static std::vector<std::string> lines;
    return lines;
}
inline void collect_fcp_line(const char *line) {
    fcp_lines().emplace_back(line);
}

// Every block given back since the last forget_freed_blocks, with its first four bytes at that
// moment.
struct FreedBlock {
    const void *block;
    uint32_t first_bytes;
};
const std::vector<FreedBlock> &freed_blocks();
void watch_freed_blocks();
void stop_watching();

// The sink collects at level 1; a test that wants the details sets level 5.
class FimConfig : public testing::Test {
  protected:
    FimConfig() {
        set_level(1);
        table = qfm_fcp_table_new(&status);
    }
    ~FimConfig() override {
        if (table != nullptr) qfm_fcp_table_delete(table);
        qfm_fcp_set_logf(nullptr, -1);
    }

    static void set_level(int32_t level) {
        qfm_fcp_set_logf(&collect_fcp_line, level);
        fcp_lines().clear();
    }
    // All lines, one under the other.
    static std::string log() {
        std::string text;
        for (const std::string &line : fcp_lines()) text += line + "\n";
        return text;
    }
    static std::string message() { return fcp::message; }

    int32_t parse(const char *text) { return qfm_fcp_parse(text, options, table); }

    int32_t status = -1;
    qfm_fcp_table *table = nullptr;
    // Null for the defaults.
    const qfm_fcp_options *options = nullptr;
};

}  // namespace test
