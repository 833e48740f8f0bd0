// Hosts see their own devices, mounts, files and names, and nothing of one another.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "tests/lab_host/lab.h"

namespace {

using test::shell;

struct Host : testing::Test {
    void SetUp() override { SKIP_WITHOUT_ROOT(); }
    // Runs a script in a world with two hosts and answers what it printed. "on HOST COMMAND..."
    // runs a command in a host.
    std::string in_world(const std::string &script, const std::string &options = "--bare") {
        std::ofstream(scratch / "script")
            << "on() { host=$1; shift; tflab exec \"$host\" -- \"$@\"; }\n"
            << script;
        const auto outcome =
            shell("tflab run " + options + " --host client1 --host backup1 -- bash -e " +
                  (scratch / "script"));
        EXPECT_EQ(outcome.status, 0) << outcome.output;
        return outcome.output;
    }
    test::Scratch scratch;
};

TEST_F(Host, has_a_name_of_its_own_that_is_local_needs_root) {
    EXPECT_EQ(in_world("on client1 hostname; on backup1 uname -n; on client1 cat /etc/hostname;"
                       "on client1 getent hosts client1 | tr -s ' ';"
                       "on client1 getent hosts backup1 || echo unknown\n"),
              "client1\nbackup1\nclient1\n127.0.0.1 localhost client1\nunknown\n");
}

TEST_F(Host, has_processes_of_its_own_needs_root) {
    EXPECT_EQ(in_world("on client1 sh -c 'sleep 77 & until pgrep -x sleep >/dev/null; do :; done;"
                       " pgrep -c -x sleep'\n"
                       "on backup1 pgrep -x sleep || echo none\n"),
              "1\nnone\n");
}

TEST_F(Host, mount_table_holds_its_own_mounts_only_needs_root) {
    EXPECT_EQ(in_world("on client1 mkdir /a\n"
                       "on client1 mount -t tmpfs mine /a\n"
                       "on client1 cut -d ' ' -f 2 /etc/mtab | sort | tr '\\n' ' '; echo\n"
                       "on backup1 cut -d ' ' -f 2 /etc/mtab | sort | tr '\\n' ' '; echo\n"),
              "/ /a /dev /dev/pts /exchange /proc /run /sys /tmp \n"
              "/ /dev /dev/pts /exchange /proc /run /sys /tmp \n");
}

TEST_F(Host, files_are_its_own_but_those_of_the_exchange_needs_root) {
    EXPECT_EQ(in_world("on client1 sh -c 'echo mine >/etc/only-here; echo both >/exchange/file'\n"
                       "on backup1 sh -c 'cat /exchange/file; cat /etc/only-here || echo none'"
                       " 2>/dev/null\n"
                       "test ! -e /etc/only-here\n"),
              "both\nnone\n");
}

TEST_F(Host, production_paths_are_in_place_needs_root) {
    in_world(
        "for f in /usr/quill/tessera/lib/libtimefinder_fim.so"
        " /usr/quill/tessera/lib/libtessera_host.so /usr/symcli/shlib/libsymapi.so"
        " /usr/quill/tessera/bin/tqtpcinfo /usr/bin/fimctl; do on client1 test -s $f; done\n"
        "for d in /usr/quill/tessera/online_util/fi_cntl /usr/quill/tessera/online_util/db_cntl"
        " /var/symapi; do on client1 test -d $d; done\n"
        "on client1 test ! -e /var/symapi/db\n"
        "test ! -e /usr/quill\n");
}

TEST_F(Host, method_and_host_library_load_there_needs_root) {
    EXPECT_EQ(in_world("on client1 sh -c 'ldd /usr/quill/tessera/lib/libtimefinder_fim.so"
                       " | grep tessera_host | cut -d \" \" -f 3'\n"),
              "/usr/quill/tessera/lib/libtessera_host.so\n");
}

TEST_F(Host, command_ends_with_its_own_status_needs_root) {
    EXPECT_EQ(in_world("on client1 sh -c 'exit 3' || echo $?\n"
                       "on client1 sh -c 'kill -15 $$' || echo $?\n"
                       "on nobody true 2>&1 || echo $?\n"),
              "3\n143\ntflab: there is no host 'nobody' in this world\n125\n");
}

TEST_F(Host, environment_is_fresh_needs_root) {
    EXPECT_EQ(in_world("SECRET=x tflab exec --env A=b client1 -- env | grep -v TERM | sort\n"),
              "A=b\nHOME=/root\nLANG=C.UTF-8\nLD_LIBRARY_PATH=/usr/quill/tessera/lib\n"
              "PATH=/usr/sbin:/usr/bin:/sbin:/bin:/usr/quill/tessera/bin\n");
}

TEST_F(Host, devices_are_those_that_the_array_shows_it_needs_root) {
    EXPECT_EQ(in_world("tfarray mask 000184500123 01A1 backup1 /dev/rdsk/c1t0d1\n"
                       "on client1 sh -c 'ls /dev/qz/dmp/p0 /dev/qz/rdmp/p0 /dev/sdq; ls /dev/rdsk'"
                       " 2>/dev/null || true\n"
                       "on backup1 sh -c 'ls /dev/rdsk/c1t0d1; ls /dev/qz /dev/sdq' 2>/dev/null"
                       " || true\n"
                       "on client1 sh -c 'test -b /dev/qz/dmp/p0 && test -b /dev/sdq'\n",
                       "--scenario demo"),
              "/dev/qz/dmp/p0\n/dev/qz/rdmp/p0\n/dev/sdq\n/dev/rdsk/c1t0d1\n");
}

TEST_F(Host, stopped_host_takes_its_processes_and_mounts_along_needs_root) {
    EXPECT_EQ(in_world("on client1 sh -c 'mkfs.ext4 -q /dev/qz/dmp/p0 && mount /dev/qz/dmp/p0 /mnt"
                       " && exec 3>/mnt/held && (sleep 600 &)'\n"
                       "tflab host stop client1; tflab host list\n"
                       "tflab host start client1\n"
                       "on client1 sh -c 'mount /dev/qz/dmp/p0 /mnt && ls /mnt && umount /mnt'\n",
                       "--scenario demo"),
              "backup1\nheld\nlost+found\n");
}

TEST_F(Host, reaches_the_array_s_administration_only_when_started_so_needs_root) {
    EXPECT_EQ(in_world("on client1 tfarray show >/dev/null 2>&1 || echo no\n"
                       "tflab host start --admin client2\n"
                       "on client2 tfarray show | grep ^Array\n",
                       "--scenario demo"),
              "no\nArray 000184500123\n");
}

TEST_F(Host, small_world_s_shell_says_what_can_be_tried_needs_root) {
    const auto outcome =
        shell("echo 'hostname; tfarray show | grep -c TSR-BCV; exit 5' | tflab shell");
    EXPECT_EQ(outcome.status, 5);
    EXPECT_NE(outcome.output.find("fimctl run /data"), std::string::npos);
    EXPECT_TRUE(outcome.output.ends_with("client1\n2\n")) << outcome.output;
}

TEST_F(Host, names_that_are_no_host_names_are_refused_needs_root) {
    EXPECT_EQ(in_world("for name in ../x .x -x 'a b' ''; do"
                       " tflab host start -- \"$name\" 2>/dev/null && echo \"$name\"; done; true\n"
                       "tflab host start client1 2>&1 || true\n"),
              "tflab: host 'client1' is there already\n");
}

TEST_F(Host, is_entered_from_outside_through_the_world_s_process_needs_root) {
    const std::string ready = scratch / "ready", done = scratch / "done";
    EXPECT_EQ(shell("tflab run --bare --host client1 --pid-file " + (scratch / "pid") +
                    " -- sh -c 'touch " + ready + "; until test -e " + done +
                    "; do sleep 0.02; done' & "
                    "until test -e " +
                    ready +
                    "; do sleep 0.02; done; "
                    "tflab exec --world $(cat " +
                    (scratch / "pid") +
                    ") client1 -- hostname; "
                    "touch " +
                    done + "; wait $!")
                  .output,
              "client1\n");
}

// What the host product's tool says of a device.
struct DeviceInformation : Host {};

TEST_F(DeviceInformation, of_an_array_device_is_path_and_serial_needs_root) {
    EXPECT_EQ(in_world("on client1 /usr/quill/tessera/bin/tqtpcinfo -f -p /dev/qz/rdmp/p0 -o -\n"
                       "on client1 /usr/quill/tessera/bin/tqtpcinfo -f -p /dev/sdq -o /tmp/out\n"
                       "on client1 cat /tmp/out\n"
                       "on client1 test -s /var/symapi/db/symapi_db.bin\n",
                       "--scenario demo"),
              "EMC SYMMETRIX p=/dev/qz/rdmp/p0 s=00018450012300A1\n"
              "EMC SYMMETRIX p=/dev/sdq s=00018450012301A1\n");
}

TEST_F(DeviceInformation, of_another_device_is_a_failure_needs_root) {
    EXPECT_EQ(in_world("on client1 tqtpcinfo -f -p /dev/null -o - 2>/tmp/err || echo $?\n"
                       "on client1 tqtpcinfo -f -p /dev/null -o - 2>&1 >/dev/null"
                       " | grep -c '^tqtpcinfo: /dev/null: SymPdevShow answers '\n",
                       "--scenario demo"),
              "1\n1\n");
}

TEST_F(DeviceInformation, without_the_array_is_a_failure_needs_root) {
    EXPECT_EQ(in_world("on client1 tqtpcinfo -f -p /dev/sdq -o - 2>/dev/null || echo $?\n"
                       "on client1 rm /usr/symcli/shlib/libsymapi.so\n"
                       "on client1 tqtpcinfo -f -p /dev/sdq -o - 2>/dev/null || echo $?\n"),
              "1\n1\n");
}

}  // namespace
