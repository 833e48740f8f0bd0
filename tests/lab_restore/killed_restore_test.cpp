// fimctl restore, killed with everything that belongs to it, at one point after the other.
#include "tests/lab_restore/restore.h"

namespace test {
namespace {

struct KilledRestore : Restore {
    void kill_at(const std::string &program, const std::string &pattern) {
        make({vol1, vol2});
        freeze_all({vol1, vol2});
        for (const Object &object : {vol1, vol2}) destroy(object);
        wrap(program, pattern, "", "kill -9 $(pidof fimctl); sleep 0.3");
        int status = -1;
        host("fimctl restore 1 --yes", &status);
        EXPECT_EQ(status, 137);
        host("test -d /run/wrapped; while pidof fimctl; do sleep 0.02; done");
        EXPECT_EQ(state(), "restoring");
    }
    void kill_while_the_array_copies() {
        make({vol1, vol2});
        freeze_all({vol1, vol2});
        for (const Object &object : {vol1, vol2}) destroy(object);
        // The array takes its time, and goes on when nobody waits for it.
        array("rate 4");
        host(
            "fimctl restore 1 --yes >/run/said 2>&1 & "
            "for i in $(seq 500); do tfarray show | grep -q restoring && break; sleep 0.02; done; "
            "kill -9 $(pidof fimctl); while pidof fimctl; do sleep 0.02; done");
        EXPECT_EQ(state(), "restoring");
    }
    void expect_goes_on() {
        fim("restore 1 --plan-only");
        fim("restore 1 --yes");
        expect_restored({vol1, vol2});
    }
};

TEST_F(KilledRestore, behind_an_unmount_is_gone_on_with_needs_root) {
    kill_at("/usr/bin/umount", "*/data/vol1*");
    expect_goes_on();
}

TEST_F(KilledRestore, behind_the_deport_is_gone_on_with_needs_root) {
    kill_at("/usr/sbin/qzdg", "*deport*");
    expect_goes_on();
}

TEST_F(KilledRestore, behind_the_import_is_gone_on_with_needs_root) {
    kill_at("/usr/sbin/qzdg", "*import*");
    expect_goes_on();
}

TEST_F(KilledRestore, behind_the_start_of_the_volumes_is_gone_on_with_needs_root) {
    kill_at("/usr/sbin/qzvol", "*startall*");
    expect_goes_on();
}

TEST_F(KilledRestore, behind_a_check_is_gone_on_with_needs_root) {
    kill_at("/usr/sbin/fsck", "*");
    expect_goes_on();
}

TEST_F(KilledRestore, behind_a_mount_is_gone_on_with_needs_root) {
    kill_at("/usr/bin/mount", "*/data/*");
    expect_goes_on();
}

TEST_F(KilledRestore, while_the_array_copies_is_gone_on_with_needs_root) {
    kill_while_the_array_copies();
    expect_said(fim("release 1", 2),
                "would copy primaries that may be restored in part over their "
                "mirrors, the only whole copy");
    array("rate 4096");
    fim("restore 1 --yes");
    expect_restored({vol1, vol2});
}

TEST_F(KilledRestore, while_the_array_copies_and_given_up_waits_before_it_mounts_needs_root) {
    kill_while_the_array_copies();
    expect_said(fim("restore 1 --plan-only"), ": being restored by the array\n");
    host(
        "(fimctl release 1 --abandoned >/run/said 2>&1; echo $? >/run/status) >/dev/null 2>&1 & "
        "for i in $(seq 500); do grep -q 'still restoring' /run/said && break; sleep 0.02; done");
    EXPECT_EQ(mounts(), "");
    EXPECT_EQ(state(), "restoring");
    array("rate 4096");
    host("for i in $(seq 500); do [ -s /run/status ] && break; sleep 0.1; done");
    EXPECT_EQ(host("cat /run/status"), "0\n") << host("cat /run/said");
    expect_said(host("cat /run/said"),
                "the originals hold what the copy held: every pair is restored");
    EXPECT_EQ(mounts(), all_mounts({vol1, vol2}));
    for (const Object &object : {vol1, vol2}) expect_unchanged(object, object.data());
    EXPECT_EQ(state(), "released");
}

TEST_F(KilledRestore, before_the_array_was_asked_is_released_needs_root) {
    kill_at("/usr/sbin/qzdg", "*deport*");
    EXPECT_EQ(mounts(), "");
    fim("release 1");
    EXPECT_EQ(mounts(), all_mounts({vol1, vol2}));
    EXPECT_EQ(host("cat /data/vol1/instead"), "gone\n");
    EXPECT_EQ(state(), "released");
    array("clock advance 60");
    expect_pairs({vol1, vol2}, 2);
    expect_nothing_left();
}

}  // namespace
}  // namespace test
