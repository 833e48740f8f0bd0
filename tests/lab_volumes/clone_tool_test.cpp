// The clone tool by itself: what it lists, writes down, brings up and ends, and what it refuses.
#include <regex>

#include "tests/lab_volumes/volumes.h"

namespace test {
namespace {

constexpr char all_pairs[] =
    "/dev/qz/rdmp/p0,/dev/sdq:/dev/qz/rdmp/p1,/dev/sdr:/dev/qz/rdmp/p2,/dev/sds";

struct CloneTool : VolumesOnTwoHosts {
    // The mirrors of datadg's disks become copies of them, without the method.
    void split_mirrors() {
        const std::string pairs = " 000184500123 00A1 01A1 00A2 01A2 00A3 01A3";
        array("establish --full" + pairs);
        array("clock advance 60");
        host("sync");
        array("split" + pairs);
        array("clock advance 60");
    }
    // What it prints, with its status when that is not 0.
    std::string tool(const std::string &arguments) {
        int status = -1;
        const std::string output = host("tqdgclone " + arguments, &status);
        return status == 0 ? output : output + "status " + std::to_string(status) + "\n";
    }
    std::string describe(const std::string &volumes, const std::string &file) {
        return tool("-g datadg -n " + volumes + " -d " + all_pairs + " -i " + file + " -p DEFAULT");
    }
    std::string clone(const std::string &volumes, const std::string &file) {
        return tool("-g datadg -n " + volumes + " -d " + all_pairs + " -i " + file + " -r client1");
    }
    // What is on the mirrors, and which groups and volumes the host has.
    std::string state() {
        return host(
            "for disk in /dev/sd?; do head -c 1M $disk | sha256sum; done; qzdg list;"
            " ls /dev/qz/dsk /dev/qz/dsk/*; ls -A /tmp");
    }
    void expect_refused(const std::string &arguments, const std::string &reason) {
        const std::string before = state();
        EXPECT_EQ(tool(arguments), "tqdgclone: " + reason + "\nstatus 1\n");
        EXPECT_EQ(state(), before) << arguments;
    }
};

TEST_F(CloneTool, lists_the_raw_devices_of_a_group_and_of_a_volume_needs_root) {
    make({vol1, vol2, vol3});
    EXPECT_EQ(tool("-g datadg -f /tmp/group -p DEFAULT"), "");
    EXPECT_EQ(host("cat /tmp/group"), "/dev/qz/rdmp/p0\n/dev/qz/rdmp/p1\n/dev/qz/rdmp/p2\n");
    EXPECT_EQ(tool("-g datadg -n vol3 -f /tmp/volume -p DEFAULT"), "");
    EXPECT_EQ(host("cat /tmp/volume; stat -c %a /tmp/volume"),
              "/dev/qz/rdmp/p1\n/dev/qz/rdmp/p2\n600\n");
    // What the file held is gone.
    EXPECT_EQ(tool("-g datadg -n vol1 -f /tmp/group -p DEFAULT"), "");
    EXPECT_EQ(host("cat /tmp/group"), "/dev/qz/rdmp/p0\n");
}

TEST_F(CloneTool, writes_through_no_link_and_into_no_device_needs_root) {
    make({vol1});
    host(
        "echo mine >/exchange/victim && ln -s /exchange/victim /tmp/link"
        " && ln /exchange/victim /exchange/second && mkfifo /tmp/pipe");
    EXPECT_EQ(tool("-g datadg -f /tmp/link -p DEFAULT"),
              "tqdgclone: cannot open /tmp/link: Too many levels of symbolic links\nstatus 1\n");
    expect_refused("-g datadg -f /exchange/second -p DEFAULT",
                   "/exchange/second is not a regular file of this user");
    expect_refused("-g datadg -f /dev/null -p DEFAULT",
                   "/dev/null is not a regular file of this user");
    EXPECT_NE(tool("-g datadg -f /tmp/pipe -p DEFAULT").find("status 1"), std::string::npos);
    EXPECT_EQ(host("cat /exchange/victim"), "mine\n");
}

TEST_F(CloneTool, knows_one_plex_by_any_name_needs_root) {
    make({vol1});
    EXPECT_EQ(tool("-g datadg -n vol1 -f /tmp/list -p mirror-02"), "");
    EXPECT_EQ(host("cat /tmp/list"), "/dev/qz/rdmp/p0\n");
    expect_refused("-g datadg -n vol1 -f /tmp/list -p 'two words'", "'two words' is no plex name");
    EXPECT_EQ(tool("-g datadg -n vol1 -d /dev/qz/rdmp/p0,/dev/sdq -i /tmp/info -p mirror-02"), "");
    EXPECT_EQ(host("grep plex /tmp/info"), "plex mirror-02\n");
}

TEST_F(CloneTool, writes_down_what_a_copy_consists_of_needs_root) {
    make({vol1, vol2, vol3});
    // Neither split nor seen: the mirrors are not looked at.
    array("unmask 000184500123 01A2 client1");
    EXPECT_EQ(tool("-g datadg -n vol3,vol1 -d /dev/qz/rdmp/p1,/dev/sdX:/dev/qz/rdmp/p2,/dev/sds:"
                   "/dev/qz/rdmp/p0,/dev/sdq -i /tmp/info -p DEFAULT"),
              "");
    const std::string id = "([0-9A-Za-z._-]+)";
    EXPECT_TRUE(std::regex_match(
        host("cat /tmp/info"),
        std::regex("tessera-clone-information 1\ngroup datadg " + id +
                   "\nhost client1\nplex DEFAULT\ndisk " + id + " /dev/qz/rdmp/p1\ndisk " + id +
                   " /dev/qz/rdmp/p2\ndisk " + id +
                   " /dev/qz/rdmp/p0\nvolume vol3 [0-9]+ 67108864 ext4 \\2 \\3\n"
                   "volume vol1 1048576 67108864 ext4 \\4\nend [0-9a-f]{16}\n")))
        << host("cat /tmp/info");
}

TEST_F(CloneTool, refuses_what_the_group_has_not_needs_root) {
    make({vol1, vol3, log1});
    const std::string list = " -f /tmp/list -p DEFAULT", info = " -i /tmp/info -p DEFAULT";
    const std::string pair = " -d /dev/qz/rdmp/p0,/dev/sdq";
    for (const std::string &arguments :
         {"-g nodg" + list, "-g datadg -n log1" + list, "-g nodg -n vol1" + pair + info,
          "-g datadg -n log1" + pair + info, "-g datadg -n vol3" + pair + info,
          "-g datadg -n vol1 -d /dev/qz/rdmp/p3,/dev/sdt" + info,
          "-g datadg -n vol1 -d /dev/none,/dev/sdq" + info}) {
        const std::string before = state();
        EXPECT_NE(tool(arguments).find("status 1\n"), std::string::npos) << arguments;
        EXPECT_EQ(state(), before) << arguments;
    }
}

TEST_F(CloneTool, refuses_options_that_are_none_of_its_forms_needs_root) {
    make({vol1});
    const std::string before = state();
    for (const char *arguments : {"", "-g datadg", "-x", "-g datadg -f /tmp/list -p",
                                  "-g datadg -n vol1 -d /dev/sdq -p DEFAULT"}) {
        const std::string said = tool(arguments);
        EXPECT_NE(said.find("usage: tqdgclone -g GROUP"), std::string::npos) << said;
        EXPECT_NE(said.find("status 2\n"), std::string::npos) << said;
    }
    EXPECT_EQ(state(), before);
}

TEST_F(CloneTool, brings_up_what_it_wrote_down_and_ends_it_needs_root) {
    make({vol1, vol2, vol3});
    split_mirrors();
    EXPECT_EQ(describe("vol1,vol3", "/tmp/info"), "");
    EXPECT_EQ(clone("vol1,vol3", "/tmp/info"), "");
    EXPECT_EQ(host("ls /dev/qz/dsk/client1_datadg_clone /dev/qz/rdsk/client1_datadg_clone"),
              "/dev/qz/dsk/client1_datadg_clone:\nvol1\nvol3\n\n"
              "/dev/qz/rdsk/client1_datadg_clone:\nvol1\nvol3\n");
    for (const Object &object : {vol1, vol3}) {
        host("mount /dev/qz/dsk/client1_datadg_clone/" + object.name + " " + object.copy());
        expect_unchanged(object, object.copy());
    }
    // The original is as it was, and still the group of its name.
    EXPECT_EQ(host("qzdg list | grep -c ^datadg"), "1\n");
    expect_unchanged(vol2, vol2.data());
    EXPECT_EQ(clone("vol1,vol3", "/tmp/info"),
              "tqdgclone: client1_datadg_clone is there already\n");
    EXPECT_NE(clone("vol1,vol2", "/tmp/info").find("status 1\n"), std::string::npos);
    host("umount /copy/vol1 /copy/vol3");
    EXPECT_EQ(tool("-g datadg -n vol1 -c client1_datadg_clone"), "");
    EXPECT_EQ(tool("-g datadg -n vol1 -c client1_datadg_clone"),
              "tqdgclone: disk group client1_datadg_clone has no volume vol1\n");
    host("test -b /dev/qz/dsk/client1_datadg_clone/vol3");
    EXPECT_EQ(tool("-g datadg -n vol3 -c client1_datadg_clone"), "");
    EXPECT_EQ(tool("-g datadg -n vol3 -c client1_datadg_clone"),
              "tqdgclone: disk group client1_datadg_clone is not here\n");
    EXPECT_EQ(host("ls /dev/qz/dsk"), "datadg\n");
}

// Nothing is left on the mirrors by which a second copy could be made of them.
TEST_F(CloneTool, leaves_mirrors_that_have_to_be_split_again_needs_root) {
    make({vol1});
    split_mirrors();
    const std::string form = "-g datadg -n vol1 -d /dev/qz/rdmp/p0,/dev/sdq -p DEFAULT";
    EXPECT_EQ(tool(form), "");
    EXPECT_EQ(tool("-g datadg -n vol1 -c datadg_clone"), "");
    expect_refused(form, "/dev/sdq has no private region of the volume manager");
    split_mirrors();
    EXPECT_EQ(tool(form), "");
    host("mount /dev/qz/dsk/datadg_clone/vol1 /copy/vol1");
    expect_unchanged(vol1, "/copy/vol1");
}

TEST_F(CloneTool, needs_an_information_that_is_whole_and_of_this_copy_needs_root) {
    make({vol1, vol2, vol3, log1});
    split_mirrors();
    describe("vol1", "/tmp/info");
    EXPECT_EQ(tool("-g logdg -n log1 -d /dev/qz/rdmp/p3,/dev/sdt -i /tmp/foreign -p DEFAULT"), "");
    host("cd /tmp && : >empty && head -n 3 info >cut && sed s/vol1/vol2/ info >changed");
    const std::string form = "-g datadg -n vol1 -d /dev/qz/rdmp/p0,/dev/sdq";
    for (const auto &[file, reason] : std::vector<std::pair<std::string, std::string>>{
             {"empty", "it is empty"},
             {"cut", "it is not complete"},
             {"changed", "it is damaged"},
             {"foreign", "it is about disk group logdg, not about datadg"}}) {
        expect_refused(form + " -i /tmp/" + file + " -r client1", "/tmp/" + file + ": " + reason);
    }
    expect_refused(form + " -i /tmp/none -r client1",
                   "cannot open /tmp/none: No such file or directory");
    expect_refused(form + " -i /tmp/info -r client2",
                   "/tmp/info: it was written on host client1, not on client2");
    expect_refused("-g datadg -n vol2 -d /dev/qz/rdmp/p1,/dev/sdr -i /tmp/info -r client1",
                   "/tmp/info: it knows no volume vol2");
    expect_refused("-g datadg -n vol1 -d /dev/qz/rdmp/p0,/dev/sdr -i /tmp/info -r client1",
                   "/tmp/info: /dev/sdr is not the mirror of /dev/qz/rdmp/p0");
    EXPECT_EQ(clone("vol1", "/tmp/info"), "");
    // Nor is it done without where the copy is there already.
    expect_refused(form + " -i /tmp/foreign -r client1",
                   "/tmp/foreign: it is about disk group logdg, not about datadg");
}

TEST_F(CloneTool, refuses_mirrors_that_cannot_be_used_needs_root) {
    make({vol1});
    split_mirrors();
    const auto form = [](const std::string &mirror) {
        return "-g datadg -n vol1 -d /dev/qz/rdmp/p0," + mirror + " -p DEFAULT";
    };
    expect_refused(form("/dev/sdt"), "/dev/sdt has no private region of the volume manager");
    const std::string before = state();
    EXPECT_NE(tool(form("/dev/sdX")).find("/dev/sdX"), std::string::npos);
    EXPECT_EQ(state(), before);
    host(
        "dd if=/dev/zero of=/dev/sdq bs=1 count=1 seek=40 conv=notrunc status=none; sync /dev/sdq");
    const std::string damaged = tool(form("/dev/sdq"));
    EXPECT_EQ(damaged.find("tqdgclone: /dev/sdq: its private region is damaged: "), 0U) << damaged;
    array("establish 000184500123 00A1 01A1");
    array("clock advance 60");
    EXPECT_EQ(tool(form("/dev/sdq")),
              "tqdgclone: /dev/sdq is not ready: it is joined to its primary\nstatus 1\n");
}

TEST_F(CloneTool, does_not_end_what_is_in_use_or_is_no_clone_needs_root) {
    make({vol1, vol3});
    split_mirrors();
    EXPECT_EQ(tool("-g datadg -n vol1,vol3 -d " + std::string(all_pairs) + " -p DEFAULT"), "");
    host("mount -r /dev/qz/dsk/datadg_clone/vol1 /copy/vol1");
    const std::string before = state();
    const std::string busy = tool("-g datadg -n vol1 -c datadg_clone");
    EXPECT_NE(busy.find("mounted on /copy/vol1"), std::string::npos) << busy;
    EXPECT_NE(busy.find("status 1\n"), std::string::npos) << busy;
    EXPECT_EQ(state(), before);
    for (const char *group : {"datadg", "logdg_clone", "client1_datadg"}) {
        expect_refused(std::string("-g datadg -n vol1 -c ") + group,
                       std::string(group) + " is no clone of disk group datadg");
    }
    // Its sibling can go meanwhile.
    EXPECT_EQ(tool("-g datadg -n vol3 -c datadg_clone"), "");
    expect_unchanged(vol1, "/copy/vol1");
}

TEST_F(CloneTool, does_not_take_a_copy_that_is_up_on_another_host_needs_root) {
    make({vol1});
    split_mirrors();
    const std::string form =
        "-g datadg -n vol1 -d /dev/qz/rdmp/p0,MIRROR -i /exchange/info -r client1";
    const auto with = [&form](const std::string &mirror) {
        return std::regex_replace(form, std::regex("MIRROR"), mirror);
    };
    EXPECT_EQ(tool("-g datadg -n vol1 -d /dev/qz/rdmp/p0,/dev/sdq -i /exchange/info -p DEFAULT"),
              "");
    EXPECT_EQ(tool(with("/dev/sdq")), "");
    host("mount /dev/qz/dsk/client1_datadg_clone/vol1 /copy/vol1");
    on("backup1");
    const std::string said = tool(with("/dev/rdsk/c2t0d1"));
    EXPECT_NE(said.find("client1"), std::string::npos) << said;
    EXPECT_NE(said.find("status 1\n"), std::string::npos) << said;
    EXPECT_EQ(host("ls /dev/qz/dsk 2>/dev/null || true"), "");
    on("client1");
    expect_unchanged(vol1, "/copy/vol1");
}

// After a restart the host knows nothing of the copy but what the mirror carries.
TEST_F(CloneTool, brings_a_copy_up_again_that_its_host_forgot_needs_root) {
    make({vol1});
    split_mirrors();
    EXPECT_EQ(tool("-g datadg -n vol1 -d /dev/qz/rdmp/p0,/dev/sdq -i /exchange/info -p DEFAULT"),
              "");
    start_host("backup2");
    array("mask 000184500123 01A1 backup2 /dev/rdsk/c2t0d1");
    on("backup2");
    const std::string form =
        "-g datadg -n vol1 -d /dev/qz/rdmp/p0,/dev/rdsk/c2t0d1 -i /exchange/info -r client1";
    EXPECT_EQ(tool(form), "");
    restart_host("backup2");
    EXPECT_EQ(host("ls /dev/qz/dsk 2>/dev/null; qzdg list | grep clone; true"), "");
    EXPECT_EQ(tool(form), "tqdgclone: client1_datadg_clone is there already\n");
    host("mkdir -p /copy/vol1 && mount /dev/qz/dsk/client1_datadg_clone/vol1 /copy/vol1");
    expect_unchanged(vol1, "/copy/vol1");
}

}  // namespace
}  // namespace test
