// The ledger and the choice of points, which every row of the proof stands on.
#include "proof/kit/row.h"

#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

namespace {

using proof::Options;
using proof::Row;
using Points = std::vector<std::string>;

struct ProofRow : testing::Test {
    void SetUp() override {
        char name[] = "/tmp/row.XXXXXX";
        folder_ = mkdtemp(name);
        judge("one build");
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    void judge(const std::string &content) { std::ofstream(folder_ / "judged") << content; }
    Options full() { return Options{true, 1, folder_, {}}; }
    Options quick(uint64_t seed) { return Options{false, seed, folder_, {}}; }
    Points judged_by(Options options, const Points &points, size_t count = 2) {
        Row row("row", std::move(options), {folder_ / "judged"});
        return row.choose(points, count);
    }
    static Points many() {
        Points points;
        for (int i = 0; i < 1000; ++i) points.push_back("point " + std::to_string(i));
        return points;
    }

    std::filesystem::path folder_;
};

TEST_F(ProofRow, goes_on_in_a_full_run_behind_the_points_that_held) {
    {
        Row row("row", full(), {folder_ / "judged"});
        EXPECT_EQ(row.choose({"a", "b", "c"}, 0), (Points{"a", "b", "c"}));
        row.held("a");
        row.failed("b", "because");
    }
    Row row("row", full(), {folder_ / "judged"});
    EXPECT_EQ(row.choose({"a", "b", "c"}, 0), (Points{"b", "c"})) << "what failed is tried again";
    row.held("b");
    row.held("c");
    testing::internal::CaptureStdout();
    EXPECT_EQ(row.finish("all well"), 0);
    const auto last = nlohmann::json::parse(testing::internal::GetCapturedStdout());
    EXPECT_EQ(last["held"], 3);
    EXPECT_EQ(last["points"], 3);
    EXPECT_EQ(last["of"], 3);
    EXPECT_EQ(last["failed"], 0);
    EXPECT_EQ(last["note"], "all well");
}

TEST_F(ProofRow, begins_anew_when_what_it_judges_has_changed) {
    {
        Row row("row", full(), {folder_ / "judged"});
        row.choose({"a"}, 0);
        row.held("a");
    }
    judge("another build");
    EXPECT_EQ(judged_by(full(), {"a"}), Points{"a"});
}

TEST_F(ProofRow, does_not_believe_a_line_that_a_kill_cut_short) {
    {
        Row row("row", full(), {folder_ / "judged"});
        row.choose({"a", "ab"}, 0);
        row.held("ab");
    }
    // Without its newline the line could be the beginning of another point's.
    std::filesystem::resize_file(folder_ / "done",
                                 std::filesystem::file_size(folder_ / "done") - 2);
    EXPECT_EQ(judged_by(full(), {"a", "ab"}), (Points{"a", "ab"}));
    EXPECT_EQ(judged_by(full(), {"a", "ab"}), (Points{"a", "ab"})) << "nor the second time";
    Row row("row", full(), {folder_ / "judged"});
    row.choose({"a", "ab"}, 0);
    row.held("ab");
    EXPECT_EQ(judged_by(full(), {"a", "ab"}), Points{"a"});
}

TEST_F(ProofRow, draws_the_same_points_for_the_same_seed_and_others_for_another) {
    const Points points = many();
    const Points drawn = judged_by(quick(7), points, 50);
    EXPECT_EQ(drawn.size(), 50U);
    EXPECT_EQ(std::set<std::string>(drawn.begin(), drawn.end()).size(), 50U);
    EXPECT_EQ(judged_by(quick(7), points, 50), drawn);
    EXPECT_NE(judged_by(quick(8), points, 50), drawn);
}

TEST_F(ProofRow, is_missed_when_a_point_failed_or_none_was_run) {
    Row failing("row", quick(1), {folder_ / "judged"});
    failing.choose({"a", "b"}, 2);
    failing.held("a");
    failing.failed("b", "because");
    EXPECT_EQ(failing.finish(), 1);
    Row empty("row", quick(1), {folder_ / "judged"});
    empty.choose({}, 2);
    EXPECT_EQ(empty.finish(), 1);
}

TEST_F(ProofRow, takes_the_points_that_are_named_and_refuses_unknown_ones) {
    Options options = quick(1);
    options.only = {"b"};
    EXPECT_EQ(judged_by(options, {"a", "b", "c"}), Points{"b"});
    options.only = {"d"};
    EXPECT_THROW(judged_by(options, {"a", "b", "c"}), std::runtime_error);
    EXPECT_THROW(judged_by(quick(1), {"a", "a"}), std::logic_error);
}

}  // namespace
