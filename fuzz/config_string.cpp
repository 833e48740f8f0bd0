// The configuration string: against the freeze's own keywords, and against a table that has every
// kind of entry under options that the input chooses.
//
//     Input: one line of options (the digits of those that are set, of 0 to 5), then the string.
#include <cstring>
#include <iterator>

#include "fim_config/qfm_fim_config.h"
#include "fuzz/support/finding.h"
#include "fuzz/support/framework.h"
#include "fuzz/support/input.h"
#include "fuzz/support/machine.h"
#include "method/freeze.h"

using fuzz::finding;

namespace {

// The freeze's keywords. What they filled is in range, also after a string that was refused.
void try_freeze_keywords(const std::string &text) {
    const fuzz::Machine machine;
    fuzz::Framework framework;
    tf::HeapOwner<hdef> h(tf::make_zeroed<hdef>());
    fuzz::ExactText config(text);
    hdef *handle = nullptr;
    tf::Freeze freeze{config.get(), "/source", "/fifs", false, &handle};
    freeze.h = h.get();
    const int32_t status = tf::read_config(freeze);
    if (status != 0) framework.expect_report("read_config");
    if (status == 0 && framework.has_report()) finding("a good string was reported");
    if (h->async_resync < 0 || h->async_resync > 1) finding("async_resync %d", h->async_resync);
    if (h->sync_at_start < 0 || h->sync_at_start > 2) finding("sync_at_start %d", h->sync_at_start);
    if (h->max_snapshots < 0) finding("max_snapshots %d", h->max_snapshots);
    if (h->keep_fi != 0) finding("the record's own keep_fi was set");
    if (text.find(g_plexname) == std::string::npos && strcmp(g_plexname, "DEFAULT") != 0) {
        finding("a plex name that was not in the string");
    }
}

struct Values {
    char *text = nullptr, *flagged_text = nullptr;
    int32_t number = 7, flagged_number = 7, ranged = 7, flagged_ranged = 7, snapshots = 7;
    int64_t big = 7, flagged_big = 7, ranged_big = 7, flagged_ranged_big = 7;
    int32_t flags[5] = {};

    Values() = default;
    ~Values() {
        free(text);
        free(flagged_text);
    }
    Values(const Values &) = delete;
    Values &operator=(const Values &) = delete;
};

void add_entries(qfm_fcp_table *table, int32_t *status, Values &v) {
    qfm_fcp_string_new(table, status, "text", &v.text);
    qfm_fcp_string_flag_new(table, status, "flagged_text", &v.flagged_text, &v.flags[0]);
    qfm_fcp_int_new(table, status, "number", &v.number);
    qfm_fcp_int_flag_new(table, status, "flagged_number", &v.flagged_number, &v.flags[1]);
    qfm_fcp_int_range_new(table, status, "ranged", &v.ranged, -5, 10);
    qfm_fcp_int_range_flag_new(table, status, "flagged_ranged", &v.flagged_ranged, 3, 7,
                               &v.flags[2]);
    qfm_fcp_int_range_new(table, status, "max_snapshots", &v.snapshots, 1, 10);
    qfm_fcp_long_new(table, status, "big", &v.big);
    qfm_fcp_long_flag_new(table, status, "flagged_big", &v.flagged_big, &v.flags[3]);
    qfm_fcp_long_range_new(table, status, "ranged_big", &v.ranged_big, -9, INT64_MAX);
    qfm_fcp_long_range_flag_new(table, status, "flagged_ranged_big", &v.flagged_ranged_big,
                                INT64_MIN, 7, &v.flags[4]);
    // The second entry of a name is never reached.
    qfm_fcp_int_range_new(table, status, "number", &v.ranged, 100, 100);
}

bool in_range(int64_t value, int64_t min, int64_t max) {
    return min <= value && value <= max;
}

void expect_in_range(const Values &v) {
    if (!in_range(v.ranged, -5, 10)) finding("ranged is %d", v.ranged);
    if (!in_range(v.flagged_ranged, 3, 7)) finding("flagged_ranged is %d", v.flagged_ranged);
    if (!in_range(v.snapshots, 0, 10)) finding("max_snapshots is %d", v.snapshots);
    if (v.ranged_big < -9) finding("ranged_big is %ld", v.ranged_big);
    if (v.flagged_ranged_big > 7) finding("flagged_ranged_big is %ld", v.flagged_ranged_big);
}

void expect_status(int32_t status) {
    const bool known = in_range(status, 0, 8) && status != 5 && status != 1;
    if (!known && status != 10) finding("parse status %d", status);
}

// What was counted under a keyword that the string does not even contain is a finding.
void expect_given(const Values &v, const std::string &text) {
    static constexpr const char *keywords[] = {"flagged_text", "flagged_number", "flagged_ranged",
                                               "flagged_big", "flagged_ranged_big"};
    for (size_t i = 0; i < std::size(keywords); ++i) {
        if (v.flags[i] > 0 && strcasestr(text.c_str(), keywords[i]) == nullptr) {
            finding("%s was not given", keywords[i]);
        }
    }
    if (v.text != nullptr && strlen(v.text) > text.size()) finding("a text that was not given");
}

qfm_fcp_options options_of(const std::string &line) {
    const auto set = [&](char digit) { return line.find(digit) != std::string::npos ? 1 : 0; };
    return {set('0'), set('1'), set('2'), set('3'), set('4'), set('5')};
}

int32_t parse(const std::string &text, const qfm_fcp_options *options, Values &values) {
    int32_t status = 0;
    qfm_fcp_table *const table = qfm_fcp_table_new(&status);
    add_entries(table, &status, values);
    if (status != 0) finding("the table was refused: %d", status);
    fuzz::ExactText config(text);
    status = qfm_fcp_parse(config.get(), options, table);
    if (strcmp(config.get(), text.c_str()) != 0) finding("the caller's string was changed");
    if (qfm_fcp_table_delete(table) != 0) finding("the table cannot be deleted");
    return status;
}

void try_every_entry(const std::string &options_line, const std::string &text) {
    const fuzz::Machine machine;
    const fuzz::Framework framework;
    const qfm_fcp_options options = options_of(options_line);
    Values values;
    const int32_t status = parse(text, options_line.empty() ? nullptr : &options, values);
    expect_status(status);
    expect_in_range(values);
    expect_given(values, text);
    if (framework.has_report()) finding("the parser reported to the framework");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text = fuzz::text_of(data, size);
    const std::string options = fuzz::take_line_off(text);
    text = text.c_str();
    try_freeze_keywords(text);
    try_every_entry(options, text);
    return 0;
}
