// Volumes with fimctl on one host, and what is left when it is killed or a command fails half-way.
#include "tests/lab_fimctl/two_hosts.h"

namespace test {
namespace {

class FimctlVolumes : public FimctlOnTwoHosts {
  protected:
    // Puts a script in the place of a program; it may go on to the real one as $real.
    void replace(const std::string &program, const std::string &script) {
        host("mv " + program + " " + program + ".real && printf '%s\\n' '#!/bin/sh' 'real=" +
             program + ".real' '" + script + "' >" + program + " && chmod 755 " + program);
    }
    void put_back(const std::string &program) { host("mv " + program + ".real " + program); }
    // fimctl, which a replaced program kills by the number in /exchange/pid.
    void killed_fim(const std::string &arguments) {
        int status = -1;
        host("echo $$ >/exchange/pid; LD_PRELOAD=/usr/lib/tflab/libtflabsleep.so exec fimctl -q " +
                 arguments,
             &status);
        EXPECT_EQ(status, 128 + 9) << arguments;
        // The phase dies with it; what the phase had running has only its own end left.
        host("while pidof fimctl; do sleep 0.02; done");
    }
    // Ends only behind fimctl: a phase that still lives would take the end for a failed command,
    // and go on as one that has seen a failure.
    static constexpr char kill_it[] =
        "victim=$(cat /exchange/pid); kill -9 $victim; while grep -q \"^State:.[^ZX]\" "
        "/proc/$victim/status 2>/dev/null; do :; done; exit 1";
};

TEST_F(FimctlVolumes, of_one_group_and_of_another_are_read_on_their_own_host_needs_root) {
    make_group();
    make_second_group();
    fim("run /data/vol1 /data/vol2 /data/log1 -- sh -c 'n=1; for copy; do mkdir -p /exchange/$n; "
        "cp "
        "-a $copy/. /exchange/$n/; n=$((n + 1)); done' sh {}");
    expect_as_frozen("vol1", "/exchange/1");
    expect_as_frozen("vol2", "/exchange/2");
    expect_as_frozen("log1", "/exchange/3");
    expect_nothing_left();
    expect_established({"00A1", "00A2", "00A4"});
}

TEST_F(FimctlVolumes, of_an_imported_group_are_read_on_their_own_host_needs_root) {
    make_group();
    ask_for_import();
    // The method makes mirrors known only to the volume manager of a backup host.
    host("for disk in sdq sdr; do qzdisk define $disk && qzdisk online $disk; done");
    fim(std::string("run ") + with_import +
        " /data/vol1 /data/vol2 -- sh -c 'cp -a $1/. /exchange/1; cp -a $2/. /exchange/2' sh {}");
    expect_as_frozen("vol1", "/exchange/1");
    expect_as_frozen("vol2", "/exchange/2");
    expect_nothing_left();
    expect_established({"00A1", "00A2"});
    host("touch /data/vol1/still /data/vol2/there");
}

TEST_F(FimctlVolumes, that_are_named_by_their_device_are_read_as_devices_needs_root) {
    make_group();
    ASSERT_EQ(fim("freeze /dev/qz/dsk/datadg/vol1"), "1");
    ASSERT_EQ(fim("mount 1"), "/dev/qz/dsk/client1_datadg_clone/vol1");
    host("mkdir /copy && mount -o ro /dev/qz/dsk/client1_datadg_clone/vol1 /copy");
    expect_as_frozen("vol1", "/copy");
    const Told told = try_fim("release 1");
    EXPECT_EQ(told.status, 3) << "somebody else has mounted the copy";
    EXPECT_NE(told.text.find("fuser -vm /dev/qz/dsk/client1_datadg_clone/vol1"), std::string::npos)
        << told.text;
    host("umount /copy");
    fim("release 1");
    expect_nothing_left();
    expect_established({"00A1"});
}

TEST_F(FimctlVolumes, killed_between_the_cut_and_the_checkpoint_are_established_again_needs_root) {
    make_group();
    const std::string tool = "/usr/quill/tessera/bin/tqdgclone";
    replace(tool,
            std::string("case \"$*\" in *\" -i \"*) ") + kill_it + ";; esac; exec $real \"$@\"");
    killed_fim("freeze /data/vol1 /data/vol2");
    put_back(tool);
    EXPECT_EQ(pair_state("00A1", "01A1"), 5);
    fim("release 1");
    expect_nothing_left();
    expect_established({"00A1", "00A2"});
    host("touch /data/vol1/still /data/vol2/there");
}

TEST_F(FimctlVolumes, of_an_imported_group_killed_after_the_cut_are_established_again_needs_root) {
    make_group();
    ask_for_import();
    // The second control call is the split; its answer comes long after its effect.
    array("fault add SymDevListBcvControl --at 2 --after --code 0 --delay-ms 60000");
    host(std::string("(LD_PRELOAD=/usr/lib/tflab/libtflabsleep.so exec fimctl -q freeze ") +
         with_import +
         " /data/vol1 /data/vol2 >/exchange/told 2>&1 </dev/null) & echo $! "
         ">/exchange/pid");
    host(
        "for i in $(seq 300); do fimctl show 1 2>&1 | grep -q 'state: *cutting' && break; sleep "
        "0.1; done; sleep 1; kill -9 $(cat /exchange/pid); while pidof fimctl; do sleep 0.02; "
        "done");
    EXPECT_NE(fim("list").find("cutting"), std::string::npos) << host("cat /exchange/told");
    EXPECT_EQ(pair_state("00A1", "01A1"), 5);
    host("touch /data/vol1/not-frozen /data/vol2/either");
    fim("release 1");
    expect_nothing_left();
    expect_established({"00A1", "00A2"});
}

TEST_F(FimctlVolumes, killed_while_the_group_comes_up_are_taken_down_by_the_release_needs_root) {
    make_group();
    ask_for_import();
    fim(std::string("freeze ") + with_import + " /data/vol1 /data/vol2");
    fim("export 1 --output /exchange/out");
    on("backup1");
    fim("import /exchange/out");
    replace("/usr/sbin/qzvol", kill_it);
    killed_fim("mount 1");
    put_back("/usr/sbin/qzvol");
    EXPECT_NE(host("qzdg list"), "") << "the group is imported";
    EXPECT_NE(fim("list").find("mounting"), std::string::npos);
    fim("release 1");
    expect_nothing_left();
}

TEST_F(FimctlVolumes, killed_while_the_group_comes_up_are_mounted_by_the_next_mount_needs_root) {
    make_group();
    ask_for_import();
    fim(std::string("freeze ") + with_import + " /data/vol1 /data/vol2");
    fim("export 1 --output /exchange/out");
    on("backup1");
    fim("import /exchange/out");
    replace("/usr/sbin/qzvol", kill_it);
    killed_fim("mount 1");
    put_back("/usr/sbin/qzvol");
    EXPECT_NE(host("qzdg list"), "") << "the group is imported";
    fim("mount 1");
    expect_as_frozen("vol1", "/var/lib/fimctl/mnt/client1-1-1");
    expect_as_frozen("vol2", "/var/lib/fimctl/mnt/client1-1-2");
    fim("release 1");
    expect_nothing_left();
}

TEST_F(FimctlVolumes, that_cannot_be_started_leave_no_group_behind_needs_root) {
    make_group();
    ask_for_import();
    fim(std::string("freeze ") + with_import + " /data/vol1 /data/vol2");
    fim("export 1 --output /exchange/out");
    on("backup1");
    fim("import /exchange/out");
    replace("/usr/sbin/qzvol", "exit 1");
    const Told told = try_fim("mount 1");
    EXPECT_EQ(told.status, 1) << told.text;
    EXPECT_NE(told.text.find("nothing is mounted; the snapshot stays frozen"), std::string::npos)
        << told.text;
    EXPECT_EQ(host("qzdg list | grep clone || true"), "");
    put_back("/usr/sbin/qzvol");
    fim("mount 1");
    expect_as_frozen("vol1", "/var/lib/fimctl/mnt/client1-1-1");
    expect_as_frozen("vol2", "/var/lib/fimctl/mnt/client1-1-2");
    fim("release 1");
    expect_nothing_left();
}

}  // namespace
}  // namespace test
