// The method: the shared library, reached through its twelve entry points and nothing else.
//
// The library keeps flags that are set once for a process ("committed", "session opened"), so every
// phase of a snapshot loads it in a process of its own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "include/timefinder.h"

namespace fimctl {

// How the message of a method that gave none begins.
inline constexpr char no_method_message[] = "the method gave no message, only status ";

class Method {
  public:
    // Loads the library, finds all entry points, and hands it the error slot, the message buffers
    // and the log sink. Throws Failure.
    explicit Method(const std::string &library);
    Method(const Method &) = delete;
    Method &operator=(const Method &) = delete;
    // The library stays loaded: what the framework holds of it ends with the process.
    ~Method() { speaking_ = nullptr; }

    // Each answers true when the entry point returned 0. handle is set by freeze and rebuild also
    // when they fail, as the entry points do.
    bool freeze(const std::string &config, const std::string &source, const std::string &fifs,
                hdef **handle);
    bool control(hdef *handle, int32_t code);
    bool freeze_commit(hdef *handle);
    bool checkpoint(hdef *handle, std::string &text);
    bool rebuild(const std::string &text, hdef **handle);
    bool volumes(hdef *handle, std::string &path);
    bool thaw(hdef *handle);
    bool thaw_commit(hdef *handle);

    // Of the last call that failed.
    int number() const { return number_; }
    std::string message() const;
    // The messages that this call reported before that one, "" for none: the method goes on after
    // some failures, and ends with another one's message.
    std::string earlier() const;

  private:
    static void hear(const char *line);
    void start_call();
    bool ended(int32_t status);

    struct Entries {
        decltype(&TimeFinder_init) init;
        decltype(&TimeFinder_query) query;
        decltype(&TimeFinder_set_locale) set_locale;
        decltype(&TimeFinder_set_logf) set_logf;
        decltype(&TimeFinder_freeze) freeze;
        decltype(&TimeFinder_freeze_commit) freeze_commit;
        decltype(&TimeFinder_ctl) ctl;
        decltype(&TimeFinder_thaw) thaw;
        decltype(&TimeFinder_thaw_commit) thaw_commit;
        decltype(&TimeFinder_ckpt) ckpt;
        decltype(&TimeFinder_rebuild) rebuild;
        decltype(&TimeFinder_volumes) volumes;
    } entries_ = {};
    static Method *speaking_;            // there is one in a process
    std::vector<std::string> reported_;  // by this call
    int32_t status_ = 0;
    int32_t number_ = 0;
    char log_message_[TF_MESSAGE_SIZE] = "";
    char user_message_[TF_MESSAGE_SIZE] = "";
};

}  // namespace fimctl
