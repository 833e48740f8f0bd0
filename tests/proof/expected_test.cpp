#include "proof/kit/expected.h"

#include <cstdlib>
#include <fstream>
#include <iterator>

namespace proof {
namespace {

class ExpectedTable : public testing::Test {
  protected:
    void SetUp() override {
        std::string name = "/tmp/expected.XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder_ = name;
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    void table(const std::string &text) { std::ofstream(folder_ / "scenario") << text; }
    std::string written() const {
        std::ifstream in(folder_ / "scenario");
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    std::string of(const std::string &key, const std::string &section = "freeze place") {
        Expected expected(folder_);
        const std::string *found = expected.find("scenario", section, key);
        return found == nullptr ? "nothing" : *found;
    }

    std::filesystem::path folder_;
};

TEST_F(ExpectedTable, knows_nothing_of_what_no_line_is_about) {
    EXPECT_EQ(of("114/first/once"), "nothing");
    table("freeze place\n    114: freeze 11\n");
    EXPECT_EQ(of("1012/first/once"), "nothing");
    EXPECT_EQ(of("114/first/once", "commit place"), "nothing");
}

TEST_F(ExpectedTable, takes_the_longest_key_that_fits) {
    table(
        "freeze place\n    114: all\n    114/*/function: for good\n    114/last: last\n"
        "    114/last/function: last for good\n");
    EXPECT_EQ(of("114/first/once"), "all");
    EXPECT_EQ(of("114/first/function"), "for good");
    EXPECT_EQ(of("114/last/once"), "last");
    EXPECT_EQ(of("114/last/function"), "last for good");
}

TEST_F(ExpectedTable, is_written_as_short_as_it_can_be_and_read_back) {
    Expected recorded(folder_);
    for (const char *call : {"first", "last"}) {
        recorded.put_down("scenario", "freeze place", std::string("114/") + call + "/once", "one");
        recorded.put_down("scenario", "freeze place", std::string("1012/") + call + "/once", "two");
        recorded.put_down("scenario", "freeze place", std::string("1012/") + call + "/function",
                          "three");
    }
    recorded.write();
    EXPECT_EQ(written(),
              "freeze place\n    114: one\n    1012/*/function: three\n    1012/*/once: two\n");
    EXPECT_EQ(of("114/last/once"), "one");
    EXPECT_EQ(of("1012/last/once"), "two");
    EXPECT_EQ(of("1012/first/function"), "three");
}

}  // namespace
}  // namespace proof
