// What the tests of a restore share: how it is told, and how it leaves the host and the array.
#pragma once

#include "tests/fimctl/fake_method/script.h"
#include "tests/fimctl/restore_world.h"

namespace test {

struct Restore : RestoreWorld {
    bool told(const Ended &ended, const std::string &part) const {
        return ended.err.find(part) != std::string::npos;
    }
    void expect_frozen_and_untouched() const {
        EXPECT_EQ(snapshot(1).state, fimctl::State::frozen);
        for (const auto &pair : fake::read_array()) EXPECT_EQ(pair.state, 5) << pair.device;
        expect_all_is_there();
    }
    void expect_restored() const {
        EXPECT_EQ(snapshot(1).state, fimctl::State::restored);
        for (const auto &pair : fake::read_array()) EXPECT_EQ(pair.state, 8) << pair.device;
        expect_all_is_there();
    }
    // Its command was killed, and it follows.
    void expect_the_phase_is_gone() const {
        for (const pid_t phase : processes_of("rebuild")) {
            EXPECT_TRUE(wait_until_gone(phase)) << phase;
        }
    }
};

}  // namespace test
