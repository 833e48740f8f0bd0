#include "method/capture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "method/descriptor.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/fake_host.h"
#include "tests/support/frozen_object.h"
#include "tests/support/method_fixture.h"
#include "tests/support/private_root.h"
#include "tests/support/system_faults.h"

namespace {

class CaptureFiles : public test::Method {
  protected:
    static mode_t mode_of(const char *path) {
        struct stat status = {};
        return lstat(path, &status) == 0 ? status.st_mode : 0;
    }
};

TEST_F(CaptureFiles, are_two_fresh_private_files_with_the_prefix) {
    const mode_t mask = umask(0);
    const test::FrozenObject object;
    umask(mask);
    EXPECT_NE(object.out(), object.err());
    for (const std::string &name : {object.out(), object.err()}) {
        EXPECT_TRUE(name.starts_with("/tmp/QfMS")) << name;
        EXPECT_EQ(mode_of(name.c_str()), S_IFREG | 0600U);
        EXPECT_EQ(test::read_file(name), "");
    }
}

TEST_F(CaptureFiles, a_name_that_cannot_be_had_stays_null) {
    hdef h = {};
    test::fail_temporary_name(1);
    tf::make_capture_files(&h);
    EXPECT_EQ(h.out_file, nullptr);
    ASSERT_NE(h.err_file, nullptr);
    unlink(h.err_file);
    free(h.err_file);
}

TEST_F(CaptureFiles, are_removed_together_and_keep_their_names) {
    const test::FrozenObject object;
    const std::string out = object.out();
    tf::remove_capture_files(object.get());
    EXPECT_FALSE(test::exists(object.out()));
    EXPECT_FALSE(test::exists(object.err()));
    EXPECT_EQ(object.out(), out);
}

TEST_F(CaptureFiles, stay_when_one_of_the_names_is_missing) {
    const test::FrozenObject object;
    hdef h = *object.get();
    h.err_file = nullptr;
    tf::remove_capture_files(&h);
    EXPECT_TRUE(test::exists(object.out()));
    h = *object.get();
    h.out_file = nullptr;
    tf::remove_capture_files(&h);
    EXPECT_TRUE(test::exists(object.err()));
}

TEST_F(CaptureFiles, a_temporary_name_makes_no_file) {
    const tf::HeapOwner<char> name(tf::temporary_name("EMCTX"));
    ASSERT_TRUE(name);
    EXPECT_TRUE(std::string(name.get()).starts_with("/tmp/EMCTX"));
    EXPECT_FALSE(test::exists(name.get()));
}

TEST_F(CaptureFiles, a_private_file_is_never_made_over_something_else) {
    test::write_file("/tmp/there", "kept");
    EXPECT_FALSE(tf::create_private_file("/tmp/there"));
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(test::read_file("/tmp/there"), "kept");
    unlink("/tmp/there");
    ASSERT_EQ(symlink("/tmp/elsewhere", "/tmp/there"), 0);
    EXPECT_FALSE(tf::create_private_file("/tmp/there"));
    EXPECT_FALSE(test::exists("/tmp/elsewhere"));
    unlink("/tmp/there");
}

TEST_F(CaptureFiles, reading_does_not_follow_a_link_and_does_not_wait_for_a_pipe) {
    test::write_file("/tmp/target", "text");
    ASSERT_EQ(symlink("/tmp/target", "/tmp/link"), 0);
    EXPECT_EQ(tf::open_for_reading("/tmp/link"), nullptr);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_TRUE(tf::StreamOwner(tf::open_for_reading("/tmp/target")));
    ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
    EXPECT_TRUE(tf::StreamOwner(tf::open_for_reading("/tmp/pipe")));
    for (const char *name : {"/tmp/target", "/tmp/link", "/tmp/pipe"}) unlink(name);
}

TEST_F(CaptureFiles, what_is_read_does_not_reach_other_programs) {
    test::write_file("/tmp/target", "text");
    const tf::StreamOwner stream(tf::open_for_reading("/tmp/target"));
    ASSERT_TRUE(stream);
    EXPECT_EQ(fcntl(fileno(stream.get()), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    unlink("/tmp/target");
}

TEST_F(CaptureFiles, a_stream_that_cannot_be_made_closes_its_descriptor) {
    test::write_file("/tmp/target", "text");
    {
        const test::SystemFault fault("fdopen", 1, ENOMEM);
        EXPECT_EQ(tf::open_for_reading("/tmp/target"), nullptr);
        EXPECT_EQ(errno, ENOMEM);
    }
    unlink("/tmp/target");
}

class HostCommandOutput : public test::Method {
  protected:
    test::FrozenObject object;
};

TEST_F(HostCommandOutput, streams_are_truncated_so_that_a_dump_shows_one_command) {
    test::write_file(object.out(), "from before\n", 0600);
    test::write_file(object.err(), "from before\n", 0600);
    tf::CapturedOutput output(object.get());
    ASSERT_GE(output.options()->out_fd, 0);
    ASSERT_GE(output.options()->err_fd, 0);
    EXPECT_EQ(write(output.options()->out_fd, "o\n", 2), 2);
    EXPECT_EQ(write(output.options()->err_fd, "e\n", 2), 2);
    output.dump();
    EXPECT_EQ(whole_log(), "--- Dumping file " + object.out() +
                               " (stdout):\n"
                               "    o\n"
                               "--- End of file " +
                               object.out() +
                               "\n"
                               "--- Dumping file " +
                               object.err() +
                               " (stderr):\n"
                               "    e\n"
                               "--- End of file " +
                               object.err() + "\n");
}

TEST_F(HostCommandOutput, starts_with_exit_status_0_and_hands_back_what_was_stored) {
    tf::CapturedOutput output(object.get());
    EXPECT_EQ(output.exit_status(), 0);
    output.options()->exit_status = 32;
    EXPECT_EQ(output.exit_status(), 32);
}

TEST_F(HostCommandOutput, descriptors_do_not_reach_other_programs_and_are_closed) {
    int out_fd = -1;
    {
        tf::CapturedOutput output(object.get());
        out_fd = output.options()->out_fd;
        EXPECT_EQ(fcntl(out_fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
        EXPECT_EQ(fcntl(output.options()->err_fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
    EXPECT_EQ(fcntl(out_fd, F_GETFD), -1);
}

TEST_F(HostCommandOutput, a_missing_file_is_made_for_the_owner_alone) {
    unlink(object->err_file);
    const mode_t mask = umask(0);
    { const tf::CapturedOutput output(object.get()); }
    umask(mask);
    struct stat status = {};
    ASSERT_EQ(stat(object->err_file, &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
}

TEST_F(HostCommandOutput, a_stream_that_cannot_be_opened_is_minus_1) {
    test::write_file("/tmp/target", "kept");
    unlink(object->out_file);
    ASSERT_EQ(symlink("/tmp/target", object->out_file), 0);
    unlink(object->err_file);
    ASSERT_EQ(mkdir(object->err_file, 0700), 0);
    {
        tf::CapturedOutput output(object.get());
        EXPECT_EQ(output.options()->out_fd, -1);
        EXPECT_EQ(output.options()->err_fd, -1);
    }
    EXPECT_EQ(test::read_file("/tmp/target"), "kept");
    unlink("/tmp/target");
    unlink(object->out_file);
    rmdir(object->err_file);
}

TEST_F(HostCommandOutput, a_file_with_a_second_name_keeps_its_contents) {
    test::write_file(object.out(), "kept", 0600);
    ASSERT_EQ(link(object->out_file, "/tmp/second"), 0);
    {
        tf::CapturedOutput output(object.get());
        EXPECT_EQ(output.options()->out_fd, -1);
    }
    EXPECT_EQ(test::read_file("/tmp/second"), "kept");
    unlink("/tmp/second");
}

TEST_F(HostCommandOutput, missing_names_give_no_streams_and_dump_the_null_device) {
    hdef h = {};
    tf::CapturedOutput output(&h);
    EXPECT_EQ(output.options()->out_fd, -1);
    EXPECT_EQ(output.options()->err_fd, -1);
    output.dump();
    EXPECT_TRUE(logged("--- Dumping file /dev/null (stdout):"));
    EXPECT_TRUE(logged("--- Dumping file /dev/null (stderr):"));
}

TEST_F(HostCommandOutput, a_file_whose_folder_is_gone_is_minus_1) {
    hdef h = {};
    char name[] = "/tmp/no/such/folder";
    h.out_file = name;
    tf::CapturedOutput output(&h);
    EXPECT_EQ(output.options()->out_fd, -1);
}

TEST_F(HostCommandOutput, a_file_that_cannot_be_looked_at_or_emptied_keeps_its_contents) {
    test::write_file(object.out(), "kept", 0600);
    for (const char *call : {"fstat", "ftruncate"}) {
        const test::SystemFault fault(call, 1, EIO);
        tf::CapturedOutput output(object.get());
        EXPECT_EQ(output.options()->out_fd, -1) << call;
        EXPECT_GE(output.options()->err_fd, 0) << call;
        EXPECT_EQ(test::read_file(object.out()), "kept") << call;
    }
}

// A host library of a later release may keep more in the record than this one.
TEST_F(HostCommandOutput, the_record_is_the_host_library_s_fresh_one) {
    const int before = test::fake_host().fresh_records;
    const tf::CapturedOutput output(object.get());
    EXPECT_EQ(test::fake_host().fresh_records, before + 1);
}

}  // namespace
