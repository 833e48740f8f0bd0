// What the process that loads the library keeps: its streams, its state, its host. That no call
// changes signals, mask, directory, locale, environment, descriptors or children is part of every
// case; here are the conditions in which that is hard.
#include "conformance/contract.h"

namespace conformance {
namespace {

constexpr char whole_snapshot[] =
    " 2 freeze - /data /copy commit ckpt /exchange/text volumes thaw thaw_commit";

class HostProcess : public Contract {
  protected:
    // A whole snapshot in a process that a line of the shell starts; PHASE stands for it.
    std::string started_by(std::string line) {
        const std::string process =
            std::string("/exchange/tfphase /exchange/report") + whole_snapshot;
        line.replace(line.find("PHASE"), 5, process);
        const std::string said = host("export LD_PRELOAD=/usr/lib/tflab/libtflabsleep.so; " + line);
        return said;
    }
    // Every call of it succeeded and changed nothing.
    void all_went_well() {
        const std::string report = file("report");
        size_t calls = 0;
        for (size_t at = report.find("\nstatus "); at < report.size();
             at = report.find("\nstatus ", at + 1), ++calls)
            is("status of a call", "0", report.substr(at + 8, report.find('\n', at + 8) - at - 8));
        is("calls", 6, static_cast<int64_t>(calls));
        is("changes", 0, report.find("\nchanged ") < report.size());
    }
};

TEST_F(HostProcess, has_its_two_streams_to_itself) {
    contract("nothing is written to descriptors 1 and 2");
    is("what was said", "", started_by("PHASE"));
    all_went_well();
}

TEST_F(HostProcess, has_its_input_to_itself) {
    contract("nothing is read from descriptor 0; commands read the null device");
    is("what is left of the input", "untouched\n", started_by("echo untouched | { PHASE; cat; }"));
    all_went_well();
}

TEST_F(HostProcess, may_have_none_of_its_three_descriptors) {
    contract("no call takes one of the descriptors 0 to 2 for a file of its own");
    started_by("PHASE <&- >&- 2>&-");
    all_went_well();
}

TEST_F(HostProcess, may_have_no_environment_but_what_finds_its_libraries) {
    contract("the library needs nothing of the environment: no path, no home, no locale");
    started_by("env -i LD_PRELOAD=$LD_PRELOAD LD_LIBRARY_PATH=/usr/quill/tessera/lib PHASE");
    all_went_well();
}

TEST_F(HostProcess, may_be_in_a_directory_that_is_gone) {
    contract("fixed paths are absolute");
    started_by("mkdir /exchange/gone && cd /exchange/gone && rmdir /exchange/gone && PHASE");
    all_went_well();
}

TEST_F(HostProcess, may_take_all_rights_from_new_files_or_none) {
    contract("the mask of the process is not touched; files are their owner's alone");
    started_by("umask 0; PHASE");
    all_went_well();
    array("clock advance 60");
    started_by("umask 0777; PHASE");
    all_went_well();
}

TEST_F(HostProcess, has_no_library_left_after_it_is_unloaded) {
    contract("the library can be unloaded, and is gone");
    const Phase seen = run(freeze() + commit() + ckpt() + volumes() + release() + Words{"close"});
    all_succeed(seen);
}

TEST_F(HostProcess, has_no_library_left_when_nothing_was_called) {
    contract("nothing happens at load time");
    all_succeed(run({"close"}));
    all_succeed(run({"bare", "close"}));
}

TEST_F(HostProcess, that_ends_without_unloading_leaves_nothing_but_its_lock) {
    contract("a checkpoint is all that later processes need");
    run(freeze() + commit() + ckpt());
    is("temporary files", "", host("ls -A /tmp"));
    all_succeed(run(rebuild() + release()));
}

TEST_F(HostProcess, runs_its_commands_with_nothing_to_read) {
    contract("command runner: standard input of a command is the null device");
    host(
        "printf '#!/bin/sh\\nreadlink /proc/self/fd/0 >/exchange/input\\n' "
        ">/usr/quill/tessera/bin/tqdgclone_script && chmod 755 "
        "/usr/quill/tessera/bin/tqdgclone_script");
    started_by("PHASE");
    host("rm /usr/quill/tessera/bin/tqdgclone_script");
    all_went_well();
    is("input of a command", "/dev/null\n", file("input"));
}

TEST_F(HostProcess, hands_no_descriptor_of_its_own_to_a_command) {
    contract("every descriptor is opened close-on-exec");
    host(
        "printf '#!/bin/sh\\nls -l /proc/self/fd >/exchange/open\\n' "
        ">/usr/quill/tessera/bin/tqdgclone_script && chmod 755 "
        "/usr/quill/tessera/bin/tqdgclone_script");
    started_by("PHASE");
    host("rm /usr/quill/tessera/bin/tqdgclone_script");
    for (const char *name : {"LOCKFILE", "symapi", "socket", "mtab"})
        is(std::string("descriptor of ") + name, 0, file("open").find(name) < file("open").size());
}

TEST_F(HostProcess, quotes_a_name_that_a_shell_would_read) {
    contract("an argument with anything outside letters, digits and _-.,/:+=@% is one quoted word");
    host(
        "cp /usr/quill/tessera/bin/tqtpcinfo /exchange/tool && mknod '/dev/qz/dmp/p0;touch x' b 7 "
        "99 && mknod '/dev/qz/rdmp/p0;touch x' b 7 99");
    const Phase seen = run(freeze("-", "/dev/qz/dmp/p0;touch x") + release());
    host("rm '/dev/qz/dmp/p0;touch x' '/dev/qz/rdmp/p0;touch x'");
    fails(seen.at("freeze"), 3,
          "find_bcv_pair: Cannot get lock on device: /dev/qz/rdmp/p0;touch x");
    logs(seen.at("freeze"),
         "Executing command: /usr/quill/tessera/bin/tqtpcinfo -f -p '/dev/qz/rdmp/p0;touch x' -o - "
         "</dev/null >/tmp/QfMS?????? 2>/tmp/QfMS??????");
}

}  // namespace
}  // namespace conformance
