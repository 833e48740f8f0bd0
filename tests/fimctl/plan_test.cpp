// plan: what a freeze would do, told from what the host and the array show, with nothing changed.
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "fimctl/paths.h"
#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

namespace fs = std::filesystem;
namespace path = fimctl::path;
using test::Ended;
using Json = nlohmann::json;
using Words = std::vector<std::string>;

const std::string symid = "000184500123", other_symid = "000184500456";

void append(const std::string &file, const std::string &line) {
    std::ofstream(file, std::ios::app) << line << "\n";
}

class Plan : public test::FimctlWorld {
  protected:
    void SetUp() override {
        if (!test::is_real_root()) GTEST_SKIP() << "needs root: makes device nodes";
        FimctlWorld::SetUp();
        for (const char *folder : {path::host_lock_folder, path::counter_folder, "/dev/qz/rdmp",
                                   "/dev/qz/dmp", "/dev/qz/dsk/datadg", "/dev/qz/rdsk/datadg"}) {
            test::make_folders(folder);
        }
        test::write_script(path::device_information_tool,
                           "name=$(grep \" $3 \" /var/fake/devices | cut -d' ' -f1,2 | tr -d ' ')\n"
                           "[ -n \"$name\" ] || { echo \"$3: no array device\" >&2; exit 1; }\n"
                           "echo \"# a comment\"\necho \"EMC SYMMETRIX p=$3 s=$name\"");
        test::write_script(path::clone_tool,
                           "echo \"$*\" >>/var/fake/clone\n"
                           "while [ $# -gt 0 ]; do case $1 in -f) file=$2;; esac; shift; done\n"
                           "cat /var/fake/volume >\"$file\"");
        p0_ = add_primary("p0", "00A1", "01A1", 5);
    }

    static void add_node(const std::string &node, unsigned number) {
        ASSERT_EQ(mknod(node.c_str(), S_IFBLK | 0600, makedev(240, number)), 0) << node;
    }
    // A block device with its raw twin and a BCV that this host sees as /dev/sd and its name.
    static std::string add_primary(const std::string &disk, const std::string &name,
                                   const std::string &bcv, long state,
                                   const std::string &label = "TSR-BCV",
                                   const std::string &array = symid) {
        static unsigned next = 0;
        add_node("/dev/qz/dmp/" + disk, next);
        add_node("/dev/qz/rdmp/" + disk, next++);
        append("/var/fake/devices", array + " " + name + " /dev/qz/rdmp/" + disk + " datadg -");
        append("/var/fake/devices", array + " " + bcv + " /dev/sd" + disk + " datadg " + label);
        append("/var/fake/array", array + " " + name + " " + bcv + " " + std::to_string(state));
        return "/dev/qz/dmp/" + disk;
    }
    std::string add_volume_node(const std::string &volume, unsigned number) {
        add_node("/dev/qz/dsk/datadg/" + volume, number);
        test::write_file("/var/fake/volume", "/dev/qz/rdmp/p0\n");
        return "/dev/qz/dsk/datadg/" + volume;
    }

    Json plan(const Words &paths, const Words &options = {}, int status = -1) {
        Words words = {"plan", "--json"};
        words.insert(words.end(), options.begin(), options.end());
        words.insert(words.end(), paths.begin(), paths.end());
        const Ended ended = fimctl(words);
        const Json made = Json::parse(ended.out, nullptr, false);
        if (made.is_discarded()) {
            ADD_FAILURE() << ended.out << ended.err;
            return Json::object();
        }
        const int expected = status >= 0 ? status : made.at("possible").get<bool>() ? 0 : 1;
        EXPECT_EQ(ended.status, expected) << ended.out;
        return made;
    }
    // Whether a problem of this kind holds a text, with its remedy.
    static bool tells(const Json &made, bool prevents, const std::string &text) {
        for (const Json &problem : made.at("problems")) {
            const auto whole = problem.at("text").get<std::string>() + " -> " +
                               problem.at("remedy").get<std::string>();
            if (problem.at("prevents") == prevents && whole.find(text) != std::string::npos) {
                return true;
            }
        }
        ADD_FAILURE() << "no \"" << text << "\" in " << made.at("problems").dump(2);
        return false;
    }
    static Json device(const Json &made, size_t object = 0, size_t number = 0) {
        return made.at("objects").at(object).at("devices").at(number);
    }
    static std::string counter(const std::string &group) {
        return std::string(path::counter_folder) + "/__LOCKFILE_" + group;
    }

    std::string p0_;
};

