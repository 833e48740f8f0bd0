// The tokenizer: one pair at a time.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "tests/fim_config/fim_config_fixture.h"

namespace {

using test::FimConfig;

enum Option { empty_pairs, empty_value, standalone, trim_blanks };

// A context over a text of its own.
class Context {
  public:
    explicit Context(std::string text, std::vector<Option> set = {empty_value})
        : text_(std::move(text)) {
        context.text = text_.data();
        context.position = text_.data();
        for (const Option option : set) {
            if (option == empty_pairs) context.options.allow_empty_pairs = 1;
            if (option == empty_value) context.options.allow_empty_value = 1;
            if (option == standalone) context.options.allow_standalone_keyword = 1;
            if (option == trim_blanks) context.options.trim_blanks = 1;
        }
    }

    // "keyword|value", "keyword" without a value, "end", or "status N".
    std::string next() {
        char *keyword = nullptr;
        char *value = nullptr;
        const int32_t status = qfm_fcp_next(&context, &keyword, &value);
        std::string result = keyword != nullptr ? keyword : "end";
        if (value != nullptr) result += std::string("|") + value;
        free(keyword);
        free(value);
        if (status != 0) {
            EXPECT_EQ(result, "end") << "a failure hands nothing out";
            return "status " + std::to_string(status);
        }
        return result;
    }
    std::string rest() const { return context.position; }

    qfm_fcp_context context{};

