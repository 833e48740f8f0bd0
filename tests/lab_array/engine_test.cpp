// The order of things in the array: plan, data, model, saved state; and what is left when a step in
// between fails. The medium is a stand-in.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "lab/array/daemon/engine.h"
#include "tests/lab_array/small_world.h"

namespace {

using lab::DataPair;
using lab::Device;
using test::symid;
namespace code = lab::code;

// Notes what it is asked for; fails on demand.
struct StandInMedia : lab::Media {
    std::vector<std::string> *calls;
    std::set<std::string> *failing;
    std::set<std::string> not_ready;

    void note(const std::string &call, int number = code::media_failed) const {
        calls->push_back(call);
        if (failing->contains(call)) throw lab::MediaError(number, call);
    }
    std::string kind() const override { return "stand-in"; }
    std::string limits() const override { return ""; }
    void attach(const Device &device, bool ready) override {
        note("attach " + device.name + (ready ? "" : " not ready"));
        if (!ready) not_ready.insert(device.name);
    }
    std::string shown(const Device &device) const override { return device.name; }
    bool ready(const Device &device) const override { return !not_ready.contains(device.name); }
    std::unique_ptr<lab::Claim> claim(const Device &device) override {
        note("claim " + device.name, device.bcv ? code::bcv_held : code::standard_held);
        return std::make_unique<lab::Claim>();
    }
    void set_ready(const std::vector<const Device *> &bcvs, bool ready) override {
        for (const Device *bcv : bcvs) {
            note((ready ? "give " : "take ") + bcv->name);
            if (ready) not_ready.erase(bcv->name);
            if (!ready) not_ready.insert(bcv->name);
        }
    }
    uint64_t changed_tracks(const DataPair &pair) override {
        note("compare " + pair.bcv->name);
        return 3;
    }
    void cut(const std::vector<DataPair> &pairs) override {
        std::string names;
        for (const DataPair &pair : pairs) names += " " + pair.bcv->name;
        note("cut" + names);
    }
    void copy_back(const std::vector<DataPair> &pairs) override {
        for (const DataPair &pair : pairs) note("copy back " + pair.bcv->name);
    }
    void expose(const Device &device, const std::string &path, bool down) override {
        note("expose " + device.name + " " + path + (down ? " down" : ""));
    }
};

class AnEngine : public testing::Test {
  protected:
    AnEngine() {
        start();
        for (const char *name : {"00A1", "00A2"}) create(name, false);
        for (const char *name : {"01A1", "01A2"}) create(name, true);
        engine->pair(symid, "00A1", "01A1");
        engine->pair(symid, "00A2", "01A2");
        engine->world().change_settings().rate = 0;
        engine->save();
        calls.clear();
    }
    ~AnEngine() override {
        engine.reset();
        for (const char *end : {"", "-wal", "-shm"}) std::filesystem::remove(path + end);
    }
    void start() {
        engine.reset();
        auto media = std::make_unique<StandInMedia>();
        media->calls = &calls;
        media->failing = &failing;
        engine = std::make_unique<lab::Engine>(path, std::move(media));
        if (engine->world().array(symid) == nullptr) engine->world().add_array(symid, 0);
    }
    void create(const char *name, bool bcv) {
        engine->create_device(symid, name, test::device_size, bcv);
    }
    int control(int action) {
        return engine->control(symid, {{"00A1", "01A1"}, {"00A2", "01A2"}}, action);
    }
    int state(int64_t pair = 1) { return static_cast<int>(engine->world().pair(pair).state); }

