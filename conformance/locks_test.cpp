// The counter file of an array: three numbers, its owner's process id, how many devices it holds,
// and whether one was held before. Another process that lives is never pushed aside.
#include <cstring>

#include "conformance/contract.h"

namespace conformance {
namespace {

constexpr char counter[] = "/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_0001845001230000";
constexpr char lock_file[] = "/usr/quill/tessera/online_util/fi_cntl/__LOCKFILE__TSR_ARRAY";
constexpr char refused[] = "find_bcv_pair: Cannot get lock on device: /dev/qz/rdmp/p0";
// No process has it: above the largest process id of the machine.
constexpr int32_t nobody = 0x7ffffff0;

class Locks : public Contract {
  protected:
    // A freeze with a device-information tool that prints these lines, and its release.
    Phase frozen_with_tool_that_says(const std::string &lines) {
        const std::string tool = "/usr/quill/tessera/bin/tqtpcinfo";
        write_file("lines", lines);
        host("cp " + tool + " /exchange/tool && printf '#!/bin/sh\\ncat /exchange/lines\\n' >" +
             tool);
        Phase seen = run(freeze() + record() + release());
        host("cp /exchange/tool " + tool);
        return seen;
    }
    // A step that saves the counter file, and who takes the steps.
    static Words save(const std::string &name) {
        return shell(std::string("cp ") + counter + " /exchange/" + name +
                     " && echo $PPID >/exchange/owner");
    }
    int32_t number(const std::string &name, size_t at) const {
        const std::string bytes = file(name);
        int32_t value = -1;
        if (bytes.size() == 12) memcpy(&value, bytes.data() + 4 * at, sizeof value);
        return value;
    }
    void holds(const std::string &name, int32_t count) const {
        is("size of the counter file", 12, static_cast<int64_t>(file(name).size()));
        is("owner", atoi(file("owner").c_str()), number(name, 0));
        is("count", count, number(name, 1));
        is("flag", 1, number(name, 2));
    }
    // The counter file as somebody left it, with as many of these numbers.
    void leave(std::initializer_list<int32_t> numbers) {
        std::string bytes;
        for (const int32_t value : numbers)
            bytes.append(reinterpret_cast<const char *>(&value), sizeof value);
        leave(bytes);
    }
    void leave(const std::string &bytes) {
        write_file("left", bytes);
        host(std::string("cp /exchange/left ") + counter + " && chmod 600 " + counter);
    }
};

TEST_F(Locks, a_freeze_counts_one_device_for_its_process) {
    contract("counter file: owner's process id, count 1, flag written as 1");
    all_succeed(run(freeze() + save("counter") + release()));
    holds("counter", 1);
}

TEST_F(Locks, the_first_device_sees_issplit_0_and_the_second_1) {
    contract("issplit is the flag that the counter file held before");
    const Phase seen = run(freeze() + record() + object(1) + freeze("-", "/dev/qz/dmp/p0") +
                           record() + save("counter") + release() + object(0) + release());
    all_succeed(seen);
    field_is(seen.at("whole_record", 0), "pm.issplit", "0");
    field_is(seen.at("whole_record", 1), "pm.issplit", "1");
    holds("counter", 2);
}

TEST_F(Locks, the_counter_file_is_named_after_the_array_with_two_zeros_at_its_end) {
    contract("the last two characters of the path are each overwritten with 0");
    const Phase seen = run(freeze() + record() + release());
    field_is(seen.at("whole_record"), "pm.lock_file", counter);
    field_is(seen.at("whole_record"), "pm.lock_set", "1");
}

TEST_F(Locks, both_files_are_readable_by_their_owner_alone) {
    contract("both files are created with permissions 0600");
    host(std::string("rm -f ") + lock_file);
    all_succeed(
        run(freeze() +
            shell(std::string("stat -c %a ") + counter + " " + lock_file + " >/exchange/modes") +
            release()));
    is("modes", "600\n600\n", file("modes"));
}

TEST_F(Locks, the_last_thaw_commit_removes_the_counter_file_and_leaves_the_lock_file) {
    contract("count 0: the counter file is truncated and removed; the lock file stays");
    all_succeed(run(freeze() + commit() + release()));
    is("counter files", "", world().counter_files());
    host(std::string("test -e ") + lock_file);
}

TEST_F(Locks, a_process_that_ends_without_release_leaves_its_count_and_the_next_one_takes_over) {
    contract("a file whose owner is gone is truncated and restarts at count 1, flag 0");
    run(freeze() + commit());
    const Phase seen = run(freeze() + record() + save("counter") + release());
    all_succeed(seen);
    logs(seen.at("freeze"), std::string("truncating leftover lock file: ") + counter);
    field_is(seen.at("whole_record"), "pm.issplit", "0");
    holds("counter", 1);
}

TEST_F(Locks, a_second_process_is_refused_while_the_owner_lives) {
    contract("a live owner: the lock is not given, \"lock pid(%d) != pid(%d): %s\", number 3, 11");
    Phase second;
    const Phase owner = run_with(
        freeze() + save("before"), [&] { second = run(freeze() + Words{"rollback"}); },
        save("after") + release());
    all_succeed(owner);
    fails(second.at("freeze"), 3, refused);
    handle_is(second.at("freeze"), true);
    is("line that names both processes", 1,
       second.at("freeze").logged_part("lock pid(" + std::to_string(number("before", 0)) +
                                       ") != pid("));
    is("counter file", file("before"), file("after"));
}

TEST_F(Locks, the_release_of_a_refused_process_does_not_touch_the_owners_count) {
    contract("thaw commit clears the lock of records whose lock_set is 1 alone");
    Phase second;
    all_succeed(run_with(
        freeze() + save("before"), [&] { second = run(freeze() + release()); },
        save("after") + release()));
    succeeds(second.at("thaw"));
    succeeds(second.at("thaw_commit"));
    holds("after", 1);
}

TEST_F(Locks, a_refused_process_has_no_session_for_another_try) {
    contract("freeze: one that fails in its pairs ends the session, which nothing starts again");
    leave({1, 3, 1});
    const Phase seen = run(freeze() + shell(std::string("rm ") + counter) + object(1) + freeze() +
                           release() + object(0) + release());
    fails(seen.at("freeze", 0), 3, refused);
    fails_beginning(seen.at("freeze", 1), 3,
                    "TimeFinder_freeze: SymAPI call to SymExit failed with code 101 ");
    for (size_t i = 0; i < 2; ++i) succeeds(seen.at("thaw_commit", i));
}

TEST_F(Locks, an_empty_counter_file_is_a_first_lock) {
    contract("an empty file reads as process 0, count missing, flag 0");
    leave(std::string());
    const Phase seen = run(freeze() + record() + save("counter") + release());
    all_succeed(seen);
    holds("counter", 1);
    field_is(seen.at("whole_record"), "pm.issplit", "0");
}

TEST_F(Locks, a_counter_file_of_0_to_4_bytes_without_an_owner_starts_at_count_1) {
    contract("a short read leaves the process at 0; a missing count becomes 1");
    for (const size_t size : {1U, 3U, 4U}) {
        leave(std::string(size, '\0'));
        all_succeed(run(freeze() + save("counter") + release()));
        holds("counter", 1);
    }
}

TEST_F(Locks, a_count_without_an_owner_is_counted_on_with_its_flag) {
    contract("process 0: the descriptor is returned, the count is read and 1 added");
    leave({0, 4, 1});
    const Phase seen = run(freeze() + record() + save("counter") + release());
    all_succeed(seen);
    holds("counter", 5);
    field_is(seen.at("whole_record"), "pm.issplit", "1");
    host(std::string("rm ") + counter);
}

TEST_F(Locks, a_count_that_falls_below_0_is_kept_as_it_is) {
    contract("the count is not clamped; a result other than 0 keeps the file");
    const Words set_to_0 = shell(std::string("printf '\\0\\0\\0\\0' | dd of=") + counter +
                                 " bs=1 seek=4 conv=notrunc status=none");
    all_succeed(run(freeze() + set_to_0 + release() + save("counter")));
    is("count", -1, number("counter", 1));
    host(std::string("rm ") + counter);
}

TEST_F(Locks, a_lock_that_cannot_be_given_back_is_no_failure) {
    contract("thaw commit: a failed release only logs \"could not unlock device %s\"");
    const Phase seen = run(freeze() + shell(std::string(": >") + counter) + release());
    succeeds(seen.at("thaw_commit"));
    logs(seen.at("thaw_commit"),
         std::string("could not decrement counter....counter missing from file: ") + counter);
    logs(seen.at("thaw_commit"), "could not unlock device /dev/qz/rdmp/p0");
    host(std::string("rm ") + counter);
}

TEST_F(Locks, a_counter_file_of_somebody_that_is_gone_is_truncated_first) {
    contract("no such process: the file is truncated and counts from 1");
    leave({nobody, 9, 1});
    const Phase seen = run(freeze() + record() + save("counter") + release());
    all_succeed(seen);
    holds("counter", 1);
    field_is(seen.at("whole_record"), "pm.issplit", "0");
}

TEST_F(Locks, a_counter_file_of_another_live_process_is_left_as_it_is) {
    contract("an owner that is alive keeps the array, whoever it is");
    leave({1, 3, 1});
    const std::string before = world().counter_files();
    const Phase seen = run(freeze() + Words{"rollback"});
    fails(seen.at("freeze"), 3, refused);
    is("counter file", before, world().counter_files());
    host(std::string("rm ") + counter);
}

TEST_F(Locks, a_counter_file_that_is_a_link_is_not_followed) {
    contract("lock and counter files are opened without following links");
    host(std::string("echo precious >/exchange/precious; ln -s /exchange/precious ") + counter);
    const Phase seen = run(freeze() + Words{"rollback"});
    fails(seen.at("freeze"), 3, refused);
    logs(seen.at("freeze"), std::string("could not open file: ") + counter);
    is("what it leads to", "precious\n", file("precious"));
    host(std::string("rm ") + counter);
}

TEST_F(Locks, a_lock_file_that_cannot_be_had_is_named) {
    contract("open_lock_file: \"could not open file: %s\" with the lock file's path");
    host(std::string("rm -f ") + lock_file + " && mkdir " + lock_file);
    const Phase seen = run(freeze() + Words{"rollback"});
    host(std::string("rmdir ") + lock_file);
    fails(seen.at("freeze"), 3, refused);
    logs(seen.at("freeze"), std::string("could not open file: ") + lock_file);
}

TEST_F(Locks, are_named_by_the_serial_number_that_the_tool_tells) {
    contract("find_device: lines with EMC alone; key s is the serial number, key p the path");
    const Phase seen = frozen_with_tool_that_says(
        "# EMC s=NO p=/no\n\nOTHER p=/dev/x s=WRONG\nEMC SYMMETRIX p=/dev/x s=SN12345 t=3\n");
    all_succeed(seen);
    field_is(seen.at("whole_record"), "pm.lock_file",
             "/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_SN12300");
}

TEST_F(Locks, cannot_be_had_when_the_tool_tells_no_serial_number) {
    contract("find_device: no path or serial number: QfMEtf1214N, number 13, then the lock fails");
    const Phase seen = frozen_with_tool_that_says("EMC SYMMETRIX p=/dev/x\n");
    fails(seen.at("freeze"), 3, refused);
    logs(seen.at("freeze"), "find_device: Cannot find devpath or sn");
}

TEST_F(Locks, cannot_be_had_when_the_tools_line_holds_no_pair) {
    contract("find_device: a line with EMC and without an equals sign: QfMEtf1215N");
    const Phase seen = frozen_with_tool_that_says("EMC SYMMETRIX\nEMC p=/dev/x s=SN12345\n");
    fails(seen.at("freeze"), 3, refused);
    logs(seen.at("freeze"), "find_device: Cannot process device");
}

}  // namespace
}  // namespace conformance