TEST_F(Plan, a_labelled_bcv_that_is_split_would_be_established_and_split) {
    const Json made = plan({p0_});
    EXPECT_TRUE(made["possible"]);
    const Json one = device(made);
    EXPECT_EQ(one["path"], "/dev/qz/rdmp/p0");
    EXPECT_EQ(one["array"], symid);
    EXPECT_EQ(one["device"], "00A1");
    EXPECT_EQ(one["bcv"]["name"], "01A1");
    EXPECT_EQ(one["bcv"]["state_name"], "split");
    EXPECT_EQ(one["bcv"]["path"], "/dev/sdp0");
    EXPECT_EQ(one["bcv"]["action"], "established incrementally, then split");
    EXPECT_EQ(one["lock"]["file"], counter("0001845001230000"));
    EXPECT_EQ(one["lock"]["owner"], "nobody");
    EXPECT_EQ(made["problems"].size(), 0U);
    EXPECT_EQ(made["commands"]["freeze"],
              Json({"/usr/quill/tessera/bin/tqtpcinfo -f -p /dev/qz/rdmp/p0 -o -"}));
}

TEST_F(Plan, the_text_says_the_same_in_aligned_lines_and_ends_with_a_verdict) {
    const Ended ended = fimctl({"plan", p0_});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.err, "");
    EXPECT_EQ(
        ended.out,
        "object      /dev/qz/dmp/p0 (block device)\n"
        "  device    /dev/qz/rdmp/p0 = 000184500123/00A1, device group datadg\n"
        "  BCV       01A1 (TSR-BCV, split, /dev/sdp0): established incrementally, then split\n"
        "  lock      0001845001230000, free\n"
        "quiesced    nothing\n"
        "import      no: no path is on a volume\n"
        "at freeze   /usr/quill/tessera/bin/tqtpcinfo -f -p /dev/qz/rdmp/p0 -o -\n"
        "Nothing speaks against a freeze.\n");
}

TEST_F(Plan, nothing_is_changed_on_the_array_or_the_host) {
    const std::string counter_file = counter("0001845001230000");
    const int32_t gone[3] = {2000000000, 2, 1};
    test::write_file(counter_file, std::string(reinterpret_cast<const char *>(gone), sizeof gone));
    const std::string volume = add_volume_node("vol1", 7);
    const std::string array = test::read_file("/var/fake/array");
    const std::string bytes = test::read_file(counter_file);
    test::make_folders("/temporary");
    setenv("TMPDIR", "/temporary", 1);
    plan({p0_, volume});
    EXPECT_EQ(test::read_file("/var/fake/array"), array);
    EXPECT_EQ(test::read_file(counter_file), bytes);
    EXPECT_TRUE(fs::is_empty("/temporary")) << "the clone tool's list is gone again";
    EXPECT_TRUE(fs::is_empty(path::host_lock_folder));
    EXPECT_FALSE(test::exists(state_));
    EXPECT_TRUE(story().empty()) << story();
    for (const std::string &call : calls()) {
        const std::string name = call.substr(0, call.find(' '));
        EXPECT_TRUE(name == "SymInitV" || name == "SymPdevShow" || name == "SymDevShow" ||
                    name == "SymExit")
            << call;
    }
}

TEST_F(Plan, a_synchronised_pair_would_only_be_split) {
    EXPECT_EQ(device(plan({add_primary("p1", "00A2", "01A2", 2)}))["bcv"]["action"], "split");
}

TEST_F(Plan, an_unlabelled_bcv_that_is_split_stops_the_freeze_unless_it_is_asked_to_establish) {
    const std::string p1 = add_primary("p1", "00A2", "01A2", 5, "OTHER");
    Json made = plan({p1});
    EXPECT_FALSE(made["possible"]);
    EXPECT_TRUE(tells(made, true, "would not establish it -> --config sync_at_start=1"));
    made = plan({p1}, {"--config", "sync_at_start=1"});
    EXPECT_TRUE(made["possible"]);
    EXPECT_EQ(device(made)["bcv"]["action"], "established incrementally, then split");
    EXPECT_TRUE(tells(made, false, "does not carry the label"));
    made = plan({p1}, {"--config", "SYNC_AT_START=2"});
    EXPECT_EQ(device(made)["bcv"]["action"], "established in full, then split");
}

TEST_F(Plan, a_device_without_a_pair_or_unknown_to_the_array_stops_the_freeze) {
    test::write_file("/var/fake/array", "");
    EXPECT_TRUE(tells(plan({p0_}), true, "is not a member of a BCV pair"));
    test::write_file("/var/fake/devices", "");
    EXPECT_TRUE(tells(plan({p0_}), true, "the array does not know /dev/qz/rdmp/p0"));
}