    const std::string path = "/tmp/engine.db";
    std::vector<std::string> calls;
    std::set<std::string> failing;
    std::unique_ptr<lab::Engine> engine;
};

TEST_F(AnEngine, a_full_establish_claims_every_bcv_and_then_takes_them) {
    EXPECT_EQ(control(1), code::ok);
    EXPECT_EQ(calls,
              (std::vector<std::string>{"claim 01A1", "claim 01A2", "take 01A1", "take 01A2"}));
    EXPECT_EQ(engine->world().pair(1).tracks, test::device_tracks);
}

TEST_F(AnEngine, an_incremental_establish_asks_what_changed) {
    EXPECT_EQ(control(3), code::ok);
    EXPECT_EQ(calls, (std::vector<std::string>{"claim 01A1", "claim 01A2", "compare 01A1",
                                               "compare 01A2", "take 01A1", "take 01A2"}));
    EXPECT_EQ(engine->world().pair(1).tracks, 3u);
}

TEST_F(AnEngine, a_split_is_one_cut_for_all_pairs_of_the_call) {
    ASSERT_EQ(control(1), code::ok);
    calls.clear();
    EXPECT_EQ(control(2), code::ok);
    EXPECT_EQ(calls, (std::vector<std::string>{"cut 01A1 01A2", "give 01A1", "give 01A2"}));
}

TEST_F(AnEngine, a_restore_copies_back_before_it_takes_the_bcvs) {
    EXPECT_EQ(control(5), code::ok);
    EXPECT_EQ(calls,
              (std::vector<std::string>{"claim 01A1", "claim 00A1", "claim 01A2", "claim 00A2",
                                        "compare 01A1", "compare 01A2", "copy back 01A1",
                                        "copy back 01A2", "take 01A1", "take 01A2"}));
    EXPECT_EQ(state(), 8);
    calls.clear();
    EXPECT_EQ(control(1), code::ok);  // restored pairs are taken already
    EXPECT_EQ(calls, (std::vector<std::string>{"claim 01A1", "claim 01A2"}));
}

TEST_F(AnEngine, a_bcv_that_is_held_leaves_every_pair_as_it_was) {
    failing.insert("claim 01A2");
    EXPECT_EQ(control(3), code::bcv_held);
    EXPECT_EQ(state(1), 5);
    EXPECT_EQ(calls, (std::vector<std::string>{"claim 01A1", "claim 01A2"}));
}

TEST_F(AnEngine, a_bcv_that_cannot_be_taken_gives_the_others_back) {
    failing.insert("take 01A2");
    EXPECT_EQ(control(1), code::media_failed);
    EXPECT_EQ(state(1), 5);
    EXPECT_TRUE(engine->check().empty());
}

TEST_F(AnEngine, a_cut_that_fails_leaves_the_pairs_synchronised) {
    ASSERT_EQ(control(1), code::ok);
    failing.insert("cut 01A1 01A2");
    EXPECT_EQ(control(2), code::media_failed);
    EXPECT_EQ(state(1), 2);
    EXPECT_EQ(state(2), 2);
    failing.clear();
    EXPECT_EQ(control(2), code::ok);
}

TEST_F(AnEngine, a_device_whose_place_cannot_be_made_does_not_exist) {
    failing.insert("attach 00B1");
    EXPECT_THROW(create("00B1", false), lab::MediaError);
    EXPECT_EQ(engine->world().device(symid, "00B1"), nullptr);
    failing.clear();
    create("00B1", false);
}

TEST_F(AnEngine, a_mask_whose_node_cannot_be_made_does_not_exist) {
    engine->add_host({"h", "/tmp/h.sock", "/tmp/hdev"});
    failing.insert("expose 00A1 /tmp/hdev/sda");
    EXPECT_THROW(engine->mask(symid, "00A1", "h", {{"/dev/sda"}}), lab::MediaError);
    EXPECT_EQ(engine->world().by_path("h", "/dev/sda"), nullptr);
}

TEST_F(AnEngine, a_state_that_cannot_be_saved_is_answered) {
    ASSERT_EQ(control(1), code::ok);
    {
        lab::Database(path).execute(
            "CREATE TRIGGER no BEFORE INSERT ON pair BEGIN SELECT "
            "RAISE(ABORT, 'no'); END");
    }
    EXPECT_EQ(control(2), code::store_failed);
}

TEST_F(AnEngine, loads_its_state_and_brings_joined_bcvs_up_without_capacity) {
    ASSERT_EQ(engine->control(symid, {{"00A1", "01A1"}}, 1), code::ok);
    engine->add_host({"h", "/tmp/h.sock", "/tmp/hdev"});
    engine->mask(symid, "00A1", "h", {{"/dev/sda"}, {"/dev/sdb", true, true}});
    engine->save();
    calls.clear();
    start();
    EXPECT_EQ(calls, (std::vector<std::string>{
                         "attach 00A1", "attach 00A2", "attach 01A1 not ready", "attach 01A2",
                         "expose 00A1 /tmp/hdev/sda", "expose 00A1 /tmp/hdev/sdb down"}));
    EXPECT_EQ(state(), 2);
    EXPECT_TRUE(engine->check().empty());
}

TEST_F(AnEngine, a_daemon_killed_between_data_and_saved_state_can_split_again) {
    ASSERT_EQ(control(1), code::ok);
    // The cut is done and the process dies before it saves: the next one still has the pair joined.
    {
        lab::Database(path).execute(
            "CREATE TRIGGER no BEFORE INSERT ON pair BEGIN SELECT "
            "RAISE(ABORT, 'no'); END");
    }
    ASSERT_EQ(control(2), code::store_failed);
    engine.reset();
    lab::Database(path).execute("DROP TRIGGER no");
    start();
    EXPECT_EQ(state(), 2);
    EXPECT_TRUE(engine->check().empty());
    EXPECT_EQ(control(2), code::ok);
}

TEST_F(AnEngine, goes_on_with_a_transition_where_it_stood) {
    engine->run_clock(false);
    engine->world().change_settings().rate = 1;
    engine->save();
    ASSERT_EQ(control(1), code::ok);
    engine->advance_clock(60 * lab::micros_per_second);
    EXPECT_EQ(state(), 1);
    start();
    EXPECT_EQ(state(), 1);
    engine->advance_clock(4 * lab::micros_per_second);  // 64 MiB at 1 MiB a second
    EXPECT_EQ(state(), 2);
}

TEST_F(AnEngine, check_names_a_bcv_that_hosts_can_read_while_it_is_joined) {
    ASSERT_EQ(control(1), code::ok);
    engine->media().set_ready({engine->world().device(symid, "01A1")}, true);
    EXPECT_EQ(engine->check(), std::vector<std::string>{"device 000184500123 01A1 can be read "
                                                        "while it is joined"});
}

}  // namespace
