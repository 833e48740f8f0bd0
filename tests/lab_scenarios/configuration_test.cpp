// What the configuration's lesser keywords change: the record, the text, a command line, a wait -
// and what they do not change.
#include "tests/lab_scenarios/scenario.h"

namespace test {
namespace {

const Source source = {"ext4", "/dev/qz/dmp/p0", "/data", "/copy"};

class Keyword : public Scenario {
  protected:
    // The text of a snapshot with this configuration; the snapshot is over.
    std::string text_with(const std::string &config, Words *fields) {
        const Phase taken = phase({"freeze", config, "/data", "/copy", "record", "ctl", "4",
                                   "commit", "ckpt", "/exchange/text", "thaw", "thaw_commit"});
        expect_all_succeed(taken);
        expect_nothing_left("/copy");
        array("clock advance 60");
        *fields = taken.at("record").fields;
        return saved("text");
    }
    // How a release behaves: the pair, which needs many seconds, is not waited for.
    void expect_release_does_not_wait(const std::string &config);
    void install_clone_tool();
    // The clone tool's command lines of a call, from the plex name on.
    static Words plex_arguments(const Call &call);
};

TEST_F(Keyword, that_counts_snapshots_changes_the_record_and_nothing_else_needs_root) {
    make(source);
    Words plain, counted, kept, both;
    // The first snapshot establishes the pair; all later ones find it synchronised.
    text_with("-", &plain);
    const std::string text = text_with("-", &plain);
    EXPECT_EQ(plain, (Words{"sync_at_start=0", "async_resync=0", "backup_copy=0", "max_snapshots=0",
                            "keep_fi=0", "dgimport=0"}));
    EXPECT_EQ(text_with("max_snapshots=5", &counted), text);
    EXPECT_EQ(counted[3], "max_snapshots=5");
    // It names the same field, and leaves the one that has its own name alone.
    EXPECT_EQ(text_with("keep_fi=1", &kept), text);
    EXPECT_EQ(kept[3], "max_snapshots=1");
    EXPECT_EQ(kept[4], "keep_fi=0");
    EXPECT_EQ(in_text("text", "HDEF-keep_fi"), "0");
    EXPECT_EQ(text_with("max_snapshots=7,keep_fi=1", &both), text);
    EXPECT_EQ(both[3], "max_snapshots=1");
}

// The number is handed on to nobody who would count: one process takes more snapshots than it says.
TEST_F(Keyword, max_snapshots_is_no_limit_of_the_method_needs_root) {
    make(source);
    const Phase taken = phase({"freeze",
                               "max_snapshots=1",
                               "/data",
                               "/copy",
                               "object",
                               "1",
                               "freeze",
                               "max_snapshots=1",
                               "/dev/qz/dmp/p0",
                               "/copy",
                               "ctl",
                               "4",
                               "commit",
                               "thaw",
                               "object",
                               "0",
                               "thaw",
                               "thaw_commit",
                               "object",
                               "1",
                               "thaw_commit"});
    expect_all_succeed(taken);
    expect_nothing_left("/copy");
}

TEST_F(Keyword, backup_copy_changes_the_record_and_nothing_else_needs_root) {
    make(source);
    Words fields;
    text_with("-", &fields);
    const std::string text = text_with("-", &fields);
    EXPECT_EQ(text_with("backup_copy=-3", &fields), text);
    EXPECT_EQ(fields[2], "backup_copy=-3");
}

void Keyword::expect_release_does_not_wait(const std::string &config) {
    Words fields;
    text_with(config, &fields);
    EXPECT_EQ(fields[1], config);
    EXPECT_EQ(in_text("text", "HDEF-async_resync"), config.substr(config.size() - 1));
    array("rate 1");
    array("clock stop");
    const double before = clock_seconds();
    const Phase taken = phase({"freeze", config, "/data", "/copy", "ctl", "4", "commit", "run",
                               "head -c 3000000 /dev/urandom >/data/big && sync", "ckpt",
                               "/exchange/text", "thaw", "thaw_commit"});
    expect_all_succeed(taken);
    EXPECT_FALSE(taken.at("thaw_commit").logged_part("Waiting to exit"));
    EXPECT_EQ(pair_state(), 1);
    EXPECT_EQ(clock_seconds(), before);
    array("clock run");
    array("rate 1024");
    array("clock advance 600");
    EXPECT_EQ(pair_state(), 2);
}

// Neither value makes a release wait; it never waits for an establish.
TEST_F(Keyword, async_resync_is_carried_and_the_release_waits_in_neither_case_needs_root) {
    make(source);
    expect_release_does_not_wait("async_resync=0");
    expect_release_does_not_wait("async_resync=1");
}

// The volume is the standard device under the volume manager's name; the tool says so.
void Keyword::install_clone_tool() {
    host(
        "rm -f /usr/quill/tessera/bin/tqdgclone\n"
        "cat >/usr/quill/tessera/bin/tqdgclone <<'END'\n"
        "#!/bin/sh\n"
        "while getopts g:n:f:p:d:i:r:c: option; do\n"
        "  [ $option != f ] || echo /dev/qz/rdmp/p0 >$OPTARG\n"
        "done\n"
        "END\n"
        "chmod 755 /usr/quill/tessera/bin/tqdgclone\n"
        "mkdir -p /dev/qz/dsk/datadg /dev/qz/rdsk/datadg\n"
        "for name in dsk/datadg/vol1 rdsk/datadg/vol1 dsk/datadg/vol2 rdsk/datadg/vol2; do\n"
        "  mknod /dev/qz/$name b $(stat -c '0x%t 0x%T' /dev/qz/dmp/p0)\n"
        "done\n");
}

Words Keyword::plex_arguments(const Call &call) {
    Words found;
    for (const std::string &line : call.log) {
        const size_t plex = line.find(" -p ");
        if (line.find("bin/tqdgclone ") == std::string::npos) continue;
        if (line.rfind("Executing command: ", 0) != 0) continue;
        found.push_back(plex == std::string::npos
                            ? "none"
                            : line.substr(plex + 1, line.find(' ', plex + 4) - plex - 1));
    }
    return found;
}

// It reaches the clone tool in all three places of the process that froze. There is one name for a
// process: an object that names none gets the one that an earlier object named.
TEST_F(Keyword, plexname_is_an_argument_of_the_clone_tool_needs_root) {
    install_clone_tool();
    const Phase plain =
        phase({"freeze", "-", "/dev/qz/dsk/datadg/vol1", "/copy", "ctl", "4", "commit", "ckpt",
               "/exchange/text", "volumes", "thaw", "thaw_commit"});
    expect_all_succeed(plain);
    for (const char *step : {"freeze", "ckpt", "volumes"}) {
        EXPECT_EQ(plex_arguments(plain.at(step)), Words{"-p DEFAULT"}) << step;
    }
    array("clock advance 60");
    const Phase named = phase({"freeze",
                               "plexname=gold",
                               "/dev/qz/dsk/datadg/vol1",
                               "/copy",
                               "object",
                               "1",
                               "freeze",
                               "-",
                               "/dev/qz/dsk/datadg/vol2",
                               "/copy",
                               "ctl",
                               "4",
                               "commit",
                               "ckpt",
                               "/exchange/text",
                               "volumes",
                               "thaw",
                               "object",
                               "0",
                               "thaw",
                               "thaw_commit",
                               "object",
                               "1",
                               "thaw_commit"});
    expect_all_succeed(named);
    for (const size_t which : {0U, 1U}) {
        EXPECT_EQ(plex_arguments(named.at("freeze", which)), Words{"-p gold"}) << which;
    }
    for (const char *step : {"ckpt", "volumes"}) {
        EXPECT_EQ(plex_arguments(named.at(step)), Words{"-p gold"}) << step;
    }
    EXPECT_EQ(counter_files(), "");
}

}  // namespace
}  // namespace test
