#include "fuzz/support/framework.h"

#include <cstring>

#include "fuzz/support/finding.h"
#include "method/freeze.h"
#include "method/freeze_commit.h"
#include "method/interface.h"
#include "method/mount_lookup.h"
#include "method/pair_index.h"
#include "method/rebuild.h"
#include "method/records.h"
#include "method/thaw_commit.h"
#include "symapi/symapi_session.h"

namespace fuzz {
namespace {

// The configuration parser's own messages go to the same sink, uncut.
constexpr size_t longest_line = 2047;

// Reads the whole line, so that one without an end is seen.
void take_line(const char *line) {
    const size_t length = strlen(line);
    if (length > longest_line) finding("a log line of %zu characters", length);
    if (Framework::on_log_line) Framework::on_log_line(line);
}

constexpr int highest_level = 5;

bool is_error_number(int32_t number) {
    return number == 1 || number == 3 || number == 4 || (number >= 7 && number <= 13);
}

}  // namespace

std::function<void(const char *)> Framework::on_log_line;

Framework::Framework()
    : number_(new int32_t(no_number)),
      errmsg_(new char[TF_MESSAGE_SIZE]()),
      logmsg_(new char[TF_MESSAGE_SIZE]()) {
    forget_process_state();
    TimeFinder_init(number_.get(), logmsg_.get(), errmsg_.get());
    TimeFinder_set_logf(&take_line, highest_level);
}

Framework::~Framework() {
    TimeFinder_set_logf(nullptr, -1);
    TimeFinder_init(nullptr, nullptr, nullptr);
    on_log_line = nullptr;
    forget_process_state();
}

void Framework::forget() {
    *number_ = no_number;
    errmsg_[0] = logmsg_[0] = '\0';
}

void Framework::expect_report(const char *call) const {
    if (!is_error_number(*number_)) finding("%s failed with error number %d", call, *number_);
    expect_terminated("errmsg", errmsg_.get(), TF_MESSAGE_SIZE);
    expect_terminated("logmsg", logmsg_.get(), TF_MESSAGE_SIZE);
    if (errmsg_[0] == '\0' || logmsg_[0] == '\0') finding("%s failed without a message", call);
}

void forget_process_state() {
    static char default_plexname[] = "DEFAULT";
    tf::free_all_records();
    tf::free_failed_rebuilds();
    tf::clear_mount_cache();
    tf::clear_pairs();
    g_plexname = default_plexname;
    resolve_symapi = 1;
    emc_clients = client_count = total_freeze_volumes = thaw_commit_vols = freeze_commit_done = 0;
}

void expect_terminated(const char *what, const char *text, size_t size) {
    if (strnlen(text, size) == size) finding("%s has no end", what);
}

}  // namespace fuzz
