// What is left of volumes and on the backup host, and what a plan says of volumes, against what the
// method then does.
#include <nlohmann/json.hpp>

#include "tests/lab_fimctl/two_hosts.h"

namespace {

using test::FimctlOnTwoHosts;
using test::Told;
using Json = nlohmann::json;

class FimctlLeftOver : public FimctlOnTwoHosts {
  protected:
    // A command of fimctl that is killed, alone, when it has come to a line of its log; its phases
    // die with it.
    void kill_at(const std::string &arguments, const std::string &line) {
        host("rm -f /exchange/log; fimctl --log /exchange/log -q " + arguments +
             " >/exchange/output 2>&1 & pid=$!; for i in $(seq 2000); do grep -q '" + line +
             "$' /exchange/log 2>/dev/null && break; sleep 0.01; done; kill -9 $pid; while pidof "
             "fimctl; do sleep 0.02; done");
    }
};

TEST_F(FimctlLeftOver, of_a_run_on_an_imported_group_is_ended_by_cleanup_needs_root) {
    make_group();
    ask_for_import();
    host("for disk in sdq sdr; do qzdisk define $disk && qzdisk online $disk; done");
    kill_at("run " + std::string(with_import) + " /data/vol1 /data/vol2 -- sleep 100",
            "run the command: sleep");
    const std::string named = fim("orphans");
    EXPECT_NE(named.find("mounted, its fimctl was killed"), std::string::npos) << named;
    EXPECT_EQ(named.find("disk group "), std::string::npos) << "the snapshot names it: " << named;
    fim("cleanup");
    expect_nothing_left();
    expect_established({"00A1", "00A2"});
    EXPECT_EQ(fim("orphans"), "");
    fim("run " + std::string(with_import) + " /data/vol1 /data/vol2 -- true");
}

TEST_F(FimctlLeftOver, of_a_mount_on_the_backup_host_is_ended_there_needs_root) {
    make_group();
    ask_for_import();
    fim("freeze " + std::string(with_import) + " /data/vol1 /data/vol2");
    fim("export 1 --output /exchange/away");
    on("backup1");
    fim("import /exchange/away");
    kill_at("mount 1", "volumes (object 2)");
    const std::string named = fim("orphans");
    EXPECT_NE(named.find("(client1:1)"), std::string::npos) << named;
    EXPECT_NE(named.find("mounting, its fimctl was killed"), std::string::npos) << named;
    fim("cleanup");
    expect_nothing_left();
    EXPECT_EQ(fim("orphans"), "");
    on("client1");
    const std::string away = fim("orphans");
    EXPECT_NE(away.find("and not returned"), std::string::npos) << away;
    EXPECT_EQ(try_fim("cleanup 1").status, 3);
    fim("release 1 --abandoned");
    expect_established({"00A1", "00A2"});
}

TEST_F(FimctlLeftOver, disk_group_that_no_snapshot_names_is_told_with_its_command_needs_root) {
    make_group();
    fim("doctor");
    host(
        "set -e; umount /data/vol1 /data/vol2; qzdg -n datadg_clone deport datadg; "
        "qzdg import datadg_clone");
    const std::string named = fim("orphans");
    EXPECT_NE(named.find("disk group"), std::string::npos) << named;
    EXPECT_EQ(try_fim("cleanup").status, 3);
    host("/usr/sbin/qzdg deport datadg_clone");
    EXPECT_EQ(fim("orphans"), "");
}

TEST_F(FimctlLeftOver, a_plan_changes_nothing_and_names_the_commands_that_are_then_run_needs_root) {
    make_group();
    make_plain();
    const std::string paths = " /data/vol1 /data/vol2 /data/plain";
    // The first snapshot makes the array's database.
    fim("run" + paths + " -- true");
    const std::string before = picture();
    const Json plan = Json::parse(fim("plan --json" + paths));
    EXPECT_EQ(picture(), before);
    EXPECT_TRUE(plan["possible"]) << plan["problems"].dump(2);
    EXPECT_EQ(plan["objects"][0]["devices"][0]["device"], "00A1");
    EXPECT_EQ(plan["objects"][1]["devices"][0]["device"], "00A2");
    const std::string told =
        host("LD_PRELOAD=/usr/lib/tflab/libtflabsleep.so fimctl -v run" + paths + " -- true 2>&1");
    for (const char *phase : {"freeze", "mount", "release"}) {
        for (const Json &one : plan["commands"][phase]) {
            // Names that only the snapshot itself knows end what can be compared; check, mount and
            // unmount are the host library's and are not told.
            const auto line = one.get<std::string>();
            if (line.find('/') != 0) continue;
            EXPECT_NE(told.find(line.substr(0, line.find("FILE"))), std::string::npos)
                << line << "\n"
                << told;
        }
    }
}

}  // namespace
