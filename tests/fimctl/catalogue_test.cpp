// What the catalogue keeps, and how an older one becomes one of today.
#include "fimctl/catalogue.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>

#include "fimctl/failure.h"
#include "tests/support/private_root.h"

namespace {

using fimctl::Catalogue;
using fimctl::ObjectRecord;
using fimctl::SnapshotRecord;
using fimctl::State;

const std::string folder = "/var/catalogue";
const std::string file = folder + "/catalogue.db";

// The tables of version 1, to the letter.
constexpr char version_1[] = R"(
CREATE TABLE snapshot (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    created TEXT NOT NULL DEFAULT (strftime('%Y-%m-%dT%H:%M:%SZ', 'now')),
    state INTEGER NOT NULL DEFAULT 0,
    config TEXT NOT NULL DEFAULT '',
    quiesced INTEGER NOT NULL DEFAULT 0,
    frozen_ms REAL NOT NULL DEFAULT 0,
    void_reason TEXT NOT NULL DEFAULT '',
    note TEXT NOT NULL DEFAULT '');
CREATE TABLE object (
    snapshot INTEGER NOT NULL REFERENCES snapshot (id),
    number INTEGER NOT NULL,
    source TEXT NOT NULL, fifs TEXT NOT NULL, kind TEXT NOT NULL, inside TEXT NOT NULL,
    device INTEGER NOT NULL, made_fifs INTEGER NOT NULL,
    text TEXT NOT NULL DEFAULT '', mounted_text TEXT NOT NULL DEFAULT '',
    copy TEXT NOT NULL DEFAULT '',
    PRIMARY KEY (snapshot, number));
CREATE TABLE pair (
    snapshot INTEGER NOT NULL, object INTEGER NOT NULL, number INTEGER NOT NULL,
    symid TEXT NOT NULL, device TEXT NOT NULL, bcv TEXT NOT NULL,
    before INTEGER NOT NULL, after INTEGER NOT NULL,
    PRIMARY KEY (snapshot, object, number));
PRAGMA user_version = 1;
INSERT INTO snapshot VALUES (7, '2026-11-01T10:00:00Z', 4, 'sync_at_start=1', 1, 12.5, '', 'a note');
INSERT INTO object VALUES (7, 0, '/data', '/mnt/7-1', 'file system', '/in', 2049, 1,
    'HDEF-is_vol=1
HDEF-vol_group=datadg
HDEF-vol_name=vol01
HDEF-dgimport=1
', 'mounted', '/mnt/7-1/in');
INSERT INTO object VALUES (7, 1, '/dev/qz/dmp/p0', '/mnt/7-2', 'block device', '', 2050, 0, 'HDEF-is_vol=0
', '', '');
INSERT INTO pair VALUES (7, 0, 0, '000184500123', '00A1', '01A1', 2, 5);
INSERT INTO snapshot VALUES (9, '2026-11-02T10:00:00Z', 6, '', 0, 0, '', '');
)";

void execute(const char *sql) {
    chmod(folder.c_str(), 0700);
    sqlite3 *database = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, sql, nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(database);
    sqlite3_close(database);
}

bool is_uuid(const std::string &text) {
    return std::regex_match(
        text, std::regex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
}

TEST(CatalogueOfVersion1, keeps_everything_it_knew) {
    test::make_folders(folder);
    execute(version_1);
    Catalogue catalogue(folder, false);
    const auto all = catalogue.all();
    ASSERT_EQ(all.size(), 2U);
    const SnapshotRecord &snapshot = all[0];
    EXPECT_EQ(snapshot.id, 7);
    EXPECT_EQ(snapshot.created, "2026-11-01T10:00:00Z");
    EXPECT_EQ(snapshot.state, State::mounted);
    EXPECT_EQ(snapshot.config, "sync_at_start=1");
    EXPECT_TRUE(snapshot.quiesced);
    EXPECT_EQ(snapshot.frozen_ms, 12.5);
    EXPECT_EQ(snapshot.note, "a note");
    ASSERT_EQ(snapshot.objects.size(), 2U);
    EXPECT_EQ(snapshot.objects[0].source, "/data");
    EXPECT_EQ(snapshot.objects[0].fifs, "/mnt/7-1");
    EXPECT_EQ(snapshot.objects[0].device, 2049);
    EXPECT_TRUE(snapshot.objects[0].made_fifs);
    EXPECT_EQ(snapshot.objects[0].latest_text(), "mounted");
    EXPECT_EQ(snapshot.objects[0].copy, "/mnt/7-1/in");
    ASSERT_EQ(snapshot.objects[0].pairs.size(), 1U);
    EXPECT_EQ(snapshot.objects[0].pairs[0].after, 5);
    EXPECT_EQ(all[1].state, State::released);
}

TEST(CatalogueOfVersion1, gets_what_it_lacked) {
    test::make_folders(folder);
    execute(version_1);
    Catalogue catalogue(folder, false);
    const auto all = catalogue.all();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_TRUE(is_uuid(all[0].uuid)) << all[0].uuid;
    EXPECT_NE(all[0].uuid, all[1].uuid);
    char name[256] = "";
    ASSERT_EQ(gethostname(name, sizeof name - 1), 0);
    EXPECT_EQ(all[0].host, std::string(name).substr(0, std::string(name).find('.')));
    EXPECT_FALSE(all[0].is_target);
    EXPECT_FALSE(all[0].is_away());
    EXPECT_EQ(all[0].objects[0].vol_group, "datadg");
    EXPECT_EQ(all[0].objects[0].vol_name, "vol01");
    EXPECT_TRUE(all[0].objects[0].is_imported_group());
    EXPECT_FALSE(all[0].objects[1].is_volume());
}

TEST(CatalogueOfVersion1, goes_on_counting_and_is_migrated_once) {
    test::make_folders(folder);
    execute(version_1);
    std::string uuid;
    {
        Catalogue catalogue(folder, true);
        uuid = catalogue.find(7)->uuid;
        EXPECT_EQ(catalogue.enter(""), 10);
    }
    Catalogue catalogue(folder, false);
    EXPECT_EQ(catalogue.find(7)->uuid, uuid);
    EXPECT_EQ(catalogue.all().size(), 3U);
}

TEST(CatalogueOfALaterVersion, is_left_alone) {
    test::make_folders(folder);
    execute(version_1);
    execute("PRAGMA user_version = 99");
    try {
        Catalogue catalogue(folder, false);
        FAIL() << "opened";
    } catch (const fimctl::Failure &failure) {
        EXPECT_STREQ(failure.what(), "the catalogue has version 99; this fimctl knows version 2");
    }
}

class OwnCatalogue : public testing::Test {
  protected:
    Catalogue catalogue_{folder, true};
};

TEST_F(OwnCatalogue, gives_every_snapshot_a_name_that_no_other_one_has) {
    const auto one = catalogue_.find(catalogue_.enter(""));
    const auto two = catalogue_.find(catalogue_.enter(""));
    EXPECT_TRUE(is_uuid(one->uuid));
    EXPECT_NE(one->uuid, two->uuid);
    ASSERT_EQ(catalogue_.with_uuid(two->uuid).size(), 1U);
    EXPECT_EQ(catalogue_.with_uuid(two->uuid)[0].id, 2);
    EXPECT_TRUE(catalogue_.with_uuid("").empty());
}

TEST_F(OwnCatalogue, forgets_what_a_transaction_did_not_commit) {
    {
        Catalogue::Transaction whole(catalogue_);
        catalogue_.enter("lost");
    }
    EXPECT_TRUE(catalogue_.all().empty());
    {
        Catalogue::Transaction whole(catalogue_);
        catalogue_.set_pairs(catalogue_.enter("kept"), 0, {{{"000184500123", "00A1", "01A1"}}});
        whole.commit();
    }
    EXPECT_EQ(catalogue_.all().size(), 1U);
}

TEST_F(OwnCatalogue, knows_whether_a_snapshot_is_away) {
    const int64_t id = catalogue_.enter("");
    EXPECT_FALSE(catalogue_.find(id)->is_away());
    EXPECT_EQ(catalogue_.set_exported(id), 1);
    EXPECT_TRUE(catalogue_.find(id)->is_away());
    catalogue_.set_returned(id);
    EXPECT_FALSE(catalogue_.find(id)->is_away());
    EXPECT_EQ(catalogue_.set_exported(id), 2);
    EXPECT_TRUE(catalogue_.find(id)->is_away()) << "an earlier return says nothing of this export";
}

TEST_F(OwnCatalogue, enters_one_of_another_host_as_frozen) {
    SnapshotRecord snapshot;
    snapshot.created = "2026-11-01T10:00:00Z";
    snapshot.uuid = "some-uuid";
    snapshot.origin = "client1:7";
    snapshot.quiesced = true;
    snapshot.frozen_ms = 1.5;
    snapshot.exports = 3;
    const auto entered = catalogue_.find(catalogue_.enter_imported(snapshot));
    ASSERT_TRUE(entered);
    EXPECT_EQ(entered->state, State::frozen);
    EXPECT_TRUE(entered->is_target);
    EXPECT_EQ(entered->origin, "client1:7");
    EXPECT_EQ(entered->uuid, "some-uuid");
    EXPECT_EQ(entered->created, "2026-11-01T10:00:00Z");
    EXPECT_EQ(entered->exports, 3);
    EXPECT_EQ(catalogue_.set_exported(entered->id), 3) << "carried back under the same number";
    EXPECT_FALSE(catalogue_.find(entered->id)->is_away());
}

TEST_F(OwnCatalogue, keeps_the_numbers_of_the_states) {
    // They stand in files that older versions have written.
    EXPECT_EQ(static_cast<int>(State::released), 6);
    EXPECT_EQ(static_cast<int>(State::failed), 7);
    EXPECT_EQ(static_cast<int>(State::restoring), 8);
    EXPECT_EQ(static_cast<int>(State::restored), 9);
    EXPECT_TRUE(is_over(State::restored));
    EXPECT_FALSE(is_over(State::restoring));
    EXPECT_STREQ(name_of(State::restoring), "restoring");
}

TEST_F(OwnCatalogue, lists_every_array_of_a_snapshot_once) {
    const int64_t id = catalogue_.enter("");
    catalogue_.set_objects(id, {ObjectRecord(), ObjectRecord()});
    catalogue_.set_pairs(id, 0,
                         {{{"000184500456", "00A1", "01A1"}}, {{"000184500123", "00A1", "01A1"}}});
    catalogue_.set_pairs(id, 1, {{{"000184500123", "00A2", "01A2"}}});
    EXPECT_EQ(catalogue_.find(id)->arrays(),
              (std::vector<std::string>{"000184500123", "000184500456"}));
}

}  // namespace
