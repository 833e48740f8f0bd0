// What is logged at which level, and what reaches the two buffers.
#include "conformance/contract.h"

namespace conformance {
namespace {

constexpr char version_line[] = "TimeFinder FIM $Revision$";
constexpr char banner[] = "pQfMS FIM config string parser $Revision$";
constexpr char tool[] = "/usr/quill/tessera/bin/tqtpcinfo";
constexpr char no_handle[] = "TimeFinder_thaw: A required parameter is NULL: fih";
constexpr char command_line[] =
    "/usr/quill/tessera/bin/tqtpcinfo -f -p /dev/qz/rdmp/p0 -o - </dev/null >/tmp/QfMS?????? "
    "2>/tmp/QfMS??????";

class Logging : public Contract {
  protected:
    // A device-information tool that says one line on each stream and fails.
    void break_the_tool() {
        host(std::string("cp ") + tool +
             " /exchange/tool && printf '#!/bin/sh\\necho said\\necho x "
             ">&2\\nexit 1\\n' >" +
             tool);
    }
    void repair_the_tool() { host(std::string("cp /exchange/tool ") + tool); }
    // A freeze that fails because of it, at this level.
    Phase failed_freeze(int level) {
        break_the_tool();
        const Phase seen = run(freeze() + Words{"rollback"}, level);
        repair_the_tool();
        return seen;
    }
};

TEST_F(Logging, at_level_0_tells_the_release_and_no_command) {
    contract("levels: 0 and above failure texts and ordinary progress, 1 commands, 2 traces");
    const Phase seen = run(freeze() + release(), 0);
    log_is(seen.at("freeze"),
           {version_line, "emc_tf__SymLink: emc_tf_SymVersion = 500 (>=0x0500)"});
}

TEST_F(Logging, at_level_1_adds_the_parsers_banner_and_the_commands) {
    contract("levels: at 1 or more the parser's banner and \"Executing command: %s\"");
    const Phase seen = run(freeze() + release(), 1);
    log_is(seen.at("freeze"),
           {version_line, banner, "emc_tf__SymLink: emc_tf_SymVersion = 500 (>=0x0500)",
            std::string("Executing command: ") + command_line});
}

TEST_F(Logging, at_level_2_adds_the_traces) {
    contract("levels: at 2 or more progress and diagnostic traces");
    const Phase seen = run(freeze() + commit() + release(), 2);
    logs(seen.at("freeze"), "Linking file /usr/symcli/shlib/libsymapi.so, 2.");
    logs(seen.at("freeze"), "Waiting for SymInit...");
    logs(seen.at("freeze"), "\tDevice is part of a BCV pair. bcvinfo:");
    logs(seen.at("commit"), "Waiting for SymExit...");
}

TEST_F(Logging, at_level_4_knows_no_details_of_the_parser_and_at_level_5_does) {
    contract("parser: details at level 5 or more");
    const std::string detail = "qfm_fcp_entry_new: Adding entry for keyword async_resync";
    const Phase four = run(freeze("keep_fi=0") + release(), 4);
    logs_not(four.at("freeze"), detail);
    const Phase five = run(freeze("keep_fi=0") + release(), 5);
    logs(five.at("freeze"), detail);
}

TEST_F(Logging, at_a_negative_level_is_silent_and_failures_still_fill_both_buffers) {
    contract("levels: below 0 nothing is logged; buffers and number are written all the same");
    const Phase seen = run(no_object() + thaw(), -1);
    fails(seen.at("thaw"), 7, no_handle);
    log_is(seen.at("thaw"), {});
}

TEST_F(Logging, without_a_sink_is_silent_and_failures_still_fill_both_buffers) {
    contract("set_logf: a null function switches logging off");
    const Phase seen = run(Words{"set_logf", "null", "5"} + no_object() + thaw());
    fails(seen.at("thaw"), 7, no_handle);
    log_is(seen.at("thaw"), {});
}

TEST_F(Logging, without_a_sink_a_whole_snapshot_says_nothing) {
    contract("log routine: a missing sink is ignored, by the parser as well");
    const Phase seen = run(Words{"set_logf", "null", "5"} + freeze("keep_fi=0") + commit() +
                           ckpt() + volumes() + release());
    all_succeed(seen);
    for (const Call &call : seen.calls) {
        if (call.step != "set_logf") log_is(call, {});
    }
}

TEST_F(Logging, tells_the_version_once_however_often_the_sink_is_set) {
    contract("set_logf: the version line appears once per process");
    const Phase seen = run({"set_logf", "sink", "2", "set_logf", "sink", "0"});
    log_is(seen.at("set_logf", 0), {version_line, banner});
    log_is(seen.at("set_logf", 1), {});
}

TEST_F(Logging, tells_the_version_with_the_first_sink_and_level_that_can_hear_it) {
    contract("set_logf: first a null sink or a negative level: the line comes on the later call");
    const Phase seen =
        run({"bare", "set_logf", "null", "3", "set_logf", "sink", "-1", "set_logf", "sink", "0"});
    log_is(seen.at("set_logf", 0), {});
    log_is(seen.at("set_logf", 1), {});
    log_is(seen.at("set_logf", 2), {version_line});
}

TEST_F(Logging, shows_the_parsers_banner_once_and_never_at_level_0) {
    contract("parser: the banner is logged once at level 1 or more");
    const Phase seen =
        run({"bare", "set_logf", "sink", "0", "set_logf", "sink", "1", "set_logf", "sink", "1"});
    log_is(seen.at("set_logf", 0), {version_line});
    log_is(seen.at("set_logf", 1), {banner});
    log_is(seen.at("set_logf", 2), {});
}

TEST_F(Logging, hears_a_failure_as_the_user_does) {
    contract("a failure is logged with the text of the messages buffer");
    const Phase seen = run(no_object() + thaw(), 0);
    logs(seen.at("thaw"), no_handle);
}

TEST_F(Logging, leaves_number_and_buffers_alone_when_a_call_succeeds) {
    contract("a number is stored and a message built by a failure alone");
    const Phase seen = run(freeze() + commit() + release());
    for (const Call &call : seen.calls) {
        is("error number of " + call.step, -1, call.number);
        is("messages of " + call.step, "", call.errmsg + call.logmsg);
    }
}

TEST_F(Logging, dumps_both_streams_of_a_failed_command_behind_its_message) {
    contract("a failed command: its message, then the dump of standard output, then of error");
    const Phase seen = failed_freeze(0);
    const Words log = fixed_names(seen.at("freeze").log);
    const Words expected = {std::string("do_cmd: Command failed with status=1: ") + command_line,
                            "--- Dumping file /tmp/QfMS?????? (stdout):",
                            "    said",
                            "--- End of file /tmp/QfMS??????",
                            "--- Dumping file /tmp/QfMS?????? (stderr):",
                            "    x",
                            "--- End of file /tmp/QfMS??????",
                            "find_bcv_pair: Cannot get lock on device: /dev/qz/rdmp/p0"};
    for (size_t i = 0; i < expected.size(); ++i)
        is("line " + std::to_string(i), expected[i], i + 2 < log.size() ? log[i + 2] : "");
}

TEST_F(Logging, dumps_the_streams_of_a_failed_command_at_a_negative_level_too) {
    contract("the dumps are written whenever a sink is installed, even at a negative level");
    const Phase seen = failed_freeze(-1);
    log_is(seen.at("freeze"), {"--- Dumping file /tmp/QfMS?????? (stdout):", "    said",
                               "--- End of file /tmp/QfMS??????",
                               "--- Dumping file /tmp/QfMS?????? (stderr):", "    x",
                               "--- End of file /tmp/QfMS??????"});
}

TEST_F(Logging, of_two_failures_keeps_the_last_number_and_text_and_logs_both) {
    contract("a message is valid until the next failure overwrites it");
    const Phase seen = failed_freeze(0);
    fails(seen.at("freeze"), 3, "find_bcv_pair: Cannot get lock on device: /dev/qz/rdmp/p0");
    logs(seen.at("freeze"), std::string("do_cmd: Command failed with status=1: ") + command_line);
}

TEST_F(Logging, says_the_message_of_a_refused_freeze_once_more) {
    contract("freeze: the common failure exit logs the current message");
    const Phase seen = run(freeze("keep_fi=yes"), 0);
    const std::string text = "TimeFinder_freeze: Parse error 4 in config string: keep_fi=yes";
    log_is(seen.at("freeze"),
           {version_line, "emc_tf__SymLink: emc_tf_SymVersion = 500 (>=0x0500)", text, text});
}

TEST_F(Logging, cuts_a_trace_after_its_1022nd_character) {
    contract("a trace line keeps at most 1022 characters");
    const std::string config = "x=" + std::string(1022, 'y');
    const Phase seen = run(freeze(config) + release());
    logs(seen.at("freeze"), ("config =" + config).substr(0, 1022));
}

TEST_F(Logging, hands_a_long_message_to_the_sink_in_pieces_of_1024_characters) {
    contract("log routine: pieces of at most 1024 characters");
    const std::string config(1024, 'y');
    const std::string text = "TimeFinder_freeze: Parse error 2 in config string: " + config;
    const Phase seen = run(freeze(config), 0);
    fails(seen.at("freeze"), 7, text);
    const std::string first = text.substr(0, 1024), second = text.substr(1024);
    log_is(seen.at("freeze"), {version_line, "emc_tf__SymLink: emc_tf_SymVersion = 500 (>=0x0500)",
                               first, second, first, second});
}

TEST_F(Logging, tells_every_step_of_a_split_at_level_0) {
    contract("freeze commit: the list, its length, begin and end of the split");
    const Phase seen = run(freeze() + commit() + release(), 0);
    log_is(seen.at("commit"), {"Adding <00A1, 01A1> to split list", "Total BCVs to split : 1",
                               "Split started ...", "Split end"});
}

TEST_F(Logging, tells_every_step_of_a_resynchronisation_at_level_0) {
    contract("thaw commit: the list, its length, begin and end");
    const Phase seen = run(freeze() + commit() + release(), 0);
    log_is(seen.at("thaw"), {});
    log_is(seen.at("thaw_commit"),
           {"Adding <00A1, 01A1> to resync list", "Total BCVs to resync : 1", "Resync started ...",
            "Resync end"});
}

TEST_F(Logging, tells_every_step_of_a_resynchronisation_at_the_start_at_level_0) {
    contract("ctl 4: the count, begin and end");
    split_the_pair();
    const Phase seen = run(freeze() + ctl(4) + release(), 0);
    log_is(seen.at("ctl"),
           {"Total BCVs to resync at start : 1", "resync started ...", "resync end"});
}

}  // namespace
}  // namespace conformance
