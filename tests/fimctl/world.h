// A host for fimctl: the scripted method and array at their fixed paths, objects to freeze, and the
// command as a user runs it, in a process of its own.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "fimctl/catalogue.h"

namespace test {

// What a command left on its two streams, and how it ended. status -1: killed by a signal.
struct Ended {
    int status = -1;
    std::string out, err;
};

class FimctlWorld : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // A tmpfs on /data-NAME with one pair; returns the directory. fimctl is then called with
    // --no-quiesce, since a tmpfs cannot be frozen.
    std::string add_file_system(const std::string &name, const std::string &symid,
                                const std::string &device, const std::string &bcv, long state = 2);
    void add_object(const std::string &source, int type, const std::string &symid,
                    const std::string &device, const std::string &bcv, long state = 2);
    // A block device /dev/qz/dsk/GROUP/VOLUME with one pair; returns its path.
    std::string add_volume(const std::string &group, const std::string &volume,
                           const std::string &symid, const std::string &device,
                           const std::string &bcv, long state = 2);
    void script(const std::string &line);
    void array_fails(const std::string &call, int code);

    Ended fimctl(const std::vector<std::string> &arguments);
    pid_t start(const std::vector<std::string> &arguments);
    Ended finish(pid_t pid);
    // Waits until a command has said this on its standard error.
    static bool wait_until_told(pid_t pid, const std::string &part);

    // The calls so far: "CALL DETAIL", in order, without their process numbers.
    std::vector<std::string> calls() const;
    // Only the names of the calls that work on a snapshot, joined by blanks.
    std::string story() const;
    // The process numbers of a call.
    std::vector<pid_t> processes_of(const std::string &call) const;
    bool wait_for_call(const std::string &call);
    long array_state(const std::string &device) const;
    fimctl::SnapshotRecord snapshot(int64_t id, const std::string &state_dir = "") const;

    // The lines of the "groups" file: what is up.
    std::vector<std::string> groups_up() const;
    // Where the copy of an object of a snapshot is mounted when nothing else is said.
    std::string copy_folder(int64_t id, int number) const;

    const std::string state_ = "/var/lib/fimctl";
    std::string out_to_;  // where the standard output of the next commands goes; "" to be kept
    std::vector<std::string> mounted_;
    unsigned volumes_ = 0;
};

bool wait_until_gone(pid_t pid);

}  // namespace test
