// The site's own script, which is called for every copy before the backup sees it. The one that is
// installed here is the example that comes with the tools.
#include "tests/lab_volumes/volumes.h"

namespace test {
namespace {

struct SiteScript : VolumesInTheLab {
    static constexpr char path[] = "/usr/quill/tessera/bin/tqdgclone_script";
    void install_example() {
        std::filesystem::copy_file(TF_SOURCE_DIR "/lab/tessera/tqdgclone_script.example",
                                   exchange() / "script");
        host(std::string("install -m 755 /exchange/script ") + path);
    }
    void install(const std::string &lines) {
        host(std::string("printf '#!/bin/sh\\n") + lines + "\\n' >" + path + " && chmod 755 " +
             path);
    }
    std::string notes() { return host("cat /var/log/tqdgclone_script"); }
};

TEST_F(SiteScript, is_called_with_both_paths_of_a_plain_device_needs_root) {
    install_example();
    const Phase all = phase({"freeze", "-", "/dev/qz/dmp/p3", "/copy", "ctl", "4", "commit",
                             "volumes", "thaw", "thaw_commit"});
    expect_all_succeed(all);
    EXPECT_EQ(commands(all.at("volumes")), Words{std::string(path) + " RAW /dev/sdt /dev/sdt"});
    EXPECT_EQ(notes(), "device /dev/sdt /dev/sdt\n");
}

TEST_F(SiteScript, is_called_for_every_volume_of_a_group_needs_root) {
    make({vol1, vol2});
    install_example();
    freeze({vol1, vol2});
    carry_clone_information({vol1, vol2});
    const Phase up = bring_up({vol1, vol2});
    EXPECT_EQ(commands(up.at("volumes", 0)).back(),
              std::string(path) + " QzVM datadg client1_datadg_clone vol1");
    EXPECT_EQ(commands(up.at("volumes", 1)),
              Words{std::string(path) + " QzVM datadg client1_datadg_clone vol2"});
    EXPECT_EQ(notes(),
              "volume vol1 of datadg as client1_datadg_clone\n"
              "volume vol2 of datadg as client1_datadg_clone\n");
    release({vol1, vol2});
    expect_released({vol1, vol2});
}

TEST_F(SiteScript, that_refuses_a_plain_device_ends_the_attempt_needs_root) {
    install("echo not today >&2; exit 3");
    const Phase all = phase({"freeze", "-", "/dev/qz/dmp/p3", "/copy", "ctl", "4", "commit",
                             "volumes", "thaw", "thaw_commit"});
    EXPECT_NE(all.at("volumes").status, 0);
    EXPECT_TRUE(all.at("volumes").logged_part("not today"));
    EXPECT_EQ(all.at("volumes").volpath, "");
    expect_success(all.at("thaw"));
    expect_success(all.at("thaw_commit"));
}

TEST_F(SiteScript, that_refuses_a_volume_leaves_a_copy_that_a_thaw_ends_needs_root) {
    make({vol1});
    install("[ \"$1\" = RAW ]");
    const Phase all =
        phase({"freeze", "-", "/data/vol1", "/copy/vol1", "ctl", "4", "commit", "volumes", "run",
               "test -b /dev/qz/dsk/datadg_clone/vol1", "thaw", "thaw_commit"});
    EXPECT_NE(all.at("volumes").status, 0);
    EXPECT_EQ(all.at("volumes").volpath, "");
    EXPECT_EQ(all.at("volumes").nvols, 0);
    EXPECT_EQ(host("grep /copy/ /proc/self/mounts || true"), "");
    expect_success(all.at("thaw"));
    expect_success(all.at("thaw_commit"));
    expect_released({vol1});
}

TEST_F(SiteScript, is_not_missed_when_it_is_not_there_needs_root) {
    make({vol1});
    host(std::string("test ! -e ") + path);
    const Phase all = phase({"freeze", "-", "/data/vol1", "/copy/vol1", "ctl", "4", "commit",
                             "volumes", "thaw", "thaw_commit"});
    expect_all_succeed(all);
    EXPECT_EQ(commands(all.at("volumes")).size(), 1U);
    for (const Call &call : all.calls) EXPECT_FALSE(call.logged_part("tqdgclone_script"));
}

}  // namespace
}  // namespace test
