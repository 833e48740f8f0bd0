// Scripts that run in a world: the fixture of the tests that go through everything at once, from
// fimctl over the method and its libraries to the array.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "tests/lab_host/lab.h"

namespace test {

class WorldScript : public testing::Test {
  protected:
    void SetUp() override { SKIP_WITHOUT_ROOT(); }

    // Runs the script in a world with the host client1. It finds these functions:
    //   on COMMAND...       runs a command in the host
    //   fim ARGUMENT...     runs fimctl there, without progress lines and without real waits
    //   file_system TYPE DEVICE DIR   makes a file system and mounts it
    //   synchronised PRIMARY BCV      makes the pair one that has finished
    //   fail TEXT           ends the script with status 99
    Outcome in_world(const std::string &scenario, const std::string &script) {
        std::ofstream(scratch / "script") << functions << script;
        return shell("tflab run --scenario " + scenario + " --host client1 -- bash " +
                     (scratch / "script"));
    }
    // The same for a script that must end with status 0: what it printed.
    std::string printed(const std::string &scenario, const std::string &script) {
        const Outcome outcome = in_world(scenario, "set -e\n" + script);
        EXPECT_EQ(outcome.status, 0) << outcome.output;
        return outcome.output;
    }

    Scratch scratch;

  private:
    static constexpr char functions[] = R"(
on() { tflab exec client1 -- "$@"; }
fim() {
    tflab exec --env LD_PRELOAD=/usr/lib/tflab/libtflabsleep.so client1 -- fimctl -q "$@"
}
fail() { echo "FAILED: $*"; exit 99; }
file_system() {
    on "mkfs.$1" -q "$2" && on mkdir -p "$3" && on mount "$2" "$3"
}
synchronised() {
    tfarray establish 000184500123 "$1" "$2" >/dev/null && tfarray clock advance 100 >/dev/null
}
)";
};

}  // namespace test
