#include "proof/kit/faulted_run.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <set>
#include <sstream>
#include <stdexcept>

#include "proof/kit/agent.h"
#include "proof/kit/processes.h"
#include "proof/kit/scenario_parts.h"

namespace proof {
namespace {

namespace fs = std::filesystem;
using test::Call;
using test::Phase;

constexpr double record_limit = 60;
constexpr char lock_files[] = "/usr/quill/tessera/online_util/db_cntl";
// The states of the pairs in the array's order, on one line.
constexpr char list_pairs[] =
    "tfarray show --json | tr ',{}' '\\n\\n\\n' | sed -n 's/^ *\"state\": *//p' | tr '\\n' ' ' |"
    " sed 's/ $//'";

const SiteNames &site_names() {
    static const SiteNames names(TF_BINARY_DIR "/lib/libtimefinder_fim.so",
                                 TF_BINARY_DIR "/lib/libtessera_host.so");
    return names;
}

Site read_site(const std::string &line) {
    std::istringstream in(line);
    std::string word, kind, offsets;
    Site site;
    in >> word >> site.key >> site.calls >> kind >> site.function >> offsets;
    std::vector<uint64_t> numbers;
    std::istringstream list(offsets);
    for (std::string one; std::getline(list, one, ',');) {
        numbers.push_back(std::stoull(one, nullptr, 16));
    }
    site.name = site_names().name(kind, site.function, numbers);
    return site;
}

bool succeeded(const Phase &phase) {
    if (phase.status != 0) return false;
    for (const Call &call : phase.calls) {
        if (call.status != 0) return false;
    }
    return true;
}

std::string told(const Phase &phase) {
    std::string text = "status " + std::to_string(phase.status) + " " + phase.output;
    for (const Call &call : phase.calls) {
        text += "; " + call.step + " " + std::to_string(call.status);
        if (!call.errmsg.empty()) text += " (" + call.errmsg + ")";
    }
    return text;
}

// The lines that only one of two pictures has.
std::string difference(const std::string &before, const std::string &after) {
    std::multiset<std::string> missing, added;
    std::istringstream first(before), second(after);
    for (std::string line; std::getline(first, line);) missing.insert(line);
    for (std::string line; std::getline(second, line);) {
        const auto found = missing.find(line);
        if (found == missing.end())
            added.insert(line);
        else
            missing.erase(found);
    }
    std::string text;
    for (const std::string &line : missing) text += "\n- " + line;
    for (const std::string &line : added) text += "\n+ " + line;
    return text.empty() ? "\nthe same lines in another order" : text;
}

}  // namespace

std::string Plan::text() const {
    return kind + " " + fate + " " + std::to_string(value) + " " + word + " " +
           std::to_string(call) + " " + scope + " " + (site.key.empty() ? "any" : site.key);
}

std::string Outcome::line() const {
    std::string text;
    for (const Call &call : faulted.calls) {
        if (!text.empty()) text += "; ";
        text += call.step + " " + std::to_string(call.status);
        if (call.status == 0 && call.number < 0) continue;
        text += " " + std::to_string(call.number) + " " + message_id(call.errmsg) + " " +
                message_id(call.logmsg);
    }
    for (const std::string &note : notes) {
        if (note == "waits") text += (text.empty() ? "" : "; ") + note;
    }
    return text + " | " + left;
}

Bench::Bench(const Scenario &scenario, std::string kind)
    : scenario_(scenario), kind_(std::move(kind)) {}

Bench::~Bench() = default;

test::LabWorld &Bench::world() {
    if (world_ != nullptr) return *world_;
    world_ = std::make_unique<test::LabWorld>(scenario_.world, scenario_.hosts);
    world_->start();
    install_agent(*world_);
    install_process_list(*world_);
    run_lines(scenario_.prepare);
    settle();
    before_ = whole_picture();
    return *world_;
}

void Bench::renew() {
    world_.reset();
}

void Bench::run_lines(const Words &lines) {
    std::string all = "set -e";
    for (const std::string &line : lines) all += "\n" + line;
    if (!lines.empty()) world_->host(all);
}

void Bench::settle() {
    // The captures of commands that failed stay, for the administrator of the host.
    for (size_t i = scenario_.hosts.size(); i-- > 0;) {
        world_->on(scenario_.hosts[i]);
        world_->host(part::remove_captures);
    }
    run_lines(scenario_.settle);
}

// Everything in as few processes as there are hosts, since it is looked at after every point.
std::string Bench::whole_picture() {
    std::string text = world_->loops();
    for (size_t i = scenario_.hosts.size(); i-- > 0;) {
        world_->on(scenario_.hosts[i]);
        std::string line = "set -e\nsort /proc/self/mounts\nls -A /tmp\ncd " +
                           std::string(lock_files) + " 2>/dev/null && ls -A || true\ncd /\n" +
                           list_processes + " 500 || true\n";
        if (i == 0) {
            for (const std::string &content : scenario_.content) line += content + "\n";
            line += "tfarray check >/tmp/check || { cat /tmp/check; exit 1; }\nrm /tmp/check\n" +
                    std::string(list_pairs);
        }
        text += "host " + scenario_.hosts[i] + "\n" + world_->host(line);
    }
    return text;
}

Phase Bench::process(size_t number, const Words &environment, double limit, bool *done) {
    const Process &one = scenario_.processes[number];
    world().on(one.host);
    run_lines(one.before);
    forget_agent_lines(*world_);
    Phase phase = world_->try_phase(one.steps, limit, 2, environment);
    bool right = succeeded(phase);
    try {
        if (right) run_lines(one.after);
    } catch (const std::runtime_error &) {
        if (done == nullptr) throw;
        right = false;
    }
    if (done != nullptr) *done = right;
    return phase;
}

// After a first round, since pairs that were never joined have more to do than those that were.
void Bench::record() {
    world();
    for (size_t i = 0; i < scenario_.processes.size(); ++i) {
        if (const Phase phase = process(i, {}, record_limit); !succeeded(phase))
            throw std::runtime_error(scenario_.name + " fails without a fault: " + told(phase));
    }
    settle();
    const auto begin = std::chrono::steady_clock::now();
    for (size_t i = 0; i < scenario_.processes.size(); ++i) {
        const Phase phase = process(i, agent_environment("record " + kind_), record_limit);
        const auto lines = agent_lines(*world_);
        const auto wrong = wrong_at_the_end(lines, phase.status);
        if (!succeeded(phase) || !wrong.empty()) {
            throw std::runtime_error(scenario_.name + "/" + scenario_.processes[i].name +
                                     " fails without a fault: " + told(phase) +
                                     (wrong.empty() ? "" : "; " + wrong.front()));
        }
        without_fault_.push_back(phase);
        sites_.emplace_back();
        for (const std::string &line : lines) {
            if (line.starts_with("site ")) sites_.back().push_back(read_site(line));
        }
    }
    seconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    settle();
    if (const std::string after = whole_picture(); after != before_) {
        throw std::runtime_error(
            scenario_.name + " changes its world without a fault:" + difference(before_, after));
    }
}

const std::vector<Site> &Bench::sites(size_t process) {
    if (sites_.empty()) record();
    return sites_.at(process);
}

const Phase &Bench::without_fault(size_t process) {
    if (sites_.empty()) record();
    return without_fault_.at(process);
}

void Bench::run_before(size_t number) {
    world();
    for (size_t i = 0; i < number; ++i) {
        if (const Phase before = process(i, {}, record_limit); !succeeded(before)) {
            throw std::runtime_error("before the fault: " + told(before));
        }
    }
}

Outcome Bench::run_in(size_t number, const Words &environment) {
    Outcome outcome;
    run_before(number);
    Words with_agent = agent_environment(only_records);
    with_agent.insert(with_agent.end(), environment.begin(), environment.end());
    outcome.faulted = process(number, with_agent, Checks().limit, &outcome.done);
    outcome.fired = true;
    outcome.notes = agent_lines(*world_);
    look({}, {}, &outcome);
    finish(number, {}, &outcome);
    if (!outcome.wrong.empty()) renew();
    return outcome;
}

Outcome Bench::run(size_t number, const Plan &plan, const Checks &checks) {
    Outcome outcome;
    run_before(number);
    outcome.faulted = process(number, agent_environment(plan.text()), checks.limit, &outcome.done);
    for (const std::string &line : agent_lines(*world_)) {
        outcome.fired = outcome.fired || line.starts_with("met ");
        if (!line.starts_with("site ")) outcome.notes.push_back(line);
    }
    look(plan, checks, &outcome);
    finish(number, checks.repair, &outcome);
    if (!outcome.wrong.empty()) renew();
    return outcome;
}

// What the faulted process itself has to hold to.
void Bench::look(const Plan &plan, const Checks &checks, Outcome *outcome) {
    const Phase &faulted = outcome->faulted;
    const bool ended_by_agent =
        checks.may_be_killed || plan.fate.starts_with("kill") ||
        std::find(outcome->notes.begin(), outcome->notes.end(), "waits") != outcome->notes.end();
    if (!outcome->fired) outcome->wrong.push_back("the call was not reached");
    if (faulted.status > 128) outcome->killed_by = faulted.status - 128;
    if (faulted.status != 0 && !(ended_by_agent && outcome->killed_by == SIGKILL)) {
        outcome->wrong.push_back("the process ended with " + told(faulted));
    }
    for (const std::string &what : wrong_at_the_end(outcome->notes, faulted.status)) {
        outcome->wrong.push_back(what);
    }
    for (const Call &call : faulted.calls) {
        for (const std::string &what : call.changed) {
            outcome->wrong.push_back(call.step + " changed " + what);
        }
        // A failed unmount is told by the status alone.
        const bool may_be_silent = call.step == "thaw" || call.step == "thaw_commit";
        const bool silent = call.errmsg.empty() && !may_be_silent;
        if (call.status != 0 && (silent || call.errmsg != call.logmsg)) {
            outcome->wrong.push_back(call.step + " failed with the messages \"" + call.errmsg +
                                     "\" and \"" + call.logmsg + "\"");
        }
    }
    world_->on(scenario_.processes.front().host);
    outcome->left = world_->host("printf 'pairs %s; locks %s; captures %s; mounts %s' \"$(" +
                                 std::string(list_pairs) + ")\" $(ls -A " + lock_files +
                                 " 2>/dev/null | wc -l) $(ls -A /tmp | wc -l)" +
                                 " $(grep -c ' /copy' /proc/self/mounts)");
    if (succeeded(faulted) && !outcome->done) outcome->left += "; nothing done";
}

// The same again without a fault unless it succeeded all the same, the rest, and the world as it
// was.
void Bench::finish(size_t number, const Words &repair, Outcome *outcome) {
    const size_t first = outcome->done ? number + 1 : number;
    for (size_t i = first; i < scenario_.processes.size(); ++i) {
        if (i == number) {
            world_->on(scenario_.processes[i].host);
            run_lines(repair);
            run_lines(scenario_.processes[i].repair);
        }
        const Phase again = process(i, {}, record_limit);
        if (succeeded(again)) continue;
        outcome->wrong.push_back(scenario_.processes[i].name +
                                 (i == number ? " again" : " after it") + ": " + told(again));
        return;
    }
    settle();
    if (const std::string after = whole_picture(); after != before_) {
        outcome->wrong.push_back("the world is another one:" + difference(before_, after));
    }
}

}  // namespace proof
