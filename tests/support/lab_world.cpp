#include "tests/support/lab_world.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr auto patience = 20s;
constexpr char tflab[] = TF_BINARY_DIR "/bin/tflab";

constexpr char preload_name[] = "LD_PRELOAD=";

void require(bool condition, const std::string &why) {
    if (!condition) throw std::runtime_error(why);
}

std::string read_file(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Starts a program with its output in a file, and nothing to read unless input is given; it ends
// with this process.
pid_t start_program(const Words &line, const fs::path &output, int input = -1) {
    std::vector<char *> arguments;
    for (const std::string &word : line) arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    const pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int out = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const int in = input >= 0 ? input : open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    execvp(arguments[0], arguments.data());
    _exit(127);
}

int ended(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

template <class Condition>
bool comes_true(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

// Adds one line of a report to the calls, or tells that it belongs to none; log lines come before
// the call that wrote them.
bool read_line(const std::string &line, std::vector<std::string> *log, std::vector<Call> *calls) {
    const std::string key = line.substr(0, line.find(' '));
    const std::string value = line.size() > key.size() ? line.substr(key.size() + 1) : "";
    if (key == "log") {
        log->push_back(value);
        return true;
    }
    if (key == "step") {
        calls->emplace_back();
        calls->back().step = value;
        calls->back().log.swap(*log);
        return true;
    }
    if (calls->empty()) return false;
    Call &call = calls->back();
    if (key == "status")
        call.status = atoi(value.c_str());
    else if (key == "number")
        call.number = atoi(value.c_str());
    else if (key == "handle")
        call.handle = value == "1";
    else if (key == "errmsg")
        call.errmsg = value;
    else if (key == "logmsg")
        call.logmsg = value;
    else if (key == "volpath")
        call.volpath = value;
    else if (key == "nvols")
        call.nvols = atoi(value.c_str());
    else if (key == "field")
        call.fields.push_back(value);
    else if (key == "changed")
        call.changed.push_back(value);
    else
        return false;
    return true;
}

// Adds what a report holds; a line that belongs to no call is kept as it is.
void read_report(const fs::path &path, Phase *phase) {
    std::vector<std::string> log;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        if (!read_line(line, &log, &phase->calls)) phase->further.push_back(line);
    }
}

// A number of a pair in the array's report; -1 without a report, 0 without the pair.
int64_t of_pair(const std::string &report, const std::string &symid, const std::string &primary,
                const std::string &bcv, const char *key) {
    const auto shown = nlohmann::json::parse(report, nullptr, false);
    if (shown.is_discarded()) return -1;
    for (const auto &array : shown["arrays"]) {
        if (array["symid"] != symid) continue;
        for (const auto &pair : array["pairs"]) {
            if (pair["primary"] == primary && pair["bcv"] == bcv) return pair[key];
        }
    }
    return 0;
}

}  // namespace

bool Call::logged(const std::string &line) const {
    return std::find(log.begin(), log.end(), line) != log.end();
}

bool Call::logged_part(const std::string &part) const {
    return std::any_of(log.begin(), log.end(), [&part](const std::string &line) {
        return line.find(part) != std::string::npos;
    });
}

const Call &Phase::at(const std::string &step, size_t occurrence) const {
    for (const Call &call : calls) {
        if (call.step == step && occurrence-- == 0) return call;
    }
    throw std::runtime_error("there was no step " + step + ": " + output);
}

void LabWorld::start() {
    std::string name = TF_BINARY_DIR "/world.XXXXXX";
    require(mkdtemp(name.data()) != nullptr, "cannot make " + name);
    scratch_ = name;
    const std::string pid_file = scratch_ + "/pid", ready = scratch_ + "/ready";
    int input[2];
    require(pipe2(input, O_CLOEXEC) == 0, "no pipe");
    life_ = input[1];
    Words line = {tflab, "run", "--build", TF_BINARY_DIR, "--scenario", scenario_};
    for (const std::string &name_of_host : hosts_) {
        line.insert(line.end(), {"--host", name_of_host});
    }
    line.insert(line.end(), {"--admin", "--pid-file", pid_file, "--", "sh", "-c",
                             "touch '" + ready + "'; exec cat"});
    // The world's command ends when this end of the pipe is closed.
    outer_ = start_program(line, scratch_ + "/world", input[0]);
    close(input[0]);
    require(comes_true([&ready] { return fs::exists(ready); }), read_file(scratch_ + "/world"));
    first_ = atoi(read_file(pid_file).c_str());
    require(first_ > 1, "the world has no process");
    fs::copy_file(TF_BINARY_DIR "/bin/tfphase", exchange() / "tfphase");
}

// Its status tells, too, when a loop device was left.
int LabWorld::end(std::string *said) {
    if (second_daemon_ > 0) {
        kill(second_daemon_, SIGKILL);
        ended(second_daemon_);
    }
    int status = 0;
    if (outer_ > 0) {
        close(life_);
        status = ended(outer_);
        *said = read_file(scratch_ + "/world");
    }
    if (!scratch_.empty()) fs::remove_all(scratch_);
    outer_ = second_daemon_ = -1;
    scratch_.clear();
    return status;
}

void LabWorld::stop() {
    std::string said;
    require(end(&said) == 0, "the world did not end well: " + said);
}

LabWorld::~LabWorld() {
    std::string said;
    end(&said);
}

fs::path LabWorld::exchange() const {
    return "/proc/" + std::to_string(first_) + "/root/run/tflab/exchange";
}

std::string LabWorld::host(const std::string &line, int *status) {
    const fs::path output = scratch_ + "/output";
    *status = ended(start_program(
        {tflab, "exec", "--world", std::to_string(first_), on_, "--", "sh", "-c", line}, output));
    return read_file(output);
}

std::string LabWorld::host(const std::string &line) {
    int status = 0;
    std::string text = host(line, &status);
    require(status == 0, on_ + ": " + line + ": status " + std::to_string(status) + "\n" + text);
    return text;
}

void LabWorld::lab(const Words &arguments) {
    const fs::path output = scratch_ + "/output";
    Words line = {tflab};
    line.insert(line.end(), arguments.begin(), arguments.end());
    const int status = ended(start_program(line, output));
    require(status == 0, arguments[0] + ": " + read_file(output));
}

void LabWorld::start_host(const std::string &name) {
    lab({"host", "--world", std::to_string(first_), "start", name, "--admin"});
}

void LabWorld::restart_host(const std::string &name) {
    lab({"host", "--world", std::to_string(first_), "stop", name});
    start_host(name);
}

// Sleeping puts the array's clock forward and costs no time. What limits the time is a program
// between the lab's and the process, so that nothing of the limit is in the process itself.
Running LabWorld::begin(const Words &steps, double limit, int level, const Words &environment) {
    Running running = {-1, "report" + std::to_string(++phases_)};
    std::string preload = "LD_PRELOAD=/usr/lib/tflab/libtflabsleep.so";
    Words further;
    for (const std::string &variable : environment) {
        if (variable.compare(0, strlen(preload_name), preload_name) == 0)
            preload += ":" + variable.substr(strlen(preload_name));
        else
            further.push_back(variable);
    }
    Words line = {tflab, "exec", "--world", std::to_string(first_), on_, "--"};
    if (limit > 0) line.insert(line.end(), {"timeout", "-s", "KILL", std::to_string(limit)});
    line.insert(line.end(), {"env", preload});
    line.insert(line.end(), further.begin(), further.end());
    line.insert(line.end(),
                {"/exchange/tfphase", "/exchange/" + running.name, std::to_string(level)});
    line.insert(line.end(), steps.begin(), steps.end());
    running.pid = start_program(line, scratch_ + "/" + running.name);
    return running;
}

Phase LabWorld::gave(const Running &running) {
    Phase result;
    result.status = ended(running.pid);
    result.output = read_file(scratch_ + "/" + running.name);
    read_report(exchange() / running.name, &result);
    std::error_code ignored;
    fs::remove(scratch_ + "/" + running.name, ignored);
    fs::remove(exchange() / running.name, ignored);
    return result;
}

Running LabWorld::begin_phase(const Words &steps, int level, const Words &environment) {
    return begin(steps, 0, level, environment);
}

Phase LabWorld::end_phase(const Running &running, int expected_status) {
    Phase result = gave(running);
    require(result.status == expected_status,
            "tfphase: status " + std::to_string(result.status) + ": " + result.output);
    return result;
}

Phase LabWorld::phase(const Words &steps, int level, const Words &environment) {
    return end_phase(begin_phase(steps, level, environment));
}

Phase LabWorld::try_phase(const Words &steps, double limit, int level, const Words &environment) {
    return gave(begin(steps, limit, level, environment));
}

void LabWorld::mount_source(const std::string &type) {
    host("mkfs." + type + " -q /dev/qz/dmp/p0 && mkdir /data /copy && mount -t " + type +
         " /dev/qz/dmp/p0 /data && echo before >/data/file && sync");
}

void LabWorld::synchronise() {
    array("establish --full 000184500123 00A1 01A1");
    array("clock advance 60");
    require(pair_state() == 2, "the pair is not synchronised: " + array("show"));
}

int LabWorld::pair_state(const std::string &primary, const std::string &bcv,
                         const std::string &symid) {
    return static_cast<int>(of_pair(array("show --json"), symid, primary, bcv, "state"));
}

int64_t LabWorld::tracks_moved(const std::string &primary, const std::string &bcv,
                               const std::string &symid) {
    return of_pair(array("show --json"), symid, primary, bcv, "tracks");
}

std::string LabWorld::counter_files() {
    return host(
        "cd /usr/quill/tessera/online_util/db_cntl && for f in *; do"
        " [ -e \"$f\" ] || continue; ls -ld --time-style=+ $f; [ ! -f $f ] || od -An -tx1 $f; "
        "done");
}

std::string LabWorld::picture() {
    std::ostringstream text;
    const auto shown = nlohmann::json::parse(array("show --json"), nullptr, false);
    require(!shown.is_discarded(), "tfarray show --json is no JSON");
    for (const auto &one : shown["arrays"]) {
        for (const auto &pair : one["pairs"]) {
            text << "pair " << pair["primary"] << " " << pair["bcv"] << " " << pair["state"]
                 << "\n";
        }
    }
    text << counter_files() << host("cat /proc/self/mounts; ls -A /tmp") << loops();
    return text.str();
}

std::string LabWorld::loops() {
    lab({"loops", "--world", std::to_string(first_)});
    std::ifstream in(scratch_ + "/output");
    Words loops;
    for (std::string number, sequence, file; in >> number >> sequence >> file;)
        loops.push_back(file);
    std::sort(loops.begin(), loops.end());
    std::string text;
    for (const std::string &file : loops) text += "loop " + file + "\n";
    return text;
}

void LabWorld::wait_for_file(const std::string &name) {
    require(comes_true([&] { return fs::exists(exchange() / name); }), "no file " + name);
}

void LabWorld::make_file(const std::string &name) {
    require(std::ofstream(exchange() / name).is_open(), "cannot make " + name);
}

// The daemon is a child of the world's first process; it is named by its own process number, so
// that no other world's is meant.
pid_t LabWorld::array_daemon() const {
    std::istringstream children(read_file("/proc/" + std::to_string(first_) + "/task/" +
                                          std::to_string(first_) + "/children"));
    for (pid_t child; children >> child;) {
        if (read_file("/proc/" + std::to_string(child) + "/comm") == "tfarrayd\n") return child;
    }
    return -1;
}

void LabWorld::end_array() {
    const pid_t daemon = array_daemon();
    require(daemon > 1, "the array has no daemon");
    std::istringstream line(read_file("/proc/" + std::to_string(daemon) + "/cmdline"));
    for (std::string word; std::getline(line, word, '\0');) {
        if (word == "--ready-fd") break;
        daemon_line_.push_back(word);
    }
    kill(daemon, SIGKILL);
    require(comes_true([this] { return array_daemon() < 0; }), "the daemon does not end");
}

void LabWorld::restart_array() {
    Words line = {"nsenter", "-t", std::to_string(first_), "-m", "-p", "--"};
    line.insert(line.end(), daemon_line_.begin(), daemon_line_.end());
    second_daemon_ = start_program(line, scratch_ + "/daemon");
    require(comes_true([this] {
                int status = 1;
                host("tfarray show", &status);
                return status == 0;
            }),
            read_file(scratch_ + "/daemon"));
}

}  // namespace test
