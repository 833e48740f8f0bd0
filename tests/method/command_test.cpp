#include "method/command.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tests/support/frozen_object.h"
#include "tests/support/method_fixture.h"
#include "tests/support/private_root.h"
#include "tests/support/system_faults.h"

namespace {

class CommandRunner : public test::Method {
  protected:
    std::string suffix() const { return " </dev/null >" + object.out() + " 2>" + object.err(); }
    // A command that does nothing and makes a whole line of that many characters.
    std::string command_for_line_of(size_t length) const {
        const std::string command = "true ";
        return command + std::string(length - command.size() - suffix().size(), 'x');
    }
    // Nothing may have been run, with this message.
    void expect_refused(const std::string &command) {
        EXPECT_EQ(do_cmd(object.get(), "%s", command.c_str()), 11);
        expect_failure(3, "do_cmd: Command failed with status=2: " + command + suffix());
        EXPECT_FALSE(test::exists("/tmp/ran"));
        EXPECT_EQ(whole_log(),
                  "do_cmd: Command failed with status=2: " + command + suffix() + "\n");
    }
    ~CommandRunner() override { unlink("/tmp/ran"); }

    test::FrozenObject object;
};

TEST_F(CommandRunner, exit_status_0_is_success_without_a_message) {
    EXPECT_EQ(do_cmd(object.get(), "echo %s %d", "text", 5), 0);
    expect_no_failure();
    EXPECT_EQ(test::read_file(object.out()), "text 5\n");
}

TEST_F(CommandRunner, output_goes_into_the_two_capture_files) {
    EXPECT_EQ(do_cmd(object.get(), "sh -c 'echo out; echo err >&2'"), 0);
    EXPECT_EQ(test::read_file(object.out()), "out\n");
    EXPECT_EQ(test::read_file(object.err()), "err\n");
}

TEST_F(CommandRunner, the_next_command_overwrites_the_files_and_leaves_them) {
    EXPECT_EQ(do_cmd(object.get(), "echo a long first text"), 0);
    EXPECT_EQ(do_cmd(object.get(), "echo b"), 0);
    EXPECT_EQ(test::read_file(object.out()), "b\n");
}

TEST_F(CommandRunner, standard_input_is_the_null_device) {
    EXPECT_EQ(do_cmd(object.get(), "readlink /proc/self/fd/0"), 0);
    EXPECT_EQ(test::read_file(object.out()), "/dev/null\n");
}

TEST_F(CommandRunner, a_line_of_16383_characters_runs) {
    EXPECT_EQ(do_cmd(object.get(), "%s", command_for_line_of(16383).c_str()), 0);
    expect_no_failure();
}

TEST_F(CommandRunner, a_line_of_16384_characters_is_too_long) {
    const std::string command = command_for_line_of(16384);
    set_level(1);
    EXPECT_EQ(do_cmd(object.get(), "%s", command.c_str()), 11);
    // The command stands in the message without the redirections; a message ends after 2047.
    expect_failure(13, ("do_cmd: Command line too long: " + command).substr(0, 2047));
    EXPECT_FALSE(logged("Executing command: " + command + suffix()));
}

TEST_F(CommandRunner, a_command_of_16384_characters_alone_cannot_be_formatted) {
    EXPECT_EQ(do_cmd(object.get(), "%s", std::string(16384, 'x').c_str()), 11);
    expect_failure(13, "do_cmd: Q_vsnprintf() failed: 16384");
}

TEST_F(CommandRunner, a_command_of_16383_characters_alone_fails_with_its_suffix) {
    const std::string command(16383, 'x');
    EXPECT_EQ(do_cmd(object.get(), "%s", command.c_str()), 11);
    expect_failure(13, ("do_cmd: Command line too long: " + command).substr(0, 2047));
}

TEST_F(CommandRunner, a_formatting_error_is_reported_with_its_negative_result) {
    const wchar_t unprintable[] = {static_cast<wchar_t>(0x20ac), 0};
    EXPECT_EQ(do_cmd(object.get(), "%ls", unprintable), 11);
    expect_failure(13, "do_cmd: Q_vsnprintf() failed: -1");
}

TEST_F(CommandRunner, names_too_long_for_the_suffix_are_reported_with_its_length) {
    hdef h = *object.get();
    std::string name(16384, 'n');
    h.out_file = name.data();
    EXPECT_EQ(do_cmd(&h, "true"), 11);
    expect_failure(13, "do_cmd: Q_snprintf() failed: " +
                           std::to_string(16384 + suffix().size() - object.out().size()));
}

TEST_F(CommandRunner, a_suffix_of_16384_characters_is_the_first_that_does_not_fit) {
    hdef h = *object.get();
    std::string name(16384 - (suffix().size() - object.out().size()), 'n');
    h.out_file = name.data();
    EXPECT_EQ(do_cmd(&h, "true"), 11);
    expect_failure(13, "do_cmd: Q_snprintf() failed: 16384");
    name.pop_back();
    EXPECT_EQ(do_cmd(&h, "true"), 11);
    expect_failure(13, "do_cmd: Command line too long: true");
}

TEST_F(CommandRunner, a_failing_command_is_reported_and_then_both_files_are_dumped) {
    set_level(0);
    const std::string command = "sh -c 'echo x >&2; exit 1'";
    EXPECT_EQ(do_cmd(object.get(), "%s", command.c_str()), 11);
    const std::string message = "do_cmd: Command failed with status=1: " + command + suffix();
    expect_failure(3, message);
    EXPECT_EQ(whole_log(), message +
                               "\n"
                               "--- Dumping file " +
                               object.out() +
                               " (stdout):\n"
                               "--- End of file " +
                               object.out() +
                               "\n"
                               "--- Dumping file " +
                               object.err() +
                               " (stderr):\n"
                               "    x\n"
                               "--- End of file " +
                               object.err() + "\n");
}

TEST_F(CommandRunner, a_negative_level_keeps_the_message_quiet_but_not_the_dumps) {
    set_level(-1);
    EXPECT_EQ(do_cmd(object.get(), "exit 3"), 11);
    expect_failure(3, "do_cmd: Command failed with status=3: exit 3" + suffix());
    EXPECT_EQ(test::log_lines().size(), 4U);
    EXPECT_EQ(test::log_lines().front(), "--- Dumping file " + object.out() + " (stdout):");
}

TEST_F(CommandRunner, a_command_that_a_signal_ended_is_a_success) {
    EXPECT_EQ(do_cmd(object.get(), "kill -9 $$"), 0);
    expect_no_failure();
}

TEST_F(CommandRunner, a_shell_that_cannot_be_started_shows_as_status_255) {
    const test::SystemFault fault("system", 1, ENOMEM);
    EXPECT_EQ(do_cmd(object.get(), "true"), 11);
    expect_failure(3, "do_cmd: Command failed with status=255: true" + suffix());
}

TEST_F(CommandRunner, the_command_line_is_logged_from_level_1_on) {
    set_level(0);
    do_cmd(object.get(), "true");
    EXPECT_EQ(whole_log(), "");
    set_level(1);
    do_cmd(object.get(), "true");
    EXPECT_EQ(whole_log(), "Executing command: true" + suffix() + "\n");
}

TEST_F(CommandRunner, a_long_command_line_is_logged_as_far_as_a_log_line_goes) {
    set_level(1);
    const std::string command = command_for_line_of(2000);
    EXPECT_EQ(do_cmd(object.get(), "%s", command.c_str()), 0);
    EXPECT_EQ(whole_log(), ("Executing command: " + command).substr(0, 1022) + "\n");
}

TEST_F(CommandRunner, a_missing_name_stands_for_the_null_device) {
    hdef h = *object.get();
    h.out_file = nullptr;
    h.err_file = nullptr;
    set_level(1);
    EXPECT_EQ(do_cmd(&h, "exit 1"), 11);
    const std::string line = "exit 1 </dev/null >/dev/null 2>/dev/null";
    EXPECT_EQ(whole_log(), "Executing command: " + line +
                               "\n"
                               "do_cmd: Command failed with status=1: " +
                               line +
                               "\n"
                               "--- Dumping file /dev/null (stdout):\n"
                               "--- End of file /dev/null\n"
                               "--- Dumping file /dev/null (stderr):\n"
                               "--- End of file /dev/null\n");
}

TEST_F(CommandRunner, a_missing_capture_file_is_made_again_for_the_owner_alone) {
    unlink(object->out_file);
    const mode_t mask = umask(0);
    EXPECT_EQ(do_cmd(object.get(), "echo again"), 0);
    umask(mask);
    EXPECT_EQ(test::read_file(object.out()), "again\n");
    struct stat status = {};
    ASSERT_EQ(stat(object->out_file, &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
}

TEST_F(CommandRunner, nothing_is_run_while_a_link_stands_in_for_a_capture_file) {
    set_level(0);
    test::write_file("/tmp/ran.target", "untouched");
    for (const char *name : {object->out_file, object->err_file}) {
        test::log_lines().clear();
        unlink(name);
        ASSERT_EQ(symlink("/tmp/ran.target", name), 0);
        expect_refused("touch /tmp/ran");
        unlink(name);
    }
    EXPECT_EQ(test::read_file("/tmp/ran.target"), "untouched");
    unlink("/tmp/ran.target");
}

TEST_F(CommandRunner, nothing_is_run_while_a_link_to_nowhere_stands_in_for_a_capture_file) {
    set_level(0);
    unlink(object->out_file);
    ASSERT_EQ(symlink("/tmp/ran", object->out_file), 0);
    expect_refused("true");
    unlink(object->out_file);
}

TEST_F(CommandRunner, nothing_is_run_while_a_capture_file_has_a_second_name) {
    set_level(0);
    ASSERT_EQ(link(object->out_file, "/tmp/second"), 0);
    expect_refused("touch /tmp/ran");
    unlink("/tmp/second");
    EXPECT_EQ(do_cmd(object.get(), "true"), 0);
}

TEST_F(CommandRunner, nothing_is_run_while_a_pipe_or_folder_stands_in_for_a_capture_file) {
    set_level(0);
    unlink(object->out_file);
    ASSERT_EQ(mkfifo(object->out_file, 0600), 0);
    expect_refused("touch /tmp/ran");
    unlink(object->out_file);
    ASSERT_EQ(mkdir(object->out_file, 0700), 0);
    test::log_lines().clear();
    expect_refused("touch /tmp/ran");
    rmdir(object->out_file);
}

TEST_F(CommandRunner, nothing_is_run_while_a_capture_file_is_somebody_elses_needs_root) {
    if (!test::is_real_root()) GTEST_SKIP() << "chown needs the machine's root";
    set_level(0);
    ASSERT_EQ(chown(object->err_file, 65534, 65534), 0);
    expect_refused("touch /tmp/ran");
    unlink(object->err_file);
}

TEST_F(CommandRunner, nothing_is_run_when_a_missing_capture_file_cannot_be_made) {
    hdef h = *object.get();
    char name[] = "/tmp/no/such/folder";
    h.out_file = name;
    EXPECT_EQ(do_cmd(&h, "touch /tmp/ran"), 11);
    expect_failure(3,
                   "do_cmd: Command failed with status=2: touch /tmp/ran </dev/null "
                   ">/tmp/no/such/folder 2>" +
                       object.err());
    EXPECT_FALSE(test::exists("/tmp/ran"));
    EXPECT_FALSE(logged("--- Dumping file /tmp/no/such/folder (stdout):"));
}

TEST_F(CommandRunner, nothing_is_run_when_a_capture_file_cannot_be_asked_about) {
    hdef h = *object.get();
    test::write_file("/tmp/plain", "");
    char name[] = "/tmp/plain/below";
    h.err_file = name;
    EXPECT_EQ(do_cmd(&h, "touch /tmp/ran"), 11);
    expect_failure(3, "do_cmd: Command failed with status=2: touch /tmp/ran </dev/null >" +
                          object.out() + " 2>/tmp/plain/below");
    EXPECT_FALSE(test::exists("/tmp/ran"));
    unlink("/tmp/plain");
}

TEST_F(CommandRunner, a_refused_line_is_logged_before_it_is_refused) {
    set_level(1);
    unlink(object->out_file);
    ASSERT_EQ(symlink("/tmp/ran", object->out_file), 0);
    do_cmd(object.get(), "true");
    ASSERT_EQ(test::log_lines().size(), 2U);
    EXPECT_EQ(test::log_lines()[0], "Executing command: true" + suffix());
    unlink(object->out_file);
}

// The dump of a text under the name of the error file.
class FileDump : public test::Method {
  protected:
    std::string dump_of(const std::string &text) {
        test::write_file("/tmp/dumped", text);
        test::log_lines().clear();
        emc_tf__log_dump_file("/tmp/dumped", "stderr");
        unlink("/tmp/dumped");
        return whole_log();
    }
    const std::string header = "--- Dumping file /tmp/dumped (stderr):\n";
    const std::string trailer = "--- End of file /tmp/dumped\n";
};

TEST_F(FileDump, lines_are_indented_between_header_and_trailer) {
    EXPECT_EQ(dump_of("a\n b\nlast"), header + "    a\n     b\n    last\n" + trailer);
}

TEST_F(FileDump, an_empty_file_has_header_and_trailer_alone) {
    EXPECT_EQ(dump_of(""), header + trailer);
}

TEST_F(FileDump, an_empty_line_is_logged_as_four_blanks) {
    EXPECT_EQ(dump_of("a\n\nb\n"), header + "    a\n    \n    b\n" + trailer);
}

TEST_F(FileDump, one_newline_is_dropped_and_no_other_character) {
    EXPECT_EQ(dump_of("a\r\n"), header + "    a\r\n" + trailer);
}

TEST_F(FileDump, a_piece_that_begins_with_a_nul_is_passed_over) {
    EXPECT_EQ(dump_of(std::string("\0a\nb\n", 5)), header + "    b\n" + trailer);
}

TEST_F(FileDump, a_long_line_arrives_in_pieces_of_1023_characters) {
    const std::string text(1500, 'x');
    // The sink takes 1024 characters at a time, so the first piece with its four blanks is two.
    EXPECT_EQ(dump_of(text + "\n"), header + "    " + std::string(1020, 'x') + "\nxxx\n" + "    " +
                                        std::string(477, 'x') + "\n" + trailer);
}

TEST_F(FileDump, a_line_of_exactly_1023_characters_is_followed_by_its_empty_rest) {
    EXPECT_EQ(dump_of(std::string(1023, 'x') + "\n"),
              header + "    " + std::string(1020, 'x') + "\nxxx\n    \n" + trailer);
}

TEST_F(FileDump, a_missing_file_is_named_with_its_error) {
    emc_tf__log_dump_file("/tmp/none", "stdout");
    EXPECT_EQ(whole_log(),
              "--- Dumping file /tmp/none (stdout):\n"
              "--- Open of file /tmp/none failed: errno=2 (No such file or directory)\n"
              "--- End of file /tmp/none\n");
}

TEST_F(FileDump, every_line_is_cut_to_1033_characters) {
    const std::string name = "/tmp/" + std::string(2000, 'n');
    emc_tf__log_dump_file(name.c_str(), "stdout");
    std::string first = ("--- Dumping file " + name).substr(0, 1033);
    EXPECT_EQ(test::log_lines()[0] + test::log_lines()[1], first);
}

TEST_F(FileDump, the_level_is_not_looked_at) {
    set_level(-5);
    EXPECT_EQ(dump_of("a\n"), header + "    a\n" + trailer);
}

TEST_F(FileDump, without_a_sink_nothing_happens) {
    TimeFinder_set_logf(nullptr, 5);
    EXPECT_EQ(dump_of("a\n"), "");
}

TEST_F(FileDump, a_folder_is_a_file_without_lines) {
    emc_tf__log_dump_file("/tmp", "stdout");
    EXPECT_EQ(whole_log(), "--- Dumping file /tmp (stdout):\n--- End of file /tmp\n");
}

TEST_F(FileDump, a_link_is_not_followed) {
    test::write_file("/tmp/secret", "secret\n");
    ASSERT_EQ(symlink("/tmp/secret", "/tmp/dumped"), 0);
    emc_tf__log_dump_file("/tmp/dumped", "stderr");
    EXPECT_FALSE(logged("    secret"));
    EXPECT_EQ(test::log_lines().size(), 3U);
    unlink("/tmp/secret");
    unlink("/tmp/dumped");
}

}  // namespace
