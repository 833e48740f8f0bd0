// The framework's part in a run: where failures are reported, where the log goes, and the state
// that a process of the method keeps.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "include/timefinder.h"

namespace fuzz {

// A process that has loaded the method and has nothing frozen. The buffers are blocks of their own,
// so that a byte written behind one is seen. It lives inside a Machine: what the method gives back
// at the end deletes files.
class Framework {
  public:
    // The log level is the highest, so that every line is formatted.
    Framework();
    // Takes back whatever the method keeps for the life of a process.
    ~Framework();
    Framework(const Framework &) = delete;
    Framework &operator=(const Framework &) = delete;

    // Forgets the last failure.
    void forget();
    // After a failure: an error number of the table and a message in both buffers, or a finding
    // that names the call.
    void expect_report(const char *call) const;
    bool has_report() const { return *number_ != no_number; }
    int32_t number() const { return *number_; }

    // Sees every line of the log.
    static std::function<void(const char *)> on_log_line;

  private:
    static constexpr int32_t no_number = -77;
    std::unique_ptr<int32_t> number_;
    std::unique_ptr<char[]> errmsg_, logmsg_;
};

// Sets the method back to what it is in a fresh process, records and caches freed.
void forget_process_state();
// A finding unless a fixed buffer ends before its last byte.
void expect_terminated(const char *what, const char *text, size_t size);

}  // namespace fuzz
