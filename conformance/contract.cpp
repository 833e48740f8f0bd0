#include "conformance/contract.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <thread>

namespace conformance {

namespace fs = std::filesystem;

std::string library;

namespace {

// Real seconds after which a process is killed.
constexpr double patience = 60;
constexpr char installed[] = "/usr/quill/tessera/lib/libtimefinder_fim.so";

struct Kept {
    std::unique_ptr<LabWorld> world;
    std::string state;  // of the world as every case finds it
    bool furnished = false;
};

std::map<std::string, Kept> &worlds() {
    static std::map<std::string, Kept> all;
    return all;
}

// A world says, too, when a loop device was left in it.
void end_world(const std::string &scenario) {
    const auto kept = worlds().extract(scenario);
    kept.mapped().world->stop();
}

// Leaves the child to be waited for.
bool ends_in_time(pid_t child) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(patience);
    for (siginfo_t ended = {}; std::chrono::steady_clock::now() < deadline;) {
        if (waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT) != 0)
            return true;
        if (ended.si_pid == child) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

// What a red case shows of a text: of two long ones, the lines that differ.
std::string part_to_show(const std::string &text, const std::string &other) {
    std::string shown;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (("\n" + other + "\n").find("\n" + line + "\n") == std::string::npos)
            shown += (shown.empty() ? "" : "\n          ") + line;
    }
    if (shown.empty()) shown = text;
    return shown.size() <= 1200 ? shown : shown.substr(0, 1200) + "... (cut)";
}

std::string joined(const Words &lines) {
    std::string text;
    for (const std::string &line : lines) text += "\n    " + line;
    return lines.empty() ? " nothing" : text;
}

}  // namespace

void close_worlds() {
    while (!worlds().empty()) end_world(worlds().begin()->first);
}

void Contract::contract(const std::string &text) {
    RecordProperty("contract", text);
}

void Contract::furnish() {
    world().mount_source();
    world().synchronise();
}

std::string Contract::state() {
    constexpr char between[] = "\n----\n";
    constexpr char of_host[] =
        "cd /usr/quill/tessera/online_util/db_cntl && for f in *; do [ ! -e \"$f\" ] ||"
        " ls -ld --time-style=+ $f; [ ! -f $f ] || od -An -tx1 $f; done;"
        " cat /proc/self/mounts; ls -A /tmp";
    world_->on(hosts_.front());
    const std::string seen = host(std::string("tfarray clock advance 60 >/dev/null;"
                                              " tfarray show --json; printf '\\n----\\n'; ") +
                                  of_host);
    const size_t end = seen.find(between);
    std::string text;
    const auto shown = nlohmann::json::parse(seen.substr(0, end), nullptr, false);
    for (const auto &one : shown["arrays"]) {
        for (const auto &pair : one["pairs"])
            text += "pair " + pair["bcv"].get<std::string>() + " " + pair["state"].dump() + "\n";
    }
    text += hosts_.front() + seen.substr(end);
    for (size_t i = 1; i < hosts_.size(); ++i) {
        world_->on(hosts_[i]);
        text += hosts_[i] + between + host(of_host);
    }
    world_->on(hosts_.front());
    return text;
}

void Contract::SetUp() {
    Kept &kept = worlds()[scenario_];
    if (kept.world == nullptr) {
        kept.world = std::make_unique<LabWorld>(scenario_, hosts_);
        kept.world->start();
    }
    world_ = kept.world.get();
    world_->on(hosts_.front());
    if (kept.state.empty()) {
        if (!library.empty()) {
            fs::copy_file(library, world_->exchange() / "library",
                          fs::copy_options::overwrite_existing);
            for (const std::string &name : hosts_) {
                world_->on(name);
                host(std::string("cp /exchange/library ") + installed);
            }
            world_->on(hosts_.front());
        }
        furnish();
        kept.state = state();
    }
    for (const auto &entry : fs::directory_iterator(world_->exchange())) {
        const std::string name = entry.path().filename();
        if (name != "tfphase" && name != "library") fs::remove_all(entry);
    }
}

void Contract::TearDown() {
    if (world_ == nullptr) return;
    const std::string seen = state(), expected = worlds()[scenario_].state;
    is("the world after the case", expected, seen);
    if (seen != expected) end_world(scenario_);
}

Phase Contract::judged(Phase phase) const {
    is("how the process ended", 0, phase.status);
    is("what the process printed", "", phase.output);
    for (const Call &call : phase.calls) {
        for (const std::string &what : call.changed)
            is("what " + call.step + " left changed in its process", "", what);
    }
    return phase;
}

Phase Contract::run(const Words &steps, int level) {
    return judged(world_->try_phase(steps, patience, level));
}

Phase Contract::run_with(const Words &first, const std::function<void()> &meanwhile,
                         const Words &rest, int level) {
    const Words wait =
        shell("touch /exchange/here; while [ ! -e /exchange/go ]; do sleep 0.01; done");
    const test::Running running = world_->begin_phase(first + wait + rest, level);
    try {
        world_->wait_for_file("here");
        meanwhile();
    } catch (...) {
        kill(running.pid, SIGKILL);
        throw;
    }
    world_->make_file("go");
    if (!ends_in_time(running.pid)) {
        kill(running.pid, SIGKILL);
        ADD_FAILURE() << "how the process ended\nexpected: 0\nseen:     still at it after "
                      << patience << " seconds";
    }
    return judged(world_->end_phase(running));
}

