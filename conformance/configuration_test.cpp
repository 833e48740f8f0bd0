// The configuration string of a freeze: every keyword at both edges of its range, and every way a
// string can be wrong.
#include "conformance/contract.h"

namespace conformance {
namespace {

class Configuration : public Contract {
  protected:
    // A freeze with this string, what its record then holds of a keyword, and the release.
    void sets(const std::string &config, const std::string &field, const std::string &value) {
        const Phase seen = run(freeze(config) + record() + release());
        all_succeed(seen);
        field_is(seen.at("whole_record"), field, value);
    }
    // A freeze that this string ends, with the parser's status, before anything is looked up.
    void is_refused(const std::string &config, int status) {
        const Phase seen = run(Words{"foreign_handle"} + freeze(config, "/no/such/path"));
        fails(seen.at("freeze"), 7,
              "TimeFinder_freeze: Parse error " + std::to_string(status) +
                  " in config string: " + config);
        handle_is(seen.at("freeze"), false);
    }
};

TEST_F(Configuration, nothing_given_leaves_every_keyword_at_0) {
    contract("freeze: the defaults of the keywords");
    const Phase seen = run(freeze() + record() + release());
    for (const char *field :
         {"async_resync", "sync_at_start", "backup_copy", "max_snapshots", "keep_fi", "dgimport"})
        field_is(seen.at("whole_record"), field, "0");
}

TEST_F(Configuration, an_empty_string_is_no_error_and_sets_nothing) {
    contract("parser: an empty string returns 0 and stores nothing");
    sets("", "max_snapshots", "0");
}

TEST_F(Configuration, async_resync_goes_from_0_to_1) {
    contract("freeze: \"async_resync\", integer, 0 to 1");
    sets("async_resync=0", "async_resync", "0");
    sets("async_resync=1", "async_resync", "1");
    is_refused("async_resync=-1", 8);
    is_refused("async_resync=2", 8);
}

TEST_F(Configuration, sync_at_start_goes_from_0_to_2) {
    contract("freeze: \"sync_at_start\", integer, 0 to 2");
    sets("sync_at_start=0", "sync_at_start", "0");
    sets("sync_at_start=1", "sync_at_start", "1");
    sets("sync_at_start=2", "sync_at_start", "2");
    is_refused("sync_at_start=-1", 8);
    is_refused("sync_at_start=3", 8);
}

TEST_F(Configuration, backup_copy_takes_any_integer) {
    contract("freeze: \"backup_copy\", any integer of 32 bits");
    sets("backup_copy=-2147483648", "backup_copy", "-2147483648");
    sets("backup_copy=2147483647", "backup_copy", "2147483647");
    is_refused("backup_copy=-2147483649", 8);
    is_refused("backup_copy=2147483648", 8);
}

TEST_F(Configuration, max_snapshots_goes_from_0_to_2147483647) {
    contract("freeze: \"max_snapshots\", integer, 0 to 2147483647");
    sets("max_snapshots=0", "max_snapshots", "0");
    sets("max_snapshots=2147483647", "max_snapshots", "2147483647");
    is_refused("max_snapshots=-1", 8);
    is_refused("max_snapshots=2147483648", 8);
}

TEST_F(Configuration, keep_fi_goes_from_0_to_1_and_is_kept_in_max_snapshots) {
    contract("freeze: \"keep_fi\" writes max_snapshots and leaves the record's keep_fi at 0");
    sets("keep_fi=0", "max_snapshots", "0");
    sets("keep_fi=1", "max_snapshots", "1");
    sets("keep_fi=1", "keep_fi", "0");
    is_refused("keep_fi=-1", 8);
    is_refused("keep_fi=2", 8);
}

TEST_F(Configuration, of_keep_fi_and_max_snapshots_the_last_one_stands) {
    contract("freeze: both keywords write one field");
    sets("keep_fi=1,max_snapshots=9", "max_snapshots", "9");
    sets("max_snapshots=9,keep_fi=1", "max_snapshots", "1");
}

TEST_F(Configuration, a_keyword_given_twice_leaves_its_last_value) {
    contract("parser: a keyword given twice leaves only the last value");
    sets("backup_copy=4,backup_copy=5", "backup_copy", "5");
}

TEST_F(Configuration, keywords_are_read_in_either_case) {
    contract("parser: keywords are compared without regard to case by default");
    sets("BACKUP_Copy=6", "backup_copy", "6");
}

TEST_F(Configuration, an_unknown_keyword_is_ignored_and_the_rest_is_read) {
    contract("parser: a keyword not in the table is ignored and parsing goes on");
    sets("colour=red,backup_copy=7", "backup_copy", "7");
}

TEST_F(Configuration, a_blank_before_a_keyword_makes_it_unknown) {
    contract("parser: blanks are not trimmed by default");
    sets("backup_copy=7, backup_copy=8", "backup_copy", "7");
}

TEST_F(Configuration, an_empty_value_of_a_number_is_0) {
    contract("parser: an empty value converts to 0, range permitting");
    sets("backup_copy=7,backup_copy=", "backup_copy", "0");
}

TEST_F(Configuration, one_comma_at_the_end_ends_the_string) {
    contract("parser: at the end of the string the parse is over");
    sets("backup_copy=7,", "backup_copy", "7");
}

TEST_F(Configuration, a_local_backup_client_asks_for_no_import) {
    contract("freeze: the import is decided only for a client that is not this host");
    host("echo dgimport=1 >/usr/quill/tessera/tq.conf");
    const Phase seen = run(freeze("alternate_backup_client=client1") + record() + release());
    host("rm /usr/quill/tessera/tq.conf");
    all_succeed(seen);
    logs(seen.at("freeze"), "hdefp->dgimport = 0");
    field_is(seen.at("whole_record"), "dgimport", "0");
}

TEST_F(Configuration, an_object_that_is_no_volume_is_never_imported) {
    contract(
        "freeze: an object that is not a volume has dgimport 0 and the group __NOT_VOL__GRP__");
    host("echo dgimport=1 >/usr/quill/tessera/tq.conf");
    const Phase seen = run(freeze("alternate_backup_client=backup1") + record() + release());
    host("rm /usr/quill/tessera/tq.conf");
    all_succeed(seen);
    logs(seen.at("freeze"), "hdefp->dgimport = 1");
    field_is(seen.at("whole_record"), "dgimport", "0");
    field_is(seen.at("whole_record"), "vol_group", "__NOT_VOL__GRP__");
}

TEST_F(Configuration, a_pair_without_an_equals_sign_is_refused_with_2) {
    contract("parser: a standalone keyword: status 2");
    is_refused("backup_copy", 2);
}

TEST_F(Configuration, an_empty_pair_is_refused_with_3) {
    contract("parser: an empty pair: status 3");
    is_refused(",backup_copy=1", 3);
    is_refused("backup_copy=1,,keep_fi=1", 3);
}

TEST_F(Configuration, a_number_with_anything_behind_it_is_refused_with_4) {
    contract("parser: the conversion stops before the end of the value: status 4");
    is_refused("backup_copy=5x", 4);
    is_refused("backup_copy=0x10", 4);
    is_refused("keep_fi=1=1", 4);
    is_refused("keep_fi=yes", 4);
    is_refused("keep_fi=1 ", 4);
}

TEST_F(Configuration, a_number_beyond_64_bits_is_refused_with_8) {
    contract("parser: a number outside the entry's range: status 8");
    is_refused("backup_copy=99999999999999999999", 8);
}

TEST_F(Configuration, a_pair_without_a_keyword_is_refused_with_10) {
    contract("parser: nothing before the equals sign: status 10");
    is_refused("=5", 10);
}

TEST_F(Configuration, the_first_error_ends_the_parse) {
    contract("parser: on an error it returns at the first failing pair");
    is_refused("keep_fi=yes,backup_copy", 4);
}

TEST_F(Configuration, a_refused_string_leaves_nothing_and_the_next_freeze_of_the_process_succeeds) {
    contract("freeze: the common failure exit; the object is in no list and is not counted");
    const Phase seen = run(freeze("keep_fi=yes") + freeze() + commit() + release());
    is("status of the first", 11, seen.at("freeze", 0).status);
    for (const char *step : {"commit", "thaw", "thaw_commit"}) succeeds(seen.at(step));
    succeeds(seen.at("freeze", 1));
    logs(seen.at("commit"), "Waiting for SymExit...");
    logs(seen.at("thaw_commit"), "Resync end");
}

TEST_F(Configuration, sync_at_start_1_queues_nothing_for_a_pair_that_is_synchronised) {
    contract("pair discovery: sync_at_end is set and \"device %s already established\" is logged");
    const Phase seen = run(freeze("sync_at_start=1") + record() + ctl(4) + release());
    all_succeed(seen);
    logs(seen.at("freeze"), "device /dev/qz/rdmp/p0 already established");
    field_is(seen.at("whole_record"), "pm.sync_at_end", "1");
    log_is(seen.at("ctl"), {});
}

TEST_F(Configuration, sync_at_start_2_establishes_a_split_pair_in_full_within_the_freeze) {
    contract("pair discovery: sync_at_start 2 issues a full establish and waits for it");
    split_the_pair();
    const Phase seen = run(freeze("sync_at_start=2") + ctl(4) + commit() + release());
    all_succeed(seen);
    logs(seen.at("freeze"), "Issuing full establish...");
    log_is(seen.at("ctl"), {});
    logs(seen.at("commit"), "Adding <00A1, 01A1> to split list");
}

TEST_F(Configuration, sync_at_start_2_leaves_a_synchronised_pair_as_it_is) {
    contract("pair discovery: a chosen pair in state 2 needs no full establish");
    const Phase seen = run(freeze("sync_at_start=2") + release());
    all_succeed(seen);
    logs_not(seen.at("freeze"), "Issuing full establish");
}

}  // namespace
}  // namespace conformance