TEST_F(Plan, a_bcv_is_no_primary) {
    add_node("/dev/qz/dmp/q0", 99);
    add_node("/dev/qz/rdmp/q0", 99);
    test::write_file("/var/fake/devices", symid + " 00A1 /dev/qz/rdmp/p0 datadg -\n" + symid +
                                              " 01A1 /dev/qz/rdmp/q0 datadg TSR-BCV\n");
    EXPECT_FALSE(plan({"/dev/qz/dmp/q0"})["possible"]);
}

TEST_F(Plan, a_bcv_that_is_not_visible_here_is_a_note) {
    test::write_file("/var/fake/devices", symid + " 00A1 /dev/qz/rdmp/p0 datadg -\n" + symid +
                                              " 01A1 - datadg TSR-BCV\n");
    const Json made = plan({p0_});
    EXPECT_TRUE(made["possible"]);
    EXPECT_EQ(device(made)["bcv"]["path"], "");
    EXPECT_TRUE(tells(made, false, "is not visible on this host"));
}

TEST_F(Plan, a_bcv_that_is_mounted_here_stops_the_freeze) {
    test::make_folders("/elsewhere");
    ASSERT_EQ(mount("tmpfs", "/elsewhere", "tmpfs", 0, nullptr), 0);
    struct stat status = {};
    ASSERT_EQ(stat("/elsewhere", &status), 0);
    ASSERT_EQ(mknod("/dev/sdp0", S_IFBLK | 0600, status.st_dev), 0);
    const Json made = plan({p0_}, {}, 1);
    EXPECT_TRUE(tells(made, true, "is mounted on /elsewhere -> umount /elsewhere"));
    ASSERT_EQ(umount("/elsewhere"), 0);
    EXPECT_EQ(plan({p0_}, {}, 0)["problems"].size(), 0U);
}

TEST_F(Plan, a_keyword_that_the_method_does_not_know_is_a_note) {
    const Json made = plan({p0_}, {"--config", "sync_at_strat=1"}, 0);
    EXPECT_TRUE(tells(made, false, "the method knows no keyword sync_at_strat"));
}

TEST_F(Plan, a_wrongly_associated_synchronised_bcv_would_be_split_first_and_that_is_said) {
    test::write_file("/var/fake/array", symid + " 00A1 01A1 5\n" + symid + " 00A1 01B1 2\n");
    append("/var/fake/devices", symid + " 01B1 /dev/sdr strangers TSR-BCV");
    const Json made = plan({p0_});
    EXPECT_TRUE(tells(made, false, "BCV 01B1 is synchronised with"));
    EXPECT_TRUE(tells(made, false, "cannot be known"));
    EXPECT_EQ(device(made)["bcv"]["name"], "01A1");
}

TEST_F(Plan, an_array_that_a_living_process_owns_stops_the_freeze_and_a_dead_owner_does_not) {
    const auto own = [](int32_t pid) {
        const int32_t fields[3] = {pid, 1, 1};
        test::write_file(counter("0001845001230000"),
                         std::string(reinterpret_cast<const char *>(fields), sizeof fields));
    };
    own(getpid());
    EXPECT_TRUE(tells(plan({p0_}), true, "owned by process " + std::to_string(getpid())));
    own(2000000000);
    const Json made = plan({p0_});
    EXPECT_TRUE(made["possible"]);
    EXPECT_EQ(device(made)["lock"]["owner"], "gone");
}

TEST_F(Plan, a_device_tool_that_does_not_answer_stops_the_freeze) {
    test::write_script(path::device_information_tool, "echo 'no such device' >&2; exit 1");
    EXPECT_TRUE(tells(plan({p0_}), true, "lock cannot be taken: no such device"));
    unlink(path::device_information_tool);
    EXPECT_TRUE(tells(plan({p0_}), true, "lock cannot be taken"));
}

TEST_F(Plan, what_another_snapshot_holds_stops_the_freeze) {
    add_object(p0_, 2, symid, "00A1", "01A1", 2);
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", p0_}).status, 0);
    EXPECT_TRUE(tells(plan({p0_}), true, "held by snapshot 1 (frozen) -> fimctl release 1"));
}

