// What the process of a framework can be like when it calls: the worst that is still its own
// business. TFPHASE_SURROUNDINGS names one; without it a process is an ordinary one.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <csignal>
#include <functional>
#include <string>
#include <vector>

namespace phase {

// All names, in an order of their own.
const std::vector<std::string> &surroundings_names();

class Surroundings {
  public:
    // Those of the environment; an unknown name ends the process.
    Surroundings();
    bool ordinary() const { return name_.empty(); }

    // Around a call: first what a library might change is made odd; then the limits are set, in
    // which nothing but the call itself runs; and back again.
    void enter();
    void call(const std::function<void()> &entry_point);
    void leave();

    // Called with each line of the log: prints it, as a framework might, wherever a standard stream
    // ought to be. Anything that takes it there was opened by the library by chance.
    void print(const char *line);
    bool printed_into_a_file() const { return printed_; }

  private:
    bool is(const char *name) const { return name_ == name; }
    void close_streams(int first, int last);
    void break_streams();
    void enter_other_locale();
    void open_descriptors(int last);
    void set_limit(__rlimit_resource_t resource, rlim_t value);

    std::string name_;
    struct sigaction child_action_ = {};
    sigset_t signals_ = {};
    mode_t umask_ = 0;
    int directory_ = -1;
    char **environment_ = nullptr;
    std::vector<char *> other_environment_;
    std::string locale_;
    std::vector<int> descriptors_;
    int streams_[3] = {-1, -1, -1};
    bool printed_ = false;
};

}  // namespace phase