  private:
    std::string text_;
};

TEST_F(FimConfig, pairs_come_one_after_the_other_and_then_the_end) {
    Context context("a=1,b=x");
    EXPECT_EQ(context.next(), "a|1");
    EXPECT_EQ(context.next(), "b|x");
    EXPECT_EQ(context.next(), "end");
    EXPECT_EQ(context.next(), "end");
    EXPECT_EQ(log(), "");
}

TEST_F(FimConfig, only_the_first_equals_sign_cuts_a_pair) {
    Context context("a=b=c");
    EXPECT_EQ(context.next(), "a|b=c");
}

TEST_F(FimConfig, a_comma_at_the_end_is_the_end) {
    Context context("a=1,");
    EXPECT_EQ(context.next(), "a|1");
    EXPECT_EQ(context.next(), "end");
}

TEST_F(FimConfig, a_bad_context_gives_5_and_leaves_the_outputs_alone) {
    char out[] = "out";
    char *keyword = out;
    char *value = out;
    EXPECT_EQ(qfm_fcp_next(nullptr, &keyword, &value), 5);
    EXPECT_EQ(log(), "qfm_fcp: Bad context: (nil) (nil) (nil)\n");
    EXPECT_EQ(keyword, out);
    EXPECT_EQ(value, out);
}

TEST_F(FimConfig, a_context_without_text_or_position_gives_5_and_shows_the_pointers) {
    char out[] = "out";
    char *keyword = nullptr;
    char *value = nullptr;
    char expected[200];
    qfm_fcp_context context = {};
    context.position = out;
    EXPECT_EQ(qfm_fcp_next(&context, &keyword, &value), 5);
    snprintf(expected, sizeof expected, "qfm_fcp: Bad context: %p (nil) %p\n",
             static_cast<void *>(&context), static_cast<void *>(out));
    EXPECT_EQ(log(), expected);
    test::fcp_lines().clear();
    context.text = out;
    context.position = nullptr;
    EXPECT_EQ(qfm_fcp_next(&context, &keyword, &value), 5);
    snprintf(expected, sizeof expected, "qfm_fcp: Bad context: %p %p (nil)\n",
             static_cast<void *>(&context), static_cast<void *>(out));
    EXPECT_EQ(log(), expected);
}

TEST_F(FimConfig, an_empty_pair_gives_3_and_quotes_the_rest_from_where_the_call_began) {
    Context context("a=1,,b=2");
    context.next();
    EXPECT_EQ(context.next(), "status 3");
    EXPECT_EQ(log(), "qfm_fcp: Empty pair: ',b=2'\n");
    EXPECT_EQ(context.rest(), "b=2");
}

TEST_F(FimConfig, runs_of_commas_are_skipped_where_empty_pairs_are_allowed) {
    Context context(",,a=1,,,b=2,,", {empty_pairs});
    EXPECT_EQ(context.next(), "a|1");
    EXPECT_EQ(context.next(), "b|2");
    EXPECT_EQ(context.next(), "end");
}

TEST_F(FimConfig, blanks_between_commas_are_no_pair_only_when_they_are_trimmed) {
    Context trimmed(" , ,a=1, , ", {empty_pairs, trim_blanks});
    EXPECT_EQ(trimmed.next(), "a|1");
    EXPECT_EQ(trimmed.next(), "end");
    Context plain(" ,a=1", {empty_pairs});
    EXPECT_EQ(plain.next(), "status 2");
}

TEST_F(FimConfig, a_trimmed_pair_of_blanks_is_empty) {
    Context context("a=1, \t ,b=2", {empty_value, trim_blanks});
    EXPECT_EQ(context.next(), "a|1");
    EXPECT_EQ(context.next(), "status 3");
    EXPECT_EQ(log(), "qfm_fcp: Empty pair: ' \t ,b=2'\n");
    EXPECT_EQ(context.next(), "b|2");
}

TEST_F(FimConfig, trimming_cuts_pair_keyword_and_value) {
    Context context(" a = 1 2 ,\tb\t=\n", {empty_value, trim_blanks});
    EXPECT_EQ(context.next(), "a|1 2");
    EXPECT_EQ(context.next(), "b|");
    EXPECT_EQ(context.next(), "end");
}

TEST_F(FimConfig, without_trimming_blanks_belong_to_keyword_and_value) {
    Context context(" a = 1 ");
    EXPECT_EQ(context.next(), " a | 1 ");
}

TEST_F(FimConfig, a_pair_without_an_equals_sign_gives_2) {
    Context context("a,b=1");
    EXPECT_EQ(context.next(), "status 2");
    EXPECT_EQ(log(), "qfm_fcp: Standalone keyword: 'a,b=1'\n");
    EXPECT_EQ(context.rest(), "b=1");
}

TEST_F(FimConfig, a_standalone_keyword_has_no_value_where_it_is_allowed) {
    Context context("a,b=1", {empty_value, standalone});
    EXPECT_EQ(context.next(), "a");
    EXPECT_EQ(context.next(), "b|1");
}

TEST_F(FimConfig, a_pair_without_a_keyword_gives_10) {
    Context context("=5");
    EXPECT_EQ(context.next(), "status 10");
    EXPECT_EQ(log(), "qfm_fcp: Missing keyword: '=5'\n");
    EXPECT_EQ(context.rest(), "");
}

TEST_F(FimConfig, a_keyword_of_blanks_is_missing_once_trimmed) {
    Context context(" =5,a=1", {empty_value, trim_blanks});
    EXPECT_EQ(context.next(), "status 10");
    EXPECT_EQ(log(), "qfm_fcp: Missing keyword: ' =5,a=1'\n");
    EXPECT_EQ(context.rest(), "a=1");
}

TEST_F(FimConfig, an_empty_value_gives_6_where_it_is_not_allowed) {
    Context context("a=,b=1", {});
    EXPECT_EQ(context.next(), "status 6");
    EXPECT_EQ(log(), "qfm_fcp: Empty value: 'a=,b=1'\n");
    EXPECT_EQ(context.rest(), "b=1");
}

TEST_F(FimConfig, a_missing_value_gives_6_where_it_is_not_allowed) {
    Context context("a", {standalone});
    EXPECT_EQ(context.next(), "status 6");
    EXPECT_EQ(log(), "qfm_fcp: Empty value: 'a'\n");
}

TEST_F(FimConfig, every_failing_allocation_of_a_pair_names_its_place) {
    const struct {
        const char *text;
        int allocation;
        int place;
    } cases[] = {{"a=1,b=2", 1, 559}, {"a=1", 1, 562}, {"a=1", 2, 592}, {"a=1", 3, 593}};
    for (const auto &one : cases) {
        Context context(one.text);
        test::fcp_lines().clear();
        test::fail_allocation(one.allocation);
        EXPECT_EQ(context.next(), "status 1");
        EXPECT_EQ(log(), "qfm_fcp: malloc() failure at ../qfm_fim_config." +
                             std::to_string(one.place) + "\n");
        test::no_more_faults();
        EXPECT_EQ(context.next(), strcmp(one.text, "a=1") == 0 ? "end" : "b|2");
    }
}

TEST_F(FimConfig, the_details_of_a_pair_are_logged_at_level_5_only) {
    set_level(4);
    Context quiet("a=1");
    quiet.next();
    EXPECT_EQ(log(), "");
    set_level(5);
    Context context(" a=1,b", {empty_value, trim_blanks});
    context.next();
    EXPECT_EQ(log(),
              "qfm_fcp:   cur_position:  a=1,b\n"
              "qfm_fcp: next pair: 'a=1'\n");
    test::fcp_lines().clear();
    context.next();
    context.next();
    EXPECT_EQ(log(),
              "qfm_fcp:   cur_position: b\n"
              "qfm_fcp: next pair: 'b'\n"
              "qfm_fcp: Standalone keyword: 'b'\n"
              "qfm_fcp:   cur_position: \n"
              "qfm_fcp: End of string, exit\n");
}

TEST_F(FimConfig, the_end_clears_what_the_pair_before_left) {
    Context context("");
    char left[] = "left";
    char *keyword = left, *value = left;
    EXPECT_EQ(qfm_fcp_next(&context.context, &keyword, &value), 0);
    EXPECT_EQ(keyword, nullptr);
    EXPECT_EQ(value, nullptr);
}

TEST_F(FimConfig, a_refused_pair_clears_what_the_pair_before_left) {
    Context context("=1");
    char left[] = "left";
    char *keyword = left, *value = left;
    EXPECT_EQ(qfm_fcp_next(&context.context, &keyword, &value), 10);
    EXPECT_EQ(keyword, nullptr);
    EXPECT_EQ(value, nullptr);
}

TEST_F(FimConfig, a_pair_is_shown_without_the_blanks_around_it) {
    set_level(5);
    Context context(" a=1 \t,b", {empty_value, trim_blanks});
    context.next();
    EXPECT_EQ(log(),
              "qfm_fcp:   cur_position:  a=1 \t,b\n"
              "qfm_fcp: next pair: 'a=1'\n");
}

std::string trimmed(std::string text) {
    trim(text.data());
    return text.c_str();
}

TEST(Trim, cuts_white_space_at_both_ends) {
    EXPECT_EQ(trimmed(" \t a b \n\v\f\r"), "a b");
    EXPECT_EQ(trimmed("a"), "a");
    EXPECT_EQ(trimmed(""), "");
    EXPECT_EQ(trimmed("a "), "a");
    EXPECT_EQ(trimmed(" a"), "a");
}

TEST(Trim, makes_a_text_of_white_space_empty) {
    EXPECT_EQ(trimmed(" \t\n"), "");
}

TEST(Trim, ignores_a_null_text) {
    trim(nullptr);
}

TEST(Trim, looks_at_nothing_before_an_empty_text) {
    char text[] = " \t\n";
    trim(text + 3);
    EXPECT_STREQ(text, " \t\n");
}

TEST(Trim, takes_bytes_above_127_for_what_they_are) {
    EXPECT_EQ(trimmed("\xe4 "), "\xe4");
}

}  // namespace
