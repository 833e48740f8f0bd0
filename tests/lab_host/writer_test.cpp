// The busy program of the demo: the state after every step is known, and a wrong one is noticed.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "lab/host/record_files.h"
#include "lab/host/witness.h"
#include "tests/lab_host/lab.h"

namespace {

using namespace tfwriter;
using test::shell;

TEST(RecordFiles, nothing_is_there_before_the_first_step) {
    const Content content = content_after(0);
    EXPECT_EQ(content.at("journal"), "");
    EXPECT_EQ(content.at("slots"), std::string(slots * slot_size, '\0'));
    EXPECT_EQ(content.size(), 4U);
}

TEST(RecordFiles, each_step_of_a_round_changes_one_thing) {
    EXPECT_EQ(content_after(1).at("journal"), journal_line(1));
    EXPECT_EQ(content_after(2).at("slots").substr(slot_size, slot_size), slot_block(1));
    EXPECT_EQ(content_after(3).at("new/" + file_name(1)), "");
    EXPECT_EQ(content_after(4).at("new/" + file_name(1)), file_text(1));
    EXPECT_FALSE(content_after(5).contains("new/" + file_name(1)));
    EXPECT_EQ(content_after(5).at("kept/" + file_name(1)), file_text(1));
    EXPECT_EQ(content_after(6), content_after(5));
}

TEST(RecordFiles, old_files_go_when_new_ones_are_kept) {
    const uint64_t rounds = kept_files + 1;
    const Content before = content_after(rounds * steps_a_round - 1),
                  after = content_after(rounds * steps_a_round);
    EXPECT_TRUE(before.contains("kept/" + file_name(1)));
    EXPECT_FALSE(after.contains("kept/" + file_name(1)));
    EXPECT_TRUE(after.contains("kept/" + file_name(2)));
    EXPECT_TRUE(after.contains("kept/" + file_name(rounds)));
}

TEST(RecordFiles, slot_holds_the_newest_record_of_its_number) {
    const std::string text = content_after((slots + 3) * steps_a_round).at("slots");
    EXPECT_EQ(text.substr(3 * slot_size, slot_size), slot_block(slots + 3));
    EXPECT_EQ(text.substr(4 * slot_size, slot_size), slot_block(4));
    EXPECT_EQ(text.substr(0, slot_size), slot_block(slots));
}

TEST(RecordFiles, no_two_records_have_the_same_content) {
    EXPECT_NE(journal_line(1), journal_line(2));
    EXPECT_NE(slot_block(1), slot_block(2));
    EXPECT_NE(file_text(1), file_text(8));
    EXPECT_EQ(file_text(1).size(), file_text(8).size());
}

// A writer that ran for a while, its files and its witness.
struct Written : testing::Test {
    Written() {
        const auto outcome = shell("tfwriter write " + files + " --witness " + witness +
                                   " & sleep 0.4; kill $!; wait $!");
        EXPECT_EQ(outcome.status, 0) << outcome.output;
    }
    test::Outcome verify(const std::string &options = "") {
        return shell("tfwriter verify " + files + " --witness " + witness + options);
    }
    // The time between two steps, somewhere in the middle.
    int64_t time_after(uint64_t step) {
        const Witness all = Witness::read(witness);
        return (*all.steps.at(step - 1).ended + all.steps.at(step).begun) / 2;
    }
    uint64_t steps() { return Witness::read(witness).ended(); }

    test::Scratch scratch;
    std::string files = scratch / "files", witness = scratch / "witness";
};

TEST_F(Written, files_are_exactly_those_of_the_last_step) {
    ASSERT_GT(steps(), 20U);
    EXPECT_EQ(read_content(files), content_after(steps()));
    const auto outcome = verify();
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    EXPECT_NE(outcome.output.find("step=" + std::to_string(steps())), std::string::npos)
        << outcome.output;
}

TEST_F(Written, step_that_was_over_too_early_is_missed) {
    // One more step is claimed than the files have: a copy that lost the last one looks like this.
    const Witness all = Witness::read(witness);
    const uint64_t next = steps() + 1;
    std::ofstream(witness, std::ios::app)
        << "b " << next << " " << now() << "\ne " << next << " " << now() << "\nb " << next + 1
        << " " << now() << "\ne " << next + 1 << " " << now() << "\n";
    const auto outcome = verify(" --not-before " + std::to_string(now()));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("had ended before and is missing"), std::string::npos)
        << outcome.output;
}

TEST_F(Written, step_that_began_afterwards_is_noticed) {
    const auto outcome = verify(" --not-after " + std::to_string(time_after(10)));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("began afterwards and is there"), std::string::npos)
        << outcome.output;
}

TEST_F(Written, one_changed_byte_is_noticed) {
    std::fstream(files + "/slots", std::ios::in | std::ios::out).seekp(slot_size + 17).put('!');
    const auto outcome = verify();
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("different slots"), std::string::npos) << outcome.output;
}

TEST_F(Written, missing_and_additional_files_are_noticed) {
    std::ofstream(files + "/new/stray") << "x";
    auto outcome = verify();
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("too much  new/stray"), std::string::npos) << outcome.output;
    std::filesystem::remove(files + "/new/stray");
    const std::string last = file_name(steps() / steps_a_round);
    std::filesystem::remove(files + "/kept/" + last);
    outcome = verify();
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("missing   kept/" + last), std::string::npos) << outcome.output;
}

}  // namespace
