// Whether a volume's disk group is to be imported on the backup host: what the configuration string
// and the host's configuration say, and what becomes of it.
#include "tests/lab_volumes/volumes.h"

namespace test {
namespace {

struct ImportDecision : VolumesInTheLab {
    // Freezes vol1 with these entries and rolls back.
    Phase decided(const Words &entries, const std::string &config) {
        std::string line = ": >/usr/quill/tessera/tq.conf";
        for (const std::string &entry : entries) {
            line += "; echo " + entry + "=1 >>/usr/quill/tessera/tq.conf";
        }
        host(line);
        const Phase frozen = phase({"freeze", config, "/data/vol1", "/copy/vol1", "rollback"});
        expect_all_succeed(frozen);
        return frozen;
    }
    // The decision as it is logged, and as it shows in what is asked of the clone tool.
    static void expect_decision(const Phase &frozen, bool import, const std::string &why) {
        const Call &call = frozen.at("freeze");
        EXPECT_EQ(call.logged("hdefp->dgimport = 1"), import) << why;
        EXPECT_EQ(call.logged("hdefp->dgimport = 0"), !import) << why;
        const std::string volume = import ? "" : " -n vol1";
        EXPECT_EQ(commands(call), Words{"/usr/quill/tessera/bin/tqdgclone -g datadg" + volume +
                                        " -f /tmp/EMCTF?????? -p DEFAULT"})
            << why;
    }
};

// One of the two forms asks for it, and neither of the others forbids it.
TEST_F(ImportDecision, follows_all_combinations_of_the_four_entries_needs_root) {
    make({vol1});
    const char *const entries[] = {"dgimport", "no_dgimport", "dgimport_backup1",
                                   "no_dgimport_backup1"};
    for (unsigned bits = 0; bits < 16; ++bits) {
        Words given;
        std::string why = "entries:";
        for (unsigned i = 0; i < 4; ++i) {
            if ((bits >> i & 1U) == 0) continue;
            given.push_back(entries[i]);
            why += std::string(" ") + entries[i];
        }
        const bool asked = (bits & 1U) != 0 || (bits & 4U) != 0;
        const bool forbidden = (bits & 2U) != 0 || (bits & 8U) != 0;
        expect_decision(decided(given, "alternate_backup_client=backup1"), asked && !forbidden,
                        why);
    }
}

TEST_F(ImportDecision, knows_no_entry_of_another_host_needs_root) {
    make({vol1});
    expect_decision(decided({"dgimport_backup2"}, "alternate_backup_client=backup1"), false,
                    "asked for another host");
    expect_decision(decided({"dgimport", "no_dgimport_backup2"}, "alternate_backup_client=backup1"),
                    true, "forbidden for another host");
}

TEST_F(ImportDecision, is_no_without_an_alternate_host_needs_root) {
    make({vol1});
    expect_decision(decided({"dgimport"}, "-"), false, "no configuration");
    expect_decision(decided({"dgimport"}, "alternate_backup_client=client1"), false, "this host");
    // The keyword writes another field than the one that the decision reads.
    expect_decision(decided({}, "keep_fi=1,alternate_backup_client=backup1"), false, "keep_fi");
}

TEST_F(ImportDecision, is_in_the_checkpoint_text_needs_root) {
    make({vol1});
    host("echo dgimport_backup1=1 >/usr/quill/tessera/tq.conf");
    freeze({vol1}, "alternate_backup_client=backup1");
    EXPECT_EQ(host("grep -E 'dgimport|CLONE_INFO|TRANSFER' /exchange/0"), "HDEF-dgimport=1\n");
}

}  // namespace
}  // namespace test
