// A copy that somebody else's establish has overwritten: who asks for it hears so, and it is void
// from then on.
#include "tests/fimctl/fake_method/script.h"
#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using fimctl::State;
using test::Ended;

constexpr char lost[] =
    "the copy is lost: pair 00A1/00B1 is synchronised (array 000184500123, /data-one)";

class LostCopy : public test::FimctlWorld {
  protected:
    void SetUp() override {
        FimctlWorld::SetUp();
        one_ = add_file_system("one", "000184500123", "00A1", "00B1");
        two_ = add_file_system("two", "000184500123", "00A2", "00B2");
        ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_, two_}).status, 0);
    }
    void others_leave(const std::string &device, long state) {
        auto pairs = fake::read_array();
        for (auto &pair : pairs) {
            if (pair.device == device) pair.state = state;
        }
        fake::write_array(pairs);
    }
    static bool told(const std::string &text, const std::string &part) {
        return text.find(part) != std::string::npos;
    }
    void expect_void() {
        EXPECT_EQ(snapshot(1).state, State::frozen);
        EXPECT_EQ(snapshot(1).void_reason, lost);
        EXPECT_TRUE(told(fimctl({"list"}).out, "frozen     void"));
        EXPECT_TRUE(told(fimctl({"show", "1"}).out, lost));
        EXPECT_TRUE(told(fimctl({"orphans"}).out, std::string("void: ") + lost));
    }

    std::string one_, two_;
};

TEST_F(LostCopy, of_a_mirror_that_follows_its_primary_again_is_not_mounted_and_is_void) {
    others_leave("00A1", 2);
    const Ended ended = fimctl({"mount", "1"});
    EXPECT_EQ(ended.status, 2);
    EXPECT_TRUE(told(ended.err, lost)) << ended.err;
    EXPECT_TRUE(told(ended.err, "next: fimctl release 1")) << ended.err;
    EXPECT_TRUE(processes_of("rebuild").empty()) << "the method is not asked any more";
    expect_void();
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_EQ(snapshot(1).state, State::released);
}

TEST_F(LostCopy, of_a_mirror_that_follows_its_primary_again_is_not_exported_and_is_void) {
    others_leave("00A1", 2);
    const Ended ended = fimctl({"export", "1"});
    EXPECT_EQ(ended.status, 2);
    EXPECT_EQ(ended.out, "");
    EXPECT_TRUE(told(ended.err, lost)) << ended.err;
    EXPECT_EQ(snapshot(1).exported, "");
    expect_void();
}

TEST_F(LostCopy, is_one_of_a_pair_in_any_state_but_split_and_every_pair_is_named) {
    others_leave("00A1", 1);
    others_leave("00A2", 7);
    const Ended ended = fimctl({"mount", "1"});
    EXPECT_EQ(ended.status, 2);
    EXPECT_TRUE(told(ended.err,
                     "pair 00A1/00B1 is synchronising (array 000184500123, /data-one); pair "
                     "00A2/00B2 is restoring (array 000184500123, /data-two)"))
        << ended.err;
}

TEST_F(LostCopy, is_none_when_nothing_can_be_asked_and_the_mount_goes_on_as_it_did) {
    others_leave("00A1", 2);
    array_fails("SymInitV", 520);
    const Ended ended = fimctl({"mount", "1"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_EQ(snapshot(1).void_reason, "");
    EXPECT_EQ(snapshot(1).state, State::mounted);
}

TEST_F(LostCopy, that_was_split_again_looks_like_one_that_nobody_touched) {
    // What the manual says: there is nothing to see, so nothing is said.
    others_leave("00A1", 2);
    others_leave("00A1", 5);
    const Ended ended = fimctl({"mount", "1"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_EQ(snapshot(1).void_reason, "");
}

}  // namespace