TEST_F(Plan, a_disk_below_a_volume_that_is_held_is_held_and_the_other_way_round) {
    const std::string volume = add_volume_node("vol1", 60);
    add_object(p0_, 2, symid, "00A1", "01A1", 2);
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", p0_}).status, 0);
    EXPECT_TRUE(tells(
        plan({volume}), true,
        volume + " lies on device 00A1 of array " + symid +
            ", which is held by snapshot 1 (frozen) -> end that one first: fimctl release 1"));
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_EQ(plan({volume}, {}, 0)["problems"].size(), 0U);
}

TEST_F(Plan, devices_of_one_name_on_two_arrays_cannot_be_in_one_snapshot) {
    const std::string p1 = add_primary("p1", "00A1", "01A1", 5, "TSR-BCV", other_symid);
    EXPECT_TRUE(tells(plan({p0_, p1}), true, "devices of the same name"));
}

TEST_F(Plan, a_short_device_name_is_refused_as_the_method_refuses_it) {
    add_node("/dev/sdb", 77);
    EXPECT_TRUE(tells(plan({"/dev/sdb"}), true, "short device name /dev/sdb"));
}

TEST_F(Plan, a_path_that_is_none_or_twice_the_same_is_a_usage_error) {
    EXPECT_EQ(fimctl({"plan", "/none"}).status, 2);
    EXPECT_EQ(fimctl({"plan", p0_, p0_}).status, 2);
    EXPECT_EQ(fimctl({"plan"}).status, 2);
}

TEST_F(Plan, a_file_system_is_found_by_the_last_line_of_the_mount_table) {
    const std::string one = add_file_system("one", symid, "00A9", "01A9");
    test::write_mount_table("/dev/qz/dmp/none " + one + " xfs rw 0 0\n/dev/qz//dmp/p0 " + one +
                            " ext4 rw 0 0\n");
    const Json made = plan({one});
    EXPECT_EQ(made["objects"][0]["block_device"], p0_);
    EXPECT_EQ(made["objects"][0]["file_system"], "ext4");
    EXPECT_EQ(made["quiesced"], Json({one}));
    const std::string mount = made["commands"]["mount"].dump();
    EXPECT_NE(mount.find("fsck -t ext4 /dev/sdp0"), std::string::npos) << mount;
    EXPECT_NE(mount.find("mount -t ext4 /dev/sdp0 /var/lib/fimctl/mnt/"), std::string::npos);
    EXPECT_EQ(plan({one}, {"--mount-at", "/copy"})["commands"]["release"], Json({"umount /copy"}));
    EXPECT_EQ(plan({one}, {"--no-quiesce"})["quiesced"], Json::array());
    test::write_mount_table("");
    EXPECT_TRUE(tells(plan({one}), true, "/etc/mtab does not list"));
}

TEST_F(Plan, a_folder_that_would_be_written_while_it_is_frozen_stops_the_freeze) {
    const std::string one = add_file_system("one", symid, "00A9", "01A9");
    EXPECT_TRUE(tells(plan({one}, {"--state", one + "/state"}), true, "would be frozen while"));
}

TEST_F(Plan, a_multipath_device_is_asked_about_by_its_own_name_and_locked_by_a_path_that_is_up) {
    add_node("/dev/emcpowera", 50);
    test::write_file("/dev/sdup", "");
    append("/var/fake/devices", symid + " 00A5 /dev/emcpowera datadg - /dev/sddown /dev/sdup");
    append("/var/fake/devices", symid + " 01A5 /dev/sdx datadg TSR-BCV");
    append("/var/fake/array", symid + " 00A5 01A5 2");
    test::write_script(path::device_information_tool, "echo \"EMC p=$3 s=SN$3\" | tr / -");
    Json made = plan({"/dev/emcpowera"});
    EXPECT_EQ(device(made)["path"], "/dev/emcpowera");
    EXPECT_NE(made["commands"]["freeze"].dump().find("-p /dev/sdup"), std::string::npos);
    unlink("/dev/sdup");
    made = plan({"/dev/emcpowera"});
    EXPECT_TRUE(tells(made, true, "no path of /dev/emcpowera is up"));
}