std::string Contract::file(const std::string &name) const {
    std::ifstream in(world_->exchange() / name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void Contract::write_file(const std::string &name, const std::string &text) const {
    std::ofstream(world_->exchange() / name, std::ios::binary) << text;
}

void Contract::has_line(const std::string &name, const std::string &line) const {
    const std::string text = file(name);
    if (("\n" + text).find("\n" + line + "\n") != std::string::npos) return;
    ADD_FAILURE() << "text " << name << "\nexpected: a line " << line << "\nseen:     " << text;
}

Words operator+(Words left, const Words &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Words freeze(const std::string &config, const std::string &source, const std::string &fifs) {
    return {"freeze", config, source, fifs};
}
Words freeze_no_wait(const std::string &source) {
    return {"freeze_no_wait", "-", source, "/copy"};
}
Words freeze_with(const std::string &config, const std::string &source, const std::string &fifs,
                  const std::string &nvols, const std::string &flag, const std::string &handle) {
    return {"freeze_with", config, source, fifs, nvols, flag, handle};
}
Words commit() {
    return {"commit"};
}
Words ctl(int32_t code) {
    return {"ctl", std::to_string(code)};
}
Words ckpt(const std::string &name) {
    return {"ckpt", "/exchange/" + name};
}
Words rebuild(const std::string &name) {
    return {"rebuild", "/exchange/" + name};
}
Words volumes() {
    return {"volumes"};
}
Words thaw() {
    return {"thaw"};
}
Words thaw_commit() {
    return {"thaw_commit"};
}
Words release() {
    return {"thaw", "thaw_commit"};
}
Words object(int number) {
    return {"object", std::to_string(number)};
}
Words no_object() {
    return {"object", "15"};
}
Words record() {
    return {"whole_record"};
}
Words shell(const std::string &line) {
    return {"run", line};
}

void is(const std::string &what, const std::string &expected, const std::string &seen) {
    if (expected == seen) return;
    ADD_FAILURE() << what << "\nexpected: " << part_to_show(expected, seen)
                  << "\nseen:     " << part_to_show(seen, expected);
}

void is(const std::string &what, int64_t expected, int64_t seen) {
    is(what, std::to_string(expected), std::to_string(seen));
}

void succeeds(const Call &call) {
    if (call.status == 0) return;
    ADD_FAILURE() << "status of " << call.step << "\nexpected: 0\nseen:     " << call.status
                  << " with \"" << call.errmsg << "\"\nits log:" << joined(call.log);
}

void all_succeed(const Phase &phase) {
    for (const Call &call : phase.calls) succeeds(call);
}

void fails(const Call &call, int number, const std::string &text, int status) {
    is("status of " + call.step, status, call.status);
    is("error number of " + call.step, number, call.number);
    is("message of " + call.step + " for the user", text, call.errmsg);
    is("message of " + call.step + " for the log", text, call.logmsg);
}

void fails_beginning(const Call &call, int number, const std::string &text, int status) {
    is("status of " + call.step, status, call.status);
    is("error number of " + call.step, number, call.number);
    is("begin of the message of " + call.step, text, call.errmsg.substr(0, text.size()));
    is("message of " + call.step + " for the log", call.errmsg, call.logmsg);
}

void handle_is(const Call &call, bool set) {
    is("handle after " + call.step, set ? "set" : "null", call.handle ? "set" : "null");
}

Words fixed_names(const Words &lines) {
    static const std::regex temporary("/tmp/(QfMS|EMCT[XF])[A-Za-z0-9]{6}");
    Words fixed;
    for (const std::string &line : lines)
        fixed.push_back(std::regex_replace(line, temporary, "/tmp/$1??????"));
    return fixed;
}

Words commands(const Call &call) {
    const std::string begin = "Executing command: ",
                      end = " </dev/null >/tmp/QfMS?????? 2>/tmp/QfMS??????";
    Words lines;
    for (const std::string &line : fixed_names(call.log)) {
        if (!line.starts_with(begin) || line.find("tqtpcinfo") != std::string::npos) continue;
        is("streams of a command", end,
           line.substr(line.size() - std::min(line.size(), end.size())));
        lines.push_back(line.substr(begin.size(), line.size() - begin.size() - end.size()));
    }
    return lines;
}

void ran(const Call &call, const Words &lines) {
    is("commands of " + call.step, joined(lines), joined(commands(call)));
}

void logs(const Call &call, const std::string &line) {
    const Words lines = fixed_names(call.log);
    if (std::find(lines.begin(), lines.end(), line) != lines.end()) return;
    ADD_FAILURE() << "log of " << call.step << "\nexpected: " << line
                  << "\nseen:    " << joined(lines);
}

void logs_not(const Call &call, const std::string &part) {
    if (!call.logged_part(part)) return;
    ADD_FAILURE() << "log of " << call.step << "\nexpected: no line with " << part
                  << "\nseen:    " << joined(call.log);
}

void log_is(const Call &call, const Words &lines) {
    is("log of " + call.step, joined(lines), joined(fixed_names(call.log)));
}

void field_is(const Call &call, const std::string &name, const std::string &value, size_t n) {
    for (const std::string &field : call.fields) {
        if (field.compare(0, name.size() + 1, name + "=") != 0 || n-- != 0) continue;
        return is("field " + name, value, field.substr(name.size() + 1));
    }
    ADD_FAILURE() << "field " << name << "\nexpected: " << value << "\nseen:     no such field";
}

}  // namespace conformance
