// Two state folders on one host: what one catalogue holds the other one does not know, and a freeze
// says so.
#include <unistd.h>

#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using test::Ended;

constexpr char meaning[] = "snapshots of different state folders do not see each other";

class OtherStates : public test::FimctlWorld {
  protected:
    void SetUp() override {
        FimctlWorld::SetUp();
        one_ = add_file_system("one", "000184500123", "00A1", "00B1");
        two_ = add_file_system("two", "000184500123", "00A2", "00B2");
    }
    Ended freeze(const std::string &state, const std::string &source) {
        return fimctl({"-q", "--state", state, "freeze", "--no-quiesce", source});
    }

    const std::string usual_ = "/var/lib/fimctl";
    std::string one_, two_;
};

TEST_F(OtherStates, than_the_default_one_are_warned_of_while_that_one_holds_a_catalogue) {
    EXPECT_EQ(freeze(usual_, one_).err, "") << "the only one so far";
    const Ended second = freeze("/var/lib/second", two_);
    EXPECT_EQ(second.status, 0);
    EXPECT_EQ(second.out, "1\n");
    EXPECT_NE(second.err.find("warning: " + usual_ +
                              " holds a catalogue as well as /var/lib/second: " + meaning),
              std::string::npos)
        << second.err;
    EXPECT_EQ(second.err.find('\n') + 1, second.err.size()) << "one line";
}

TEST_F(OtherStates, are_warned_of_by_a_freeze_of_the_default_one_once_they_were_used) {
    EXPECT_EQ(freeze("/var/lib/second", one_).err, "");
    const Ended ended = freeze(usual_, two_);
    EXPECT_EQ(ended.status, 0);
    EXPECT_NE(ended.err.find("warning: another state folder than " + usual_ +
                             " was used on this host (/run/fimctl/"),
              std::string::npos)
        << ended.err;
    EXPECT_NE(ended.err.find(meaning), std::string::npos) << ended.err;
}

TEST_F(OtherStates, are_not_other_names_of_the_same_one) {
    EXPECT_EQ(freeze(usual_, one_).err, "");
    ASSERT_EQ(symlink(usual_.c_str(), "/var/lib/alias"), 0);
    EXPECT_EQ(freeze("/var/lib/alias", two_).err, "");
}

}  // namespace