TEST_F(Plan, a_volume_s_devices_come_from_the_clone_tool_s_list) {
    const std::string volume = add_volume_node("vol1", 7);
    const Json made = plan({volume}, {"--config", "plexname=two"});
    EXPECT_EQ(made["objects"][0]["disk_group"], "datadg");
    EXPECT_EQ(made["objects"][0]["volume"], "vol1");
    EXPECT_EQ(device(made)["device"], "00A1");
    const std::string line = test::read_file("/var/fake/clone");
    EXPECT_EQ(line.substr(0, 21), "-g datadg -n vol1 -f ") << line;
    EXPECT_TRUE(line.ends_with(" -p two\n")) << line;
    EXPECT_EQ(made["import"], false);
    const auto clone = path::clone_tool + std::string(" -g datadg -n vol1 ");
    EXPECT_EQ(made["commands"]["freeze"][2], clone + "-d /dev/qz/rdmp/p0,/dev/sdp0 -i FILE -p two");
    const auto mounted = made["commands"]["mount"][0].get<std::string>();
    EXPECT_EQ(mounted.find(clone + "-d /dev/qz/rdmp/p0,/dev/sdp0 -i FILE -r "), 0U) << mounted;
}

TEST_F(Plan, a_clone_tool_that_fails_or_lists_nothing_leaves_the_devices_unknown) {
    const std::string volume = add_volume_node("vol1", 7);
    test::write_file("/var/fake/volume", "");
    EXPECT_TRUE(tells(plan({volume}), true, "no devices are associated with volume vol1"));
    test::write_script(path::clone_tool, "echo 'group datadg: not imported' >&2; exit 3");
    EXPECT_TRUE(tells(plan({volume}), true, "cannot be known: group datadg: not imported"));
    unlink(path::clone_tool);
    EXPECT_TRUE(tells(plan({volume}), true, "is missing: the devices of"));
}

TEST_F(Plan, an_imported_group_comes_as_a_whole_with_its_first_volume) {
    const std::string vol1 = add_volume_node("vol1", 7), vol2 = add_volume_node("vol2", 8);
    test::write_file("/var/fake/conf", "dgimport\n");
    const Words backup = {"--config", "alternate_backup_client=backup1"};
    const Json made = plan({vol1, vol2}, backup);
    EXPECT_EQ(made["import"], true);
    EXPECT_EQ(made["objects"][1]["devices"].size(), 0U);
    const std::string line = test::read_file("/var/fake/clone");
    EXPECT_EQ(line.substr(0, 13), "-g datadg -f ") << "the whole group, asked for once: " << line;
    const std::string commands = made["commands"].dump();
    EXPECT_NE(commands.find("/usr/sbin/qzdg -C -n "), std::string::npos) << commands;
    EXPECT_NE(commands.find("startall"), std::string::npos) << commands;
    EXPECT_NE(commands.find("-n datadg deport "), std::string::npos) << commands;
    EXPECT_EQ(commands.find(" -i FILE"), std::string::npos) << commands;
    const std::string out = fimctl({"plan", "--config", backup[1], vol1, vol2}).out;
    EXPECT_NE(out.find("those of " + vol1), std::string::npos) << out;
}

TEST_F(Plan, the_import_is_decided_as_the_method_decides_it) {
    const std::string volume = add_volume_node("vol1", 7);
    const auto import = [&](const std::string &entries, const std::string &client) {
        test::write_file("/var/fake/conf", entries);
        return plan({volume}, {"--config", "alternate_backup_client=" + client})["import"];
    };
    EXPECT_EQ(import("", "backup1"), false);
    EXPECT_EQ(import("dgimport\n", "backup1"), true);
    EXPECT_EQ(import("dgimport_backup1\n", "backup1"), true);
    EXPECT_EQ(import("dgimport_backup1\n", "backup2"), false);
    EXPECT_EQ(import("dgimport\nno_dgimport\n", "backup1"), false);
    EXPECT_EQ(import("dgimport\nno_dgimport_backup1\n", "backup1"), false);
    EXPECT_EQ(import("dgimport\n", "here"), false) << "the local host imports nothing";
}

TEST_F(Plan, without_a_database_the_array_is_not_asked_and_that_is_said) {
    unlink(path::array_database);
    const Json made = plan({p0_});
    EXPECT_FALSE(made["array_known"]);
    EXPECT_TRUE(tells(made, false, "pairs, BCVs and locks cannot be known"));
    EXPECT_TRUE(calls().empty());
    EXPECT_FALSE(test::exists(path::array_database));
}

TEST_F(Plan, an_array_that_does_not_answer_ends_the_plan_with_12) {
    array_fails("SymInitV", 6);
    EXPECT_TRUE(tells(plan({p0_}, {}, 12), true, "the array does not answer"));
}

TEST_F(Plan, a_configuration_string_that_the_method_refuses_stops_the_freeze) {
    EXPECT_TRUE(tells(plan({p0_}, {"--config", "sync_at_start=3"}), true, "configuration string"));
}

}  // namespace
