// The configuration string of a freeze, and the disk-group import decision.
#include "tests/method/freeze_fixture.h"

namespace {

using namespace test;

class FreezeConfig : public FreezeTest {
  protected:
    static std::string parse_error(int code, const std::string &config) {
        return "TimeFinder_freeze: Parse error " + std::to_string(code) +
               " in config string: " + config;
    }
    // The decision that a freeze with an alternate client logged.
    int32_t decision() {
        log_lines().clear();
        fake_host().looked_up.clear();
        EXPECT_EQ(freeze("alternate_backup_client=backup1"), 0) << errmsg;
        for (int32_t value : {0, 1}) {
            if (logged("hdefp->dgimport = " + std::to_string(value))) return value;
        }
        return -1;
    }
};

TEST_F(FreezeConfig, without_a_string_every_keyword_has_its_default) {
    ASSERT_EQ(freeze(nullptr), 0);
    EXPECT_EQ(handle->async_resync, 0);
    EXPECT_EQ(handle->sync_at_start, 0);
    EXPECT_EQ(handle->backup_copy, 0);
    EXPECT_EQ(handle->max_snapshots, 0);
    EXPECT_EQ(handle->keep_fi, 0);
    EXPECT_STREQ(g_plexname, "DEFAULT");
    for (const std::string &line : log_lines()) EXPECT_FALSE(line.starts_with("config ="));
}

TEST_F(FreezeConfig, an_empty_string_is_read_and_sets_nothing) {
    ASSERT_EQ(freeze(""), 0);
    EXPECT_TRUE(logged("config ="));
    EXPECT_EQ(handle->async_resync, 0);
}

TEST_F(FreezeConfig, every_keyword_goes_to_its_field) {
    EXPECT_EQ(freeze("async_resync=1,sync_at_start=2,backup_copy=-7,plexname=p1,max_snapshots=9"),
              0)
        << errmsg;
    EXPECT_EQ(handle->async_resync, 1);
    EXPECT_EQ(handle->sync_at_start, 2);
    EXPECT_EQ(handle->backup_copy, -7);
    EXPECT_EQ(handle->max_snapshots, 9);
    EXPECT_STREQ(g_plexname, "p1");
}

TEST_F(FreezeConfig, keep_fi_sets_max_snapshots_and_leaves_keep_fi_at_0) {
    ASSERT_EQ(freeze("keep_fi=1"), 0);
    EXPECT_EQ(handle->max_snapshots, 1);
    EXPECT_EQ(handle->keep_fi, 0);
}

TEST_F(FreezeConfig, the_later_of_keep_fi_and_max_snapshots_holds) {
    ASSERT_EQ(freeze("max_snapshots=5,keep_fi=1"), 0);
    EXPECT_EQ(handle->max_snapshots, 1);
    ASSERT_EQ(freeze("keep_fi=1,max_snapshots=5"), 0);
    EXPECT_EQ(handle->max_snapshots, 5);
}

TEST_F(FreezeConfig, values_at_the_ends_of_their_ranges_are_accepted) {
    for (const char *config :
         {"async_resync=0", "async_resync=1", "sync_at_start=0", "sync_at_start=2",
          "backup_copy=-2147483648", "backup_copy=2147483647", "max_snapshots=0",
          "max_snapshots=2147483647", "keep_fi=0", "keep_fi=1"}) {
        ASSERT_EQ(freeze(config), 0) << config << " " << errmsg;
    }
    ASSERT_EQ(freeze("backup_copy=-2147483648,max_snapshots=2147483647"), 0);
    EXPECT_EQ(handle->backup_copy, INT32_MIN);
    EXPECT_EQ(handle->max_snapshots, INT32_MAX);
}

TEST_F(FreezeConfig, values_outside_their_ranges_are_parse_error_8) {
    for (const char *config :
         {"async_resync=-1", "async_resync=2", "sync_at_start=-1", "sync_at_start=3",
          "backup_copy=-2147483649", "backup_copy=2147483648", "max_snapshots=-1",
          "max_snapshots=2147483648", "keep_fi=-1", "keep_fi=2"}) {
        log_lines().clear();
        EXPECT_EQ(freeze(config), 11) << config;
        expect_given_up(7, parse_error(8, config));
    }
}

TEST_F(FreezeConfig, a_parse_error_has_number_7_and_the_parsers_code) {
    EXPECT_EQ(freeze("async_resync=x"), 11);
    expect_given_up(7, parse_error(4, "async_resync=x"));
    log_lines().clear();
    EXPECT_EQ(freeze("async_resync"), 11);
    expect_given_up(7, parse_error(2, "async_resync"));
    log_lines().clear();
    EXPECT_EQ(freeze("a=1,,b=2"), 11);
    expect_given_up(7, parse_error(3, "a=1,,b=2"));
}

TEST_F(FreezeConfig, unknown_keywords_are_ignored) {
    ASSERT_EQ(freeze("nobody=1,async_resync=1"), 0);
    EXPECT_EQ(handle->async_resync, 1);
}

TEST_F(FreezeConfig, a_table_that_cannot_be_built_has_number_1) {
    fail_allocation(3);  // behind the object's and the device's record
    EXPECT_EQ(freeze("keep_fi=1"), 11);
    no_more_faults();
    expect_given_up(1, parse_error(1, "keep_fi=1"));
    // There is nothing to delete.
    EXPECT_FALSE(logged("qfm_fcp_table_delete: No table pointer was specified"));
}

TEST_F(FreezeConfig, a_keyword_that_cannot_be_added_has_number_1_and_the_parsers_status_0) {
    // Seven entries, each with a copy of its keyword.
    for (int n = 4; n < 4 + 14; ++n) {
        log_lines().clear();
        fail_allocation(n);
        EXPECT_EQ(freeze("keep_fi=1"), 11);
        no_more_faults();
        expect_given_up(1, parse_error(0, "keep_fi=1"));
    }
}

TEST_F(FreezeConfig, the_string_is_logged_at_level_2) {
    set_level(1);
    ASSERT_EQ(freeze("keep_fi=1"), 0);
    EXPECT_FALSE(logged("config =keep_fi=1"));
    set_level(2);
    ASSERT_EQ(freeze("keep_fi=1"), 0);
    EXPECT_TRUE(logged("config =keep_fi=1"));
}

TEST_F(FreezeConfig, a_plex_name_stays_for_the_later_freezes_of_the_process) {
    ASSERT_EQ(freeze("plexname=p1"), 0);
    ASSERT_EQ(freeze("keep_fi=1"), 0);
    EXPECT_STREQ(g_plexname, "p1");
    ASSERT_EQ(freeze("plexname=p2"), 0);
    EXPECT_STREQ(g_plexname, "p2");
}

TEST_F(FreezeConfig, of_two_plex_names_in_one_string_the_last_holds) {
    ASSERT_EQ(freeze("plexname=p1,plexname=p2"), 0);
    EXPECT_STREQ(g_plexname, "p2");
}

TEST_F(FreezeConfig, a_plex_name_before_a_failing_pair_counts) {
    EXPECT_EQ(freeze("plexname=p1,keep_fi=2"), 11);
    EXPECT_STREQ(g_plexname, "p1");
}

TEST_F(FreezeConfig, an_empty_plex_name_is_a_plex_name) {
    ASSERT_EQ(freeze("plexname="), 0);
    EXPECT_STREQ(g_plexname, "");
}

TEST_F(FreezeConfig, without_an_alternate_client_nothing_is_looked_up) {
    fake_host().entries["dgimport"] = "";
    ASSERT_EQ(freeze("keep_fi=1"), 0);
    EXPECT_TRUE(fake_host().looked_up.empty());
    EXPECT_TRUE(logged("hdefp->dgimport = 0"));
}

TEST_F(FreezeConfig, a_local_client_is_no_alternate_client) {
    fake_host().entries["dgimport"] = "";
    ASSERT_EQ(freeze("alternate_backup_client=client1"), 0);
    EXPECT_TRUE(fake_host().looked_up.empty());
    EXPECT_TRUE(logged("hdefp->dgimport = 0"));
}

TEST_F(FreezeConfig, without_entries_the_group_is_not_imported) {
    EXPECT_EQ(decision(), 0);
    EXPECT_EQ(fake_host().looked_up,
              (std::vector<std::string>{
                  "/usr/quill/tessera dgimport", "/usr/quill/tessera dgimport_backup1",
                  "/usr/quill/tessera no_dgimport", "/usr/quill/tessera no_dgimport_backup1"}));
}

TEST_F(FreezeConfig, the_entry_for_everybody_imports_and_the_clients_is_not_looked_up) {
    fake_host().entries["dgimport"] = "";
    EXPECT_EQ(decision(), 1);
    EXPECT_EQ(fake_host().looked_up[1], "/usr/quill/tessera no_dgimport");
}

TEST_F(FreezeConfig, the_clients_own_entry_imports) {
    fake_host().entries["dgimport_backup1"] = "";
    EXPECT_EQ(decision(), 1);
}

TEST_F(FreezeConfig, another_clients_entry_does_not_import) {
    fake_host().entries["dgimport_backup2"] = "";
    EXPECT_EQ(decision(), 0);
}

TEST_F(FreezeConfig, either_contrary_entry_overrides) {
    fake_host().entries["dgimport"] = "";
    fake_host().entries["no_dgimport"] = "";
    EXPECT_EQ(decision(), 0);
    fake_host().entries.erase("no_dgimport");
    fake_host().entries["no_dgimport_backup1"] = "";
    EXPECT_EQ(decision(), 0);
    fake_host().entries.erase("no_dgimport_backup1");
    EXPECT_EQ(decision(), 1);
}

TEST_F(FreezeConfig, keep_fi_in_the_string_does_not_import) {
    ASSERT_EQ(freeze("keep_fi=1,alternate_backup_client=backup1"), 0);
    EXPECT_TRUE(logged("hdefp->dgimport = 0"));
}

TEST_F(FreezeConfig, a_record_that_is_kept_imports_unless_a_contrary_entry_exists) {
    hdef *const h = tf::make_zeroed<hdef>();
    h->keep_fi = 1;
    tf::Freeze f{nullptr, "", "", false, nullptr};
    f.h = h;
    f.alternate_client.reset(strdup("backup1"));
    EXPECT_EQ(tf::decide_import(f), 0);
    EXPECT_EQ(h->dgimport, 1);
    EXPECT_EQ(fake_host().looked_up,
              (std::vector<std::string>{"/usr/quill/tessera no_dgimport",
                                        "/usr/quill/tessera no_dgimport_backup1"}));
    fake_host().entries["no_dgimport"] = "";
    EXPECT_EQ(tf::decide_import(f), 0);
    EXPECT_EQ(h->dgimport, 0);
    tf::free_hdef(h);
}

TEST_F(FreezeConfig, the_decision_is_logged_at_level_2) {
    set_level(1);
    ASSERT_EQ(freeze("alternate_backup_client=backup1"), 0);
    EXPECT_FALSE(logged("hdefp->dgimport = 0"));
}

TEST_F(FreezeConfig, an_object_that_is_no_volume_is_never_imported) {
    fake_host().entries["dgimport"] = "";
    EXPECT_EQ(decision(), 1);
    EXPECT_EQ(handle->dgimport, 0);
}

}  // namespace
