// Two hosts for one snapshot: two names and two state folders here, which share the scripted array
// as real ones do.
#pragma once

#include <sched.h>
#include <unistd.h>

#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace test {

using Words = std::vector<std::string>;

class TwoHosts : public FimctlWorld {
  protected:
    void SetUp() override {
        FimctlWorld::SetUp();
        ASSERT_EQ(unshare(CLONE_NEWUTS), 0);
        make_folders("/exchange");
        be("client1");
        one_ = add_file_system("one", "000184500123", "00A1", "01A1");
    }
    void be(const std::string &host) { ASSERT_EQ(sethostname(host.data(), host.size()), 0); }

    Ended on_client(const Words &words) {
        be("client1");
        return fimctl(words);
    }
    Ended on_backup(Words words) {
        be("backup1");
        words.insert(words.begin(), {"--state", backup_state});
        return fimctl(words);
    }
    fimctl::SnapshotRecord there(int64_t id) { return snapshot(id, backup_state); }

    void freeze() { ASSERT_EQ(on_client({"freeze", "--no-quiesce", one_}).status, 0); }
    // Frozen, and out to the exchange folder.
    void hand_out() {
        freeze();
        const Ended ended = on_client({"export", "1", "--output", file});
        ASSERT_EQ(ended.status, 0) << ended.err;
    }
    // And taken in on the backup host.
    void carry() {
        hand_out();
        const Ended ended = on_backup({"import", file});
        ASSERT_EQ(ended.status, 0) << ended.err;
        ASSERT_EQ(ended.out, "1\n");
    }
    void expect_refused(const Ended &ended, const std::string &reason, const std::string &next) {
        EXPECT_EQ(ended.status, 2);
        EXPECT_NE(ended.err.find(reason), std::string::npos) << ended.err;
        EXPECT_NE(ended.err.find("next: " + next), std::string::npos) << ended.err;
    }
    int count_of(const std::string &call) { return static_cast<int>(processes_of(call).size()); }

    const std::string backup_state = "/var/backup-state";
    const std::string file = "/exchange/one";
    const std::string back_file = "/exchange/back";
    std::string one_;
};

}  // namespace test
