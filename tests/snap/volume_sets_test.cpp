// From a component volume to the mount of its volume set.
#include <gtest/gtest.h>

#include <string>

#include "tests/snap/snap_fixture.h"
#include "tests/support/allocation_faults.h"

namespace {

using test::events;
using test::Snap;

constexpr char tool[] = "/usr/sbin/qzvset";

class VolumeSets : public Snap {
  protected:
    VolumeSets() {
        test::write_mount_table(
            "/dev/qz/dsk/dg/set2 /sets qzfs rw 0 0\n"
            "/dev/qz/dsk/dg/plain /plain ufs rw 0 0\n");
    }
    // A disk group dg with the sets set1 (volumes a, b) and set2 (volumes c, d).
    static void install_tool() {
        test::write_script(tool,
                           "case \"$*\" in\n"
                           "'-g dg list') echo NAME GROUP; echo set1 dg; echo set2 dg;;\n"
                           "'-g dg list set1') echo VOLUME; echo a 0; echo b 1;;\n"
                           "'-g dg list set2') echo VOLUME; echo '  c 0'; echo d 1;;\n"
                           "*) exit 1;;\n"
                           "esac");
    }
    static std::string look_up(const std::string &path) {
        char before[] = "before";
        char *dir = before;
        char *type = before;
        const int result = rawtofs(path.c_str(), &dir, &type);
        return std::to_string(result) + " " + text(dir) + " " + text(type);
    }
    static bool ran_nothing() {
        for (const std::string &event : events()) {
            if (event.starts_with("call: popen")) return false;
        }
        return true;
    }
};

TEST_F(VolumeSets, a_mounted_device_needs_no_set) {
    install_tool();
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/plain"), "0 /plain ufs");
    EXPECT_TRUE(ran_nothing());
}

TEST_F(VolumeSets, a_component_is_found_at_the_mount_of_its_set) {
    install_tool();
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/d"), "0 /sets qzfs");
    EXPECT_EQ(happened(),
              "call: popen /usr/sbin/qzvset -g dg list\n"
              "call: popen /usr/sbin/qzvset -g dg list set1\n"
              "call: popen /usr/sbin/qzvset -g dg list set2\n"
              "component volume of vset /dev/qz/rdsk/dg/set2\n"
              "mount device: /sets fstype: qzfs\n");
}

TEST_F(VolumeSets, the_search_ends_at_the_first_set_that_holds_the_volume) {
    install_tool();
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/a"), "14 null null");
    EXPECT_EQ(happened(),
              "call: popen /usr/sbin/qzvset -g dg list\n"
              "call: popen /usr/sbin/qzvset -g dg list set1\n"
              "component volume of vset /dev/qz/rdsk/dg/set1\n");
}

TEST_F(VolumeSets, a_volume_of_no_set_gives_minus_1) {
    install_tool();
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/stranger"), "-1 null null");
}

TEST_F(VolumeSets, a_heading_is_no_name) {
    install_tool();
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/VOLUME"), "-1 null null");
}

TEST_F(VolumeSets, without_the_command_the_result_is_minus_1) {
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/a"), "-1 null null");
    EXPECT_TRUE(ran_nothing());
}

TEST_F(VolumeSets, a_path_without_a_volume_gives_minus_1_and_runs_nothing) {
    install_tool();
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg"), "-1 null null");
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/"), "-1 null null");
    EXPECT_EQ(look_up("/dev/qz/rdsk//"), "-1 null null");
    EXPECT_TRUE(ran_nothing());
}

TEST_F(VolumeSets, a_path_outside_the_volume_manager_gives_minus_1_and_runs_nothing) {
    install_tool();
    EXPECT_EQ(look_up("/dev/rdsk/dg/volume"), "-1 null null");
    EXPECT_EQ(look_up("/dev/qz/rdsk"), "-1 null null");
    EXPECT_TRUE(ran_nothing());
}

TEST_F(VolumeSets, a_path_that_only_has_the_length_of_the_volume_managers_runs_nothing) {
    install_tool();
    EXPECT_EQ(look_up("/dev/xx/rdsk/dg/d"), "-1 null null");
    EXPECT_TRUE(ran_nothing());
}

TEST_F(VolumeSets, what_stands_in_memory_behind_a_short_path_is_not_read) {
    install_tool();
    const char memory[] = "/dev/qz/rds\0dg/d";
    char *dir = nullptr;
    char *type = nullptr;
    EXPECT_EQ(rawtofs(memory, &dir, &type), -1);
    EXPECT_TRUE(ran_nothing());
}

TEST_F(VolumeSets, the_group_is_read_from_the_13th_character_on_whatever_stands_before) {
    install_tool();
    EXPECT_EQ(look_up("/dev/qz/rdmp/dg/d"), "0 /sets qzfs");
}

TEST_F(VolumeSets, what_follows_the_volume_is_ignored) {
    install_tool();
    EXPECT_EQ(look_up("/dev/qz/rdsk//dg//d/more"), "0 /sets qzfs");
}

TEST_F(VolumeSets, a_path_too_long_to_hold_runs_nothing) {
    install_tool();
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/" + std::string(1020, 'v')), "-1 null null");
    EXPECT_TRUE(ran_nothing());
}

TEST_F(VolumeSets, a_line_without_a_word_ends_the_list_of_sets) {
    test::write_script(tool,
                       "case \"$*\" in\n"
                       "'-g dg list') printf 'NAME\\nset1\\n  \\nset2\\n';;\n"
                       "*) printf 'VOLUME\\nother\\n';;\n"
                       "esac");
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/d"), "-1 null null");
    EXPECT_FALSE(happened("call: popen /usr/sbin/qzvset -g dg list set2"));
}

TEST_F(VolumeSets, a_line_without_a_word_does_not_end_the_listing_of_one_set) {
    test::write_script(tool,
                       "case \"$*\" in\n"
                       "'-g dg list') printf 'NAME\\nset2\\n';;\n"
                       "*) printf 'VOLUME\\n\\n  \\nd\\n';;\n"
                       "esac");
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/d"), "0 /sets qzfs");
}

TEST_F(VolumeSets, a_nul_ends_what_its_line_says_and_costs_no_line_behind_it) {
    test::write_script(tool,
                       "case \"$*\" in\n"
                       "'-g dg list') printf 'NAME\\0more\\nset1\\0x\\nset2\\n';;\n"
                       "'-g dg list set2') printf 'VOLUME\\nc\\0 d\\nd\\0\\n';;\n"
                       "*) printf 'VOLUME\\n';;\n"
                       "esac");
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/d"), "0 /sets qzfs");
    EXPECT_TRUE(happened("call: popen /usr/sbin/qzvset -g dg list set1"));
    EXPECT_FALSE(happened("call: popen /usr/sbin/qzvset -g dg list more"));
}

TEST_F(VolumeSets, a_look_up_by_device_overwrites_the_answer_of_a_look_up_by_set) {
    install_tool();
    char *dir = nullptr, *type = nullptr, *other_dir = nullptr, *other_type = nullptr;
    ASSERT_EQ(rawtofs("/dev/qz/rdsk/dg/d", &dir, &type), SN_OK);
    ASSERT_EQ(find_mnt("/dev/qz/rdsk/dg/plain", &other_dir, &other_type), SN_OK);
    EXPECT_EQ(dir, other_dir);
    EXPECT_EQ(type, other_type);
    EXPECT_STREQ(dir, "/plain");
}

TEST_F(VolumeSets, a_group_without_sets_gives_minus_1) {
    test::write_script(tool, "echo NAME");
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/d"), "-1 null null");
    test::write_script(tool, "exit 1");
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/d"), "-1 null null");
}

TEST_F(VolumeSets, every_name_of_a_long_list_is_held) {
    test::write_script(tool,
                       "case \"$*\" in\n"
                       "'-g dg list') echo NAME; seq 1 40; echo set2;;\n"
                       "'-g dg list set2') echo VOLUME; echo d;;\n"
                       "*) echo VOLUME;;\n"
                       "esac");
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/d"), "0 /sets qzfs");
}

TEST_F(VolumeSets, a_name_is_cut_to_its_buffer_and_its_line_stays_one_line) {
    test::write_script(tool,
                       "case \"$*\" in\n"
                       "'-g dg list') echo NAME; head -c 3000 /dev/zero | tr '\\0' x; echo;"
                       " echo set2;;\n"
                       "'-g dg list set2') echo VOLUME; echo d;;\n"
                       "*) echo VOLUME;;\n"
                       "esac");
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/d"), "0 /sets qzfs");
    ASSERT_GE(events().size(), 3u);
    EXPECT_EQ(events()[1], "call: popen /usr/sbin/qzvset -g dg list " + std::string(1023, 'x'));
    EXPECT_EQ(events()[2], "call: popen /usr/sbin/qzvset -g dg list set2");
}

TEST_F(VolumeSets, the_path_of_a_set_is_cut_to_its_buffer) {
    test::write_script(tool,
                       "case \"$*\" in\n"
                       "'-g dg list') echo NAME; head -c 1020 /dev/zero | tr '\\0' x; echo;;\n"
                       "*) echo VOLUME; echo d;;\n"
                       "esac");
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/d"), "14 null null");
    EXPECT_EQ(events().back(),
              "component volume of vset /dev/qz/rdsk/dg/" + std::string(1023 - 16, 'x'));
}

TEST_F(VolumeSets, a_pipe_that_cannot_be_opened_gives_minus_1) {
    install_tool();
    for (const int pipe : {1, 2, 3}) {
        test::calls().failing_pipe = pipe;
        EXPECT_EQ(look_up("/dev/qz/rdsk/dg/d"), "-1 null null") << pipe;
    }
}

TEST_F(VolumeSets, a_failing_allocation_of_the_name_list_gives_minus_1) {
    install_tool();
    // Allocations: the block name of the path, the list, two names.
    for (const int allocation : {2, 3, 4}) {
        events().clear();
        test::fail_allocation(allocation);
        EXPECT_EQ(look_up("/dev/qz/rdsk/dg/d"), "-1 null null") << allocation;
        EXPECT_EQ(happened(), "call: popen /usr/sbin/qzvset -g dg list\n");
    }
    test::no_more_faults();
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/d"), "0 /sets qzfs");
}

TEST_F(VolumeSets, names_reach_the_tool_as_one_word_each) {
    test::write_script(tool,
                       "printf '[%s]' \"$@\" >>/sets.log; echo HEADING\n"
                       "[ $# = 4 ] || echo '$(touch${IFS}/ran)'");
    EXPECT_EQ(look_up("/dev/qz/rdsk/d g;touch ran/v"), "-1 null null");
    EXPECT_EQ(test::read_file("/sets.log"),
              "[-g][d g;touch ran][list][-g][d g;touch ran][list][$(touch${IFS}/ran)]");
    EXPECT_FALSE(test::exists("/ran"));
    EXPECT_FALSE(test::exists("ran"));
    unlink("/sets.log");
}

TEST_F(VolumeSets, the_longest_names_are_not_cut) {
    test::write_script(tool,
                       "for a; do printf '%s' \"$a\" | wc -c; done >>/sets.log; echo HEADING\n"
                       "[ $# = 4 ] || printf \"%01000d\\n\" 0 | tr 0 \"'\"");
    const std::string group(1000, '\'');
    EXPECT_EQ(look_up("/dev/qz/rdsk/" + group + "/v"), "-1 null null");
    EXPECT_EQ(test::read_file("/sets.log"), "2\n1000\n4\n2\n1000\n4\n1000\n");
    unlink("/sets.log");
}

TEST_F(VolumeSets, without_memory_for_the_quotes_the_tool_is_not_run) {
    install_tool();
    test::fail_allocation(2);
    EXPECT_EQ(look_up("/dev/qz/rdsk/d g/v"), "-1 null null");
    test::no_more_faults();
    EXPECT_TRUE(ran_nothing());
}

TEST_F(VolumeSets, without_memory_for_the_quotes_of_a_set_the_search_ends) {
    test::write_script(tool, "echo NAME; [ $# = 4 ] || echo 's;1'; echo set2");
    // The block name of the path, the list, two names, and the quotes of the first.
    test::fail_allocation(5);
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/v"), "-1 null null");
    EXPECT_EQ(happened(), "call: popen /usr/sbin/qzvset -g dg list\n");
}

TEST_F(VolumeSets, a_long_last_line_without_its_newline_is_one_name) {
    test::write_script(tool,
                       "case \"$*\" in\n"
                       "'-g dg list') echo NAME; head -c 2000 /dev/zero | tr '\\0' x;;\n"
                       "*) echo VOLUME;;\n"
                       "esac");
    EXPECT_EQ(look_up("/dev/qz/rdsk/dg/d"), "-1 null null");
    EXPECT_EQ(happened(),
              "call: popen /usr/sbin/qzvset -g dg list\n"
              "call: popen /usr/sbin/qzvset -g dg list " +
                  std::string(1023, 'x') + "\n");
}

}  // namespace
