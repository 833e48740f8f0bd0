// Scripted faults, sessions and the table of codes.
#include <gtest/gtest.h>

#include <set>

#include "include/symapi.h"
#include "lab/array/model/faults.h"
#include "lab/array/model/sessions.h"

namespace {

using lab::Fault;
using lab::Faults;
using lab::Verdict;
namespace code = lab::code;

Fault a_fault(const char *function, int64_t at) {
    Fault fault;
    fault.function = function;
    fault.at = at;
    fault.code = 77;
    return fault;
}

class AFault : public testing::Test {
  protected:
    Verdict ask(const char *function = "SymPdevShow", const char *host = "client1",
                const std::vector<std::string> &devices = {}) {
        return faults.ask(function, host, devices, &counted);
    }
    Faults faults;
    bool counted = false;
};

TEST_F(AFault, plays_at_its_call_and_only_there) {
    faults.add(a_fault("SymPdevShow", 2));
    EXPECT_EQ(ask().before, 0);
    EXPECT_EQ(ask().before, 77);
    EXPECT_EQ(ask().before, 0);
    EXPECT_EQ(faults.all()[0].seen, 3);
}

TEST_F(AFault, for_good_plays_from_its_call_on) {
    Fault fault = a_fault("SymPdevShow", 2);
    fault.for_good = true;
    faults.add(fault);
    EXPECT_EQ(ask().before, 0);
    EXPECT_EQ(ask().before, 77);
    EXPECT_EQ(ask().before, 77);
}

TEST_F(AFault, after_the_effect_leaves_the_call_alone) {
    Fault fault = a_fault("SymPdevShow", 1);
    fault.after = true;
    faults.add(fault);
    const Verdict verdict = ask();
    EXPECT_EQ(verdict.before, 0);
    EXPECT_EQ(verdict.after, 77);
}

TEST_F(AFault, with_a_delay_alone_fails_nothing) {
    Fault fault = a_fault("SymPdevShow", 1);
    fault.code = 0;
    fault.delay_ms = 30;
    faults.add(fault);
    const Verdict verdict = ask();
    EXPECT_EQ(verdict.before, 0);
    EXPECT_EQ(verdict.delay_ms, 30);
    EXPECT_EQ(ask().delay_ms, 0);
}

TEST_F(AFault, counts_only_calls_of_its_function_its_device_and_its_host) {
    Fault fault = a_fault("SymDevListBcvControl", 1);
    fault.device = "00A2";
    fault.host = "client1";
    faults.add(fault);
    EXPECT_EQ(ask("SymPdevShow", "client1", {"00A2"}).before, 0);
    EXPECT_EQ(ask("SymDevListBcvControl", "client2", {"00A2"}).before, 0);
    EXPECT_EQ(ask("SymDevListBcvControl", "client1", {"00A1", "01A1"}).before, 0);
    EXPECT_FALSE(counted);
    EXPECT_EQ(ask("SymDevListBcvControl", "client1", {"00A1", "01A1", "00A2", "01A2"}).before, 77);
    EXPECT_TRUE(counted);
}

TEST_F(AFault, of_two_the_first_gives_the_code_and_the_delays_add_up) {
    Fault first = a_fault("SymPdevShow", 1), second = a_fault("SymPdevShow", 1);
    first.delay_ms = 10;
    second.delay_ms = 5;
    second.code = 78;
    faults.add(first);
    faults.add(second);
    const Verdict verdict = ask();
    EXPECT_EQ(verdict.before, 77);
    EXPECT_EQ(verdict.delay_ms, 15);
}

TEST_F(AFault, is_forgotten_by_its_number_or_with_all_others) {
    const int64_t first = faults.add(a_fault("SymPdevShow", 1));
    faults.add(a_fault("SymExit", 1));
    EXPECT_TRUE(faults.clear(first));
    EXPECT_FALSE(faults.clear(first));
    EXPECT_EQ(faults.all().size(), 1u);
    EXPECT_TRUE(faults.clear(0));
    EXPECT_TRUE(faults.all().empty());
}

TEST_F(AFault, that_says_nothing_is_refused) {
    EXPECT_THROW(faults.add(a_fault("", 1)), lab::Refused);
    EXPECT_THROW(faults.add(a_fault("SymExit", 0)), lab::Refused);
    Fault nothing = a_fault("SymExit", 1);
    nothing.code = 0;
    EXPECT_THROW(faults.add(nothing), lab::Refused);
}

TEST(Sessions, a_closed_handle_is_told_from_one_that_never_was) {
    lab::Sessions sessions(5);
    const int32_t handle = sessions.open("client1", "db", 1);
    EXPECT_EQ(handle, 5);
    EXPECT_EQ(sessions.use(handle, "client1", 1, nullptr), code::ok);
    sessions.close(handle);
    EXPECT_EQ(sessions.use(handle, "client1", 1, nullptr), code::session_closed);
    EXPECT_EQ(sessions.use(handle + 1, "client1", 1, nullptr), code::session_unknown);
    EXPECT_EQ(sessions.use(-1, "client1", 1, nullptr), code::session_unknown);
    EXPECT_EQ(sessions.use(3, "client1", 1, nullptr),
              code::session_closed);  // of an earlier daemon
}

TEST(Sessions, one_host_cannot_use_the_session_of_another) {
    lab::Sessions sessions(1);
    const int32_t handle = sessions.open("client1", "db", 1);
    EXPECT_EQ(sessions.use(handle, "client2", 2, nullptr), code::session_unknown);
}

TEST(Sessions, live_as_long_as_a_connection_that_used_them) {
    lab::Sessions sessions(1);
    const int32_t handle = sessions.open("client1", "db", 1);
    EXPECT_EQ(sessions.use(handle, "client1", 2, nullptr), code::ok);  // a child of the process
    sessions.connection_ended(1);
    EXPECT_EQ(sessions.use(handle, "client1", 2, nullptr), code::ok);
    sessions.connection_ended(2);
    EXPECT_EQ(sessions.use(handle, "client1", 3, nullptr), code::session_closed);
}

TEST(Codes, have_numbers_symbols_and_texts_of_their_own) {
    std::set<int> numbers;
    std::set<std::string> symbols, texts;
#define LAB_CODE(number, name, symbol, text)                                                       \
    EXPECT_TRUE(                                                                                   \
        numbers.insert(number).second &&symbols.insert(symbol).second &&texts.insert(text).second) \
        << #name;                                                                                  \
    EXPECT_STREQ(lab::code_text(number), text);                                                    \
    EXPECT_STREQ(lab::code_symbol(number), symbol);
#include "lab/array/model/codes.def"
#undef LAB_CODE
    // 14 is what a caller answers itself when its library lacks a function.
    EXPECT_FALSE(numbers.contains(14));
    EXPECT_TRUE(numbers.contains(SYM_SPLIT_IN_BACKGROUND));
    EXPECT_TRUE(numbers.contains(SYM_SPLIT_IN_BACKGROUND_TOO));
}

TEST(Codes, an_unknown_one_has_a_text_too) {
    EXPECT_STREQ(lab::code_text(-3), "The array has no text for this code");
    EXPECT_STREQ(lab::code_symbol(999999), "ARRAY_CODE_UNKNOWN");
}

}  // namespace
