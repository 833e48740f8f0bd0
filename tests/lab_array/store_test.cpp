// The saved state: what comes back, and what is refused.
#include <gtest/gtest.h>

#include <filesystem>

#include "lab/array/store/store.h"
#include "tests/lab_array/small_world.h"

namespace {

using lab::Faults;
using lab::Store;
using lab::World;
using test::symid;

class AStore : public testing::Test {
  protected:
    ~AStore() override {
        for (const char *end : {"", "-wal", "-shm"}) std::filesystem::remove(path + end);
    }
    const std::string path = "/tmp/state.db";
};

TEST_F(AStore, gives_back_what_was_saved) {
    World world;
    test::build_small_array(&world);
    world.set_label(symid, "01A1", "TSR-BCV");
    world.add_host({"client1", "/tmp/s", "/tmp/dev"});
    world.mask(symid, "00A1", "client1",
               {{"/dev/emcpowera"}, {"/dev/sdc", true}, {"/dev/sdd", true, true}});
    world.mask(symid, "01A1", "client1", {{"/dev/sdq"}});
    world.begin(world.change_pair(1), lab::PairState::synchronising, 10, 500);
    world.change_pair(3).tracks = 17;
    world.change_settings().version = 0x04020099;
    world.change_settings().patch = "5";
    world.change_settings().next_session = 9;
    Faults faults;
    lab::Fault fault;
    fault.function = "SymPdevShow";
    fault.code = 5;
    fault.at = 2;
    faults.add(fault);
    bool counted = false;
    faults.ask("SymPdevShow", "", {}, &counted);
    world.changes.faults = true;
    Store(path).save(&world, faults);
    EXPECT_FALSE(world.changes.any());

    World again;
    Faults faults_again;
    Store(path).load(&again, &faults_again);
    EXPECT_EQ(again.device(symid, "01A1")->ldev, "TSR-BCV");
    EXPECT_EQ(again.device(symid, "00A2")->offset, test::device_size);
    EXPECT_EQ(again.device(symid, "00A1")->pairs, world.device(symid, "00A1")->pairs);
    EXPECT_EQ(again.group("dg"), world.group("dg"));
    EXPECT_EQ(again.pair(1).state, lab::PairState::synchronising);
    EXPECT_EQ(again.pair(3).tracks, 17u);
    EXPECT_EQ(again.next_end(), 510);  // it still moves
    EXPECT_EQ(again.host("client1")->dev, "/tmp/dev");
    ASSERT_NE(again.by_path("client1", "/dev/sdd"), nullptr);
    const auto &paths = again.view("client1", again.device(symid, "00A1")->id)->paths;
    ASSERT_EQ(paths.size(), 3u);
    EXPECT_EQ(paths[0].path, "/dev/emcpowera");
    EXPECT_TRUE(paths[2].port && paths[2].down && !paths[1].down);
    EXPECT_EQ(again.settings().version, 0x04020099u);
    EXPECT_EQ(again.settings().patch, "5");
    EXPECT_EQ(again.settings().next_session, 9);
    ASSERT_EQ(faults_again.all().size(), 1u);
    EXPECT_EQ(faults_again.all()[0].seen, 1);
    EXPECT_TRUE(lab::broken_invariants(again).empty());
}

TEST_F(AStore, forgets_what_was_taken_away) {
    World world;
    Faults faults;
    test::build_small_array(&world);
    world.add_host({"client1", "/tmp/s", "/tmp/dev"});
    world.mask(symid, "00A1", "client1", {{"/dev/sda"}});
    Store store(path);
    store.save(&world, faults);
    world.unmask(symid, "00A1", "client1");
    world.remove_host("client1");
    store.save(&world, faults);
    World again;
    Store(path).load(&again, &faults);
    EXPECT_TRUE(again.views().empty());
    EXPECT_TRUE(again.hosts().empty());
}

TEST_F(AStore, of_another_schema_is_refused) {
    { Store made(path); }
    { lab::Database(path).execute("PRAGMA user_version = 99"); }
    try {
        Store opened(path);
        FAIL() << "opened";
    } catch (const lab::StoreError &error) {
        EXPECT_STREQ(error.what(), "/tmp/state.db has schema 99, this program needs 1");
    }
}

TEST_F(AStore, that_cannot_be_opened_says_so) {
    EXPECT_THROW(Store("/nonexistent/state.db"), lab::StoreError);
}

TEST_F(AStore, a_transaction_that_is_not_committed_leaves_nothing) {
    Store store(path);
    World world;
    Faults faults;
    test::build_small_array(&world);
    {
        lab::Database blocker(path);
        blocker.execute(
            "CREATE TRIGGER no_pairs BEFORE INSERT ON pair BEGIN SELECT "
            "RAISE(ABORT, 'no pairs today'); END");
    }
    EXPECT_THROW(store.save(&world, faults), lab::StoreError);
    EXPECT_TRUE(world.changes.any());  // still noted: the next save writes them
    World again;
    Store(path).load(&again, &faults);
    EXPECT_TRUE(again.devices().empty());
    lab::Database(path).execute("DROP TRIGGER no_pairs");
    store.save(&world, faults);
    Store(path).load(&again, &faults);
    EXPECT_EQ(again.pairs().size(), 4u);
}

}  // namespace
