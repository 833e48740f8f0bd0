#include "tests/support/world.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

namespace test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr auto patience = 20s;
constexpr char tflab[] = TF_BINARY_DIR "/bin/tflab";

std::string read_file(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Starts a program with its output in a file, and nothing to read unless input is given; it ends
// with this process.
pid_t start(const Words &line, const fs::path &output, int input = -1) {
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

// Adds one line of a report to the calls; log lines come before the call that wrote them.
void read_line(const std::string &line, std::vector<std::string> *log, std::vector<Call> *calls) {
    const std::string key = line.substr(0, line.find(' '));
    const std::string value = line.size() > key.size() ? line.substr(key.size() + 1) : "";
    if (key == "log") {
        log->push_back(value);
        return;
    }
    if (key == "step") {
        calls->emplace_back();
        calls->back().step = value;
        calls->back().log.swap(*log);
        return;
    }
    if (calls->empty()) return;
    Call &call = calls->back();
    if (key == "status") call.status = atoi(value.c_str());
    if (key == "number") call.number = atoi(value.c_str());
    if (key == "handle") call.handle = value == "1";
    if (key == "errmsg") call.errmsg = value;
    if (key == "logmsg") call.logmsg = value;
    if (key == "volpath") call.volpath = value;
    if (key == "nvols") call.nvols = atoi(value.c_str());
    if (key == "field") call.fields.push_back(value);
}

std::vector<Call> read_report(const fs::path &path) {
    std::vector<Call> calls;
    std::vector<std::string> log;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) read_line(line, &log, &calls);
    return calls;
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

std::string whole_log(const Call &call) {
    std::string text;
    for (const std::string &line : call.log) text += "  " + line + "\n";
    return text;
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
    static const Call none;
    for (const Call &call : calls) {
        if (call.step == step && occurrence-- == 0) return call;
    }
    ADD_FAILURE() << "there was no step " << step << ": " << output;
    return none;
}

void expect_failure(const Call &call, int number, const std::string &text, int status) {
    EXPECT_EQ(call.status, status) << call.step;
    EXPECT_EQ(call.number, number) << call.step;
    EXPECT_EQ(call.errmsg, text) << call.step;
    EXPECT_EQ(call.logmsg, text) << call.step;
    EXPECT_TRUE(call.logged(text)) << call.step << " logged:\n" << whole_log(call);
}

void expect_success(const Call &call) {
    EXPECT_EQ(call.status, 0) << call.step << ": " << call.errmsg << "\n" << whole_log(call);
}

void World::SetUp() {
    if (geteuid() != 0) GTEST_SKIP() << "worlds need root";
    std::string name = TF_BINARY_DIR "/world.XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    scratch_ = name;
    const std::string pid_file = scratch_ + "/pid", ready = scratch_ + "/ready";
    int input[2];
    ASSERT_EQ(pipe2(input, O_CLOEXEC), 0);
    life_ = input[1];
    Words line = {tflab, "run", "--build", TF_BINARY_DIR, "--scenario", scenario_};
    for (const std::string &name_of_host : hosts_) {
        line.insert(line.end(), {"--host", name_of_host});
    }
    line.insert(line.end(), {"--admin", "--pid-file", pid_file, "--", "sh", "-c",
                             "touch '" + ready + "'; exec cat"});
    // The world's command ends when this end of the pipe is closed.
    outer_ = start(line, scratch_ + "/world", input[0]);
    close(input[0]);
    ASSERT_TRUE(comes_true([&ready] { return fs::exists(ready); }))
        << read_file(scratch_ + "/world");
    first_ = atoi(read_file(pid_file).c_str());
    ASSERT_GT(first_, 1);
    fs::copy_file(TF_BINARY_DIR "/bin/tfphase", exchange() / "tfphase");
}

void World::TearDown() {
    if (second_daemon_ > 0) {
        kill(second_daemon_, SIGKILL);
        ended(second_daemon_);
    }
    if (outer_ > 0) {
        close(life_);
        // Its status tells, too, when a loop device was left.
        EXPECT_EQ(ended(outer_), 0) << read_file(scratch_ + "/world");
    }
    if (!scratch_.empty()) fs::remove_all(scratch_);
}

fs::path World::exchange() const {
    return "/proc/" + std::to_string(first_) + "/root/run/tflab/exchange";
}

std::string World::host(const std::string &line, int *status) {
    const fs::path output = scratch_ + "/output";
    *status = ended(start(
        {tflab, "exec", "--world", std::to_string(first_), on_, "--", "sh", "-c", line}, output));
    return read_file(output);
}

std::string World::host(const std::string &line) {
    int status = 0;
    std::string text = host(line, &status);
    EXPECT_EQ(status, 0) << line << ":\n" << text;
    return text;
}

void World::start_host(const std::string &name) {
    const fs::path output = scratch_ + "/output";
    EXPECT_EQ(
        ended(start({tflab, "host", "--world", std::to_string(first_), "start", name, "--admin"},
                    output)),
        0)
        << read_file(output);
}

void World::restart_host(const std::string &name) {
    const fs::path output = scratch_ + "/output";
    EXPECT_EQ(
        ended(start({tflab, "host", "--world", std::to_string(first_), "stop", name}, output)), 0)
        << read_file(output);
    start_host(name);
}

// Sleeping puts the array's clock forward and costs no time.
Running World::begin_phase(const Words &steps, int level, const Words &environment) {
    Running running = {-1, "report" + std::to_string(++phases_)};
    Words line = {tflab,     "exec",
                  "--world", std::to_string(first_),
                  "--env",   "LD_PRELOAD=/usr/lib/tflab/libtflabsleep.so"};
    for (const std::string &variable : environment) line.insert(line.end(), {"--env", variable});
    line.insert(line.end(), {on_, "--", "/exchange/tfphase", "/exchange/" + running.name,
                             std::to_string(level)});
    line.insert(line.end(), steps.begin(), steps.end());
    running.pid = start(line, scratch_ + "/" + running.name);
    return running;
}

Phase World::end_phase(const Running &running, int expected_status) {
    Phase result;
    result.status = ended(running.pid);
    result.output = read_file(scratch_ + "/" + running.name);
    result.calls = read_report(exchange() / running.name);
    EXPECT_EQ(result.status, expected_status) << result.output;
    return result;
}

Phase World::phase(const Words &steps, int level, const Words &environment) {
    return end_phase(begin_phase(steps, level, environment));
}

void World::mount_source(const std::string &type) {
    host("mkfs." + type + " -q /dev/qz/dmp/p0 && mkdir /data /copy && mount -t " + type +
         " /dev/qz/dmp/p0 /data && echo before >/data/file && sync");
}

void World::synchronise() {
    array("establish --full 000184500123 00A1 01A1");
    array("clock advance 60");
    ASSERT_EQ(pair_state(), 2);
}

int World::pair_state(const std::string &primary, const std::string &bcv,
                      const std::string &symid) {
    return static_cast<int>(of_pair(array("show --json"), symid, primary, bcv, "state"));
}

int64_t World::tracks_moved(const std::string &primary, const std::string &bcv,
                            const std::string &symid) {
    return of_pair(array("show --json"), symid, primary, bcv, "tracks");
}

std::string World::counter_files() {
    return host(
        "cd /usr/quill/tessera/online_util/db_cntl && for f in *; do"
        " [ -e \"$f\" ] || continue; ls -ld --time-style=+ $f; [ ! -f $f ] || od -An -tx1 $f; "
        "done");
}

std::string World::picture() {
    std::ostringstream text;
    const auto shown = nlohmann::json::parse(array("show --json"), nullptr, false);
    EXPECT_FALSE(shown.is_discarded());
    for (const auto &one : shown["arrays"]) {
        for (const auto &pair : one["pairs"]) {
            text << "pair " << pair["primary"] << " " << pair["bcv"] << " " << pair["state"]
                 << "\n";
        }
    }
    text << counter_files() << host("cat /proc/self/mounts; ls -A /tmp");
    const fs::path output = scratch_ + "/output";
    EXPECT_EQ(ended(start({tflab, "loops", "--world", std::to_string(first_)}, output)), 0);
    std::ifstream in(output);
    Words loops;
    for (std::string number, sequence, file; in >> number >> sequence >> file;)
        loops.push_back(file);
    std::sort(loops.begin(), loops.end());
    for (const std::string &file : loops) text << "loop " << file << "\n";
    return text.str();
}

void World::expect_a_snapshot_succeeds(const std::string &source) {
    const Phase good =
        phase({"freeze", "-", source, "/copy", "ctl", "4", "commit", "thaw", "thaw_commit"});
    EXPECT_EQ(good.calls.size(), 5U);
    for (const Call &call : good.calls) {
        expect_success(call);
        EXPECT_EQ(call.number, -1) << call.step << ": " << call.errmsg;
    }
    EXPECT_TRUE(good.at("commit").logged("Split end"));
    EXPECT_EQ(counter_files(), "");
    EXPECT_EQ(host("ls -A /tmp"), "");
}

void World::wait_for_file(const std::string &name) {
    EXPECT_TRUE(comes_true([&] { return fs::exists(exchange() / name); })) << name;
}

void World::make_file(const std::string &name) {
    EXPECT_TRUE(std::ofstream(exchange() / name).is_open()) << name;
}

// The daemon is a child of the world's first process; it is named by its own process number, so
// that no other world's is meant.
pid_t World::array_daemon() const {
    std::istringstream children(read_file("/proc/" + std::to_string(first_) + "/task/" +
                                          std::to_string(first_) + "/children"));
    for (pid_t child; children >> child;) {
        if (read_file("/proc/" + std::to_string(child) + "/comm") == "tfarrayd\n") return child;
    }
    return -1;
}

void World::end_array() {
    const pid_t daemon = array_daemon();
    ASSERT_GT(daemon, 1);
    std::istringstream line(read_file("/proc/" + std::to_string(daemon) + "/cmdline"));
    for (std::string word; std::getline(line, word, '\0');) {
        if (word == "--ready-fd") break;
        daemon_line_.push_back(word);
    }
    kill(daemon, SIGKILL);
    ASSERT_TRUE(comes_true([this] { return array_daemon() < 0; }));
}

void World::restart_array() {
    Words line = {"nsenter", "-t", std::to_string(first_), "-m", "-p", "--"};
    line.insert(line.end(), daemon_line_.begin(), daemon_line_.end());
    second_daemon_ = start(line, scratch_ + "/daemon");
    EXPECT_TRUE(comes_true([this] {
        int status = 1;
        host("tfarray show", &status);
        return status == 0;
    })) << read_file(scratch_ + "/daemon");
}

}  // namespace test
