#include "fimctl/tool.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using fimctl::Reach;
using fimctl::run_tool;
using fimctl::ToolResult;

TEST(Tool, gives_status_and_both_streams_and_never_a_shell) {
    auto said = run_tool({"sh", "-c", "echo out; echo err >&2; exit 3"});
    EXPECT_EQ(said.status, 3);
    EXPECT_EQ(said.out, "out\n");
    EXPECT_EQ(said.err, "err\n");
    said = run_tool({"printf", "%s", "$(id) 'x'"});
    EXPECT_EQ(said.out, "$(id) 'x'");
    EXPECT_TRUE(said.good());
}

TEST(Tool, reads_both_streams_as_they_come) {
    auto said = run_tool({"sh", "-c", "head -c 300000 /dev/zero | tr '\\0' x; seq 100000 >&2"});
    EXPECT_EQ(said.out.size(), 300000U) << "neither stream blocks the other";
    said = run_tool({"sh", "-c", "echo one; sleep 0.2; echo two >&2; sleep 0.2; echo three"});
    EXPECT_EQ(said.output, "one\ntwo\nthree\n");
}

TEST(Tool, gives_as_its_reason_the_last_line_of_either_stream_or_the_status) {
    EXPECT_EQ(run_tool({"sh", "-c", "echo a; sleep 0.2; echo b >&2; exit 1"}).reason(), "b");
    EXPECT_EQ(run_tool({"sh", "-c", "echo a >&2; sleep 0.2; echo b; echo; exit 1"}).reason(), "b");
    EXPECT_EQ(run_tool({"sh", "-c", "exit 4"}).reason(), "exit status 4");
    EXPECT_EQ(run_tool({"sh", "-c", "kill -KILL $$"}).reason(), "exit status 137");
}

TEST(Tool, says_why_it_could_not_be_started) {
    auto said = run_tool({"/none/tool"});
    EXPECT_EQ(said.status, 127);
    EXPECT_EQ(said.reason(), "/none/tool: No such file or directory");
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit few = {3, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    said = run_tool({"true"});
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(said.status, 127);
    EXPECT_EQ(said.reason(), "Too many open files");
}

TEST(Tool, is_in_the_callers_process_group_unless_nobody_is_to_reach_it) {
    const std::string group = "ps -o pgid= -p $$ | tr -d ' '";
    EXPECT_EQ(run_tool({"sh", "-c", group}).out, std::to_string(getpgrp()) + "\n");
    EXPECT_NE(run_tool({"sh", "-c", group}, Reach::nobody).out, std::to_string(getpgrp()) + "\n");
}

TEST(Tool, writes_command_lines_that_a_shell_reads_back) {
    EXPECT_EQ(fimctl::command_line({"a", "b c", "it's", ""}), "a 'b c' 'it'\\''s' ''");
    EXPECT_EQ(fimctl::command_line({"umount", "/a b/c", "/x=1,y:2@%+-_."}),
              "umount '/a b/c' /x=1,y:2@%+-_.");
    const std::string word = "~ $HOME `id` \t\n\"'\\*?[]#&;|<>(){}!^";
    EXPECT_EQ(run_tool({"sh", "-c", "printf %s " + fimctl::shell_word(word)}).out, word);
}

}  // namespace
