// The configuration parser as it is exported: a table with an integer "a", a text "b", an integer
// "c" from 0 to 10 whose occurrences are counted, a long integer "d", and "max_snapshots" from 1
// to 10. Numbers hold 77 before. Options are six digits: empty pairs, empty values, standalone
// keywords, trimmed blanks, rejected keywords, case; without them the defaults are 010000.
#include "conformance/contract.h"

namespace conformance {
namespace {

class Parser : public Contract {
  protected:
    const Call &parsed(const std::string &text, const std::string &options = "null") {
        seen_ = run({"parse", options, text});
        return seen_.at("parse");
    }

  private:
    Phase seen_;
};

void gives(const Call &call, int status, const Words &fields) {
    is("status", status, call.status);
    for (const std::string &field : fields) {
        const size_t equals = field.find('=');
        field_is(call, field.substr(0, equals), field.substr(equals + 1));
    }
}

TEST_F(Parser, stores_numbers_texts_and_long_numbers_by_their_keywords) {
    contract("parser: a=1,b=x against such a table sets a to 1 and b to x; status 0");
    gives(parsed("a=1,b=x,d=9223372036854775807"), 0, {"a=1", "b=x", "d=9223372036854775807"});
}

TEST_F(Parser, gives_a_value_all_that_follows_the_first_equals_sign) {
    contract("parser: the pair b=c=d gives the keyword b and the value c=d");
    gives(parsed("b=c=d"), 0, {"b=c=d"});
}

TEST_F(Parser, keeps_what_stands_before_the_pair_that_fails) {
    contract("parser: values already stored in earlier targets stay stored");
    gives(parsed("a=1,,b=2"), 3, {"a=1", "b="});
}

TEST_F(Parser, counts_a_keyword_before_it_looks_at_its_value) {
    contract("parser: the flag is incremented before the value is checked");
    gives(parsed("c=1,c=2,c=99"), 8, {"counted=3", "c=2"});
}

TEST_F(Parser, takes_both_edges_of_a_range_and_nothing_beyond) {
    contract("parser: min <= number <= max, otherwise status 8");
    gives(parsed("c=0"), 0, {"c=0"});
    gives(parsed("c=10"), 0, {"c=10"});
    gives(parsed("c=11"), 8, {"c=77"});
    gives(parsed("c=-1"), 8, {"c=77"});
}

TEST_F(Parser, takes_max_snapshots_0_below_its_range_when_it_is_written_so) {
    contract("parser: max_snapshots=0 passes a range above 0, by its exact spelling");
    gives(parsed("max_snapshots=0"), 0, {"max_snapshots=0"});
    gives(parsed("MAX_SNAPSHOTS=0"), 8, {"max_snapshots=77"});
    gives(parsed("max_snapshots=11"), 8, {"max_snapshots=77"});
}

TEST_F(Parser, reads_an_absent_string_as_an_empty_one) {
    contract("parser: an empty or null string returns 0 and stores nothing");
    gives(parsed("null"), 0, {"a=77", "b=", "counted=0"});
    gives(parsed(""), 0, {"a=77", "b=", "counted=0"});
}

TEST_F(Parser, skips_runs_of_commas_when_empty_pairs_are_allowed) {
    contract("parser: option 0");
    gives(parsed(",,a=1,,,b=x,,", "110000"), 0, {"a=1", "b=x"});
}

TEST_F(Parser, refuses_an_empty_value_with_6_when_they_are_not_allowed) {
    contract("parser: option 1");
    gives(parsed("a=", "000000"), 6, {"a=77"});
    gives(parsed("b=", "000000"), 6, {"b="});
}

TEST_F(Parser, counts_a_standalone_keyword_and_stores_nothing_when_they_are_allowed) {
    contract("parser: option 2; a null value is 0 when empty values are allowed, else 6");
    gives(parsed("c", "011000"), 0, {"counted=1", "c=77"});
    gives(parsed("c", "001000"), 6, {"c=77"});
}

TEST_F(Parser, trims_white_space_around_pairs_keywords_and_values_when_told_to) {
    contract("parser: option 3");
    gives(parsed(" \t a = 5 ,\n b = x y ", "010100"), 0, {"a=5", "b=x y"});
}

TEST_F(Parser, rejects_an_unknown_keyword_with_7_when_told_to) {
    contract("parser: option 4");
    gives(parsed("a=1,z=1", "010010"), 7, {"a=1"});
}

TEST_F(Parser, keeps_upper_and_lower_case_apart_when_told_to) {
    contract("parser: option 5");
    gives(parsed("A=5,a=6", "010001"), 0, {"a=6"});
    gives(parsed("A=5", "010001"), 0, {"a=77"});
}

}  // namespace
}  // namespace conformance
