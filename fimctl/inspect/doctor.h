// What this host has for taking snapshots, and what it lacks: one finding a question.
#pragma once

#include <string>
#include <vector>

#include "fimctl/cycle.h"

namespace fimctl {

enum class Verdict {
    ok,
    warn,  // some snapshots cannot be taken, or something is not as it should be
    fail   // no snapshot can be taken
};

struct Finding {
    Verdict verdict;
    std::string subject, text;
    std::string remedy;  // "" for ok
};

class Findings {
  public:
    void ok(const std::string &subject, const std::string &text);
    void warn(const std::string &subject, const std::string &text, const std::string &remedy);
    void fail(const std::string &subject, const std::string &text, const std::string &remedy);

    const std::vector<Finding> &all() const { return all_; }
    Verdict worst() const;

  private:
    std::vector<Finding> all_;
};

// Nothing is changed; the libraries are loaded in processes of their own. client: the alternate
// backup host whose configuration entries are looked up as well, "" for none.
Findings examine(const Settings &settings, const std::string &client);

std::string examination_report(const Findings &findings, bool json);

// Its parts, in their order.
void examine_method(const Settings &settings, const std::string &client, Findings &findings);
void examine_array(const Settings &settings, Findings &findings);
void examine_tools(Findings &findings);
void examine_folders(const Settings &settings, Findings &findings);
void examine_hooks(const Settings &settings, Findings &findings);
void examine_mount_table(Findings &findings);

}  // namespace fimctl
