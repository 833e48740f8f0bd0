// A world of the lab for one test case; see tests/support/lab_world.h. A call of it that goes wrong
// in the lab itself ends the case.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "tests/support/lab_world.h"

namespace test {

class World : public testing::Test, protected LabWorld {
  protected:
    explicit World(std::string scenario = "demo", Words hosts = {"client1"})
        : LabWorld(std::move(scenario), std::move(hosts)) {}
    void SetUp() override;
    void TearDown() override;

    // As in a LabWorld; the case fails when a call changed anything of the process that made it.
    Phase phase(const Words &steps, int level = 2, const Words &environment = {});
    Phase end_phase(const Running &running, int expected_status = 0);

    // Freeze, control code 4, commit, thaw, thaw commit and unloading in a new process, all of
    // which succeed and leave nothing but the synchronised pair.
    void expect_a_snapshot_succeeds(const std::string &source = "/data");
};

// Status, error number and the text in both buffers.
void expect_failure(const Call &call, int number, const std::string &text, int status = 11);
void expect_success(const Call &call);

}  // namespace test
