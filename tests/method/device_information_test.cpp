#include "method/device_information.h"

#include <unistd.h>

#include "tests/support/allocation_faults.h"
#include "tests/support/frozen_object.h"
#include "tests/support/method_fixture.h"
#include "tests/support/private_root.h"

namespace {

constexpr char tool[] = "/usr/quill/tessera/bin/tqtpcinfo";

class DeviceInformation : public test::Method {
  protected:
    // What the tool prints, byte for byte.
    void tool_prints(const std::string &text) {
        test::write_file("/tmp/tool.output", text);
        test::write_script(tool, "cat /tmp/tool.output");
    }
    // "PATH SERIAL" of what was found, or "nothing".
    std::string found() {
        const tf::HeapOwner<device_info> info(find_device(object.get(), "/dev/rdsk/c1t0d0s2"));
        if (!info) return "nothing";
        EXPECT_EQ(info->reserved, 0);
        return std::string(info->devpath) + " " + info->serial;
    }
    std::string found_in(const std::string &text) {
        tool_prints(text);
        return found();
    }
    ~DeviceInformation() override { unlink("/tmp/tool.output"); }

    const std::string cannot_find = "find_device: Cannot find devpath or sn";
    const std::string cannot_process = "find_device: Cannot process device";
    test::FrozenObject object;
};

TEST_F(DeviceInformation, asks_the_tool_for_the_device) {
    test::write_script(tool, "echo \"EMC p=x s=$1,$2,$3,$4,$5,$#\"");
    EXPECT_EQ(found(), "x -f,-p,/dev/rdsk/c1t0d0s2,-o,-,5");
}

TEST_F(DeviceInformation, both_fields_come_from_one_line) {
    EXPECT_EQ(found_in("EMC SYMMETRIX p=/dev/rdsk/c2t0d1s2 s=SN0001\n"),
              "/dev/rdsk/c2t0d1s2 SN0001");
    expect_no_failure();
}

TEST_F(DeviceInformation, a_line_without_the_maker_is_ignored_even_with_pairs) {
    EXPECT_EQ(found_in("OTHER p=/dev/x s=SN0001\n"), "nothing");
    expect_failure(13, cannot_find);
}

TEST_F(DeviceInformation, comments_and_empty_lines_are_skipped) {
    EXPECT_EQ(found_in("# EMC p=/dev/no s=NO\n\nEMC p=/dev/yes s=YES\n"), "/dev/yes YES");
    expect_no_failure();
}

TEST_F(DeviceInformation, a_line_that_begins_with_nul_is_skipped) {
    EXPECT_EQ(found_in(std::string("\0EMC p=/dev/no s=NO\n", 20) + "EMC p=/dev/yes s=YES\n"),
              "/dev/yes YES");
    expect_no_failure();
}

TEST_F(DeviceInformation, a_comment_does_not_overwrite_what_was_found) {
    EXPECT_EQ(found_in("EMC p=/dev/yes s=YES\n#EMC p=/dev/no s=NO\n# EMC\n"), "/dev/yes YES");
    expect_no_failure();
}

TEST_F(DeviceInformation, later_lines_overwrite_earlier_values) {
    EXPECT_EQ(found_in("EMC p=/dev/a s=A\nEMC s=B\n"), "/dev/a B");
    EXPECT_EQ(found_in("EMC p=/dev/a s=A s=C\nEMC p=/dev/b\n"), "/dev/b C");
}

TEST_F(DeviceInformation, the_fields_may_stand_on_different_lines_and_in_any_order) {
    EXPECT_EQ(found_in("EMC s=A\nEMC p=/dev/a\n"), "/dev/a A");
    EXPECT_EQ(found_in("EMC s=A p=/dev/a\n"), "/dev/a A");
}

TEST_F(DeviceInformation, other_keys_are_ignored) {
    EXPECT_EQ(found_in("EMC v=1 p=/dev/a rev=5568 s=A x=2\n"), "/dev/a A");
    EXPECT_EQ(found_in("EMC v=1 pp=/dev/a P=/dev/a S=A\n"), "nothing");
}

TEST_F(DeviceInformation, the_first_key_is_the_one_character_before_the_first_equals_sign) {
    EXPECT_EQ(found_in("EMC path-p=/dev/a s=A\n"), "/dev/a A");
    EXPECT_EQ(found_in("EMC p=/dev/a path-s=A\n"), "nothing");
}

TEST_F(DeviceInformation, a_blank_a_tab_and_a_newline_end_a_value) {
    EXPECT_EQ(found_in("EMC p=/dev/a\ts=A\n"), "/dev/a A");
    EXPECT_EQ(found_in("EMC s=A p=/dev/a\n"), "/dev/a A");
    EXPECT_EQ(found_in("EMC s=A p=/dev/a"), "/dev/a A");
}

TEST_F(DeviceInformation, a_value_may_hold_an_equals_sign) {
    EXPECT_EQ(found_in("EMC p=/dev/a=b s=A\n"), "/dev/a=b A");
}

TEST_F(DeviceInformation, an_empty_value_does_not_swallow_the_next_pair) {
    EXPECT_EQ(found_in("EMC s= p=/dev/a\nEMC s=A\n"), "/dev/a A");
    EXPECT_EQ(found_in("EMC p=/dev/a s=\n"), "nothing");
    expect_failure(13, cannot_find);
}

TEST_F(DeviceInformation, a_blank_before_a_further_key_belongs_to_the_key) {
    EXPECT_EQ(found_in("EMC p=/dev/a  s=A\n"), "nothing");
}

TEST_F(DeviceInformation, text_behind_the_last_pair_is_ignored) {
    EXPECT_EQ(found_in("EMC p=/dev/a s=A and more\n"), "/dev/a A");
}

TEST_F(DeviceInformation, values_are_cut_to_their_fields) {
    const std::string serial(300, 'S');
    EXPECT_EQ(found_in("EMC p=/dev/a s=" + serial + "\n"), "/dev/a " + serial.substr(0, 255));
}

TEST_F(DeviceInformation, a_missing_serial_or_path_is_an_error) {
    EXPECT_EQ(found_in("EMC p=/dev/a\n"), "nothing");
    expect_failure(13, cannot_find);
    errnum = 0;
    EXPECT_EQ(found_in("EMC s=A\n"), "nothing");
    expect_failure(13, cannot_find);
    EXPECT_EQ(found_in(""), "nothing");
}

TEST_F(DeviceInformation, a_line_without_a_pair_ends_the_reading) {
    EXPECT_EQ(found_in("EMC SYMMETRIX\nEMC p=/dev/a s=A\n"), "nothing");
    EXPECT_EQ(times_logged(cannot_process), 1);
    // Both are reported; the framework sees the second.
    EXPECT_EQ(times_logged(cannot_find), 1);
    expect_failure(13, cannot_find);
}

TEST_F(DeviceInformation, what_was_collected_before_a_senseless_line_decides) {
    EXPECT_EQ(found_in("EMC p=/dev/a s=A\nEMC SYMMETRIX\nEMC s=B\n"), "/dev/a A");
    expect_failure(13, cannot_process);
    EXPECT_EQ(times_logged(cannot_find), 0);
}

TEST_F(DeviceInformation, a_line_that_begins_with_an_equals_sign_has_no_key) {
    EXPECT_EQ(found_in("=EMC p=/dev/a s=A\n"), "nothing");
    EXPECT_EQ(times_logged(cannot_process), 1);
}

TEST_F(DeviceInformation, a_line_longer_than_the_buffer_is_read_in_pieces) {
    // The piece behind the first 1023 characters does not name the maker.
    EXPECT_EQ(found_in("EMC p=/dev/a x=" + std::string(1100, 'x') + " s=A\n"), "nothing");
    expect_failure(13, cannot_find);
}

TEST_F(DeviceInformation, a_line_that_fills_the_buffer_ends_its_last_value_whole) {
    // A line of so many characters, its newline among them.
    const auto line = [](size_t length) {
        const std::string start = "EMC p=/dev/a x=", end = " s=SN0001\n";
        return start + std::string(length - start.size() - end.size(), 'x') + end;
    };
    EXPECT_EQ(found_in(line(1023)), "/dev/a SN0001");
    // The newline is left for a piece of its own, which is skipped.
    EXPECT_EQ(found_in(line(1024)), "/dev/a SN0001");
    expect_no_failure();
    EXPECT_EQ(found_in(line(1025)), "/dev/a SN000") << "cut; its rest does not name the maker";
}

TEST_F(DeviceInformation, a_failing_tool_gives_nothing_and_only_the_runners_report) {
    test::write_script(tool, "echo 'EMC p=/dev/a s=A'; echo no such device >&2; exit 1");
    EXPECT_EQ(found(), "nothing");
    EXPECT_EQ(errnum, 3);
    EXPECT_TRUE(std::string(errmsg).starts_with("do_cmd: Command failed with status=1: "));
    EXPECT_TRUE(logged("    no such device"));
    EXPECT_EQ(times_logged(cannot_find), 0);
}

TEST_F(DeviceInformation, an_output_that_cannot_be_opened_is_an_error) {
    test::write_script(tool, "rm " + object.out());
    EXPECT_EQ(found(), "nothing");
    expect_failure(13,
                   "find_device: Cannot open file " + object.out() + ": No such file or directory");
}

TEST_F(DeviceInformation, no_memory_for_the_record_quotes_line_1230) {
    tool_prints("EMC p=/dev/a s=A\n");
    test::fail_allocation(1);
    EXPECT_EQ(found(), "nothing");
    expect_failure(1, "find_device: Memory allocation failure at line 1230");
}

TEST_F(DeviceInformation, without_a_capture_name_there_is_nothing_to_read) {
    tool_prints("EMC p=/dev/a s=A\n");
    hdef h = {};
    EXPECT_EQ(find_device(&h, "/dev/a"), nullptr);
    expect_failure(13, cannot_find);
}

}  // namespace
