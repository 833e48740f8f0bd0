// The method's own cost: a whole cycle over one volume of 1 to 2046 devices, against a floor that
// makes the same calls to the array, the commands and the system, and does nothing else.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "bench/cycle/calls.h"
#include "bench/cycle/calls_per_pair.h"
#include "bench/cycle/commands.h"
#include "bench/cycle/growth.h"
#include "bench/cycle/pairs.h"
#include "bench/cycle/phases.h"
#include "bench/kit/callgrind.h"
#include "bench/kit/comparison.h"
#include "bench/kit/heap.h"
#include "bench/kit/statistics.h"
#include "include/records.h"
#include "include/timefinder.h"
#include "method/interface.h"
#include "tests/support/private_root.h"

namespace {

namespace phase = bench::phase;

constexpr char row[] = "cycle";
constexpr char text_file[] = "/bench/checkpoint";
constexpr char volume[] = "/dev/qz/dsk/datadg/vol1";
// Every pair is established at the start. The copy is for another host, so its disk group is
// imported: to clone it names the paths of all pairs in one command line, which holds some 400.
constexpr char config[] = "sync_at_start=1,alternate_backup_client=backup1";
constexpr long split = 5;

int32_t number;
char errmsg[TF_MESSAGE_SIZE], logmsg[TF_MESSAGE_SIZE];

// The pairs of the cycle whose instructions are counted; 0: none are.
int counted_pairs;

// One call of the framework.
template <class Call>
void step(const char *phase, Call call) {
    bench::enter_phase(phase);
    if (counted_pairs != 0) bench::count_from_here();
    const int32_t status = call();
    if (counted_pairs != 0) bench::count_to_here(bench::mark_of(phase, counted_pairs));
    if (status == 0) return;
    fprintf(stderr, "%s: %d, %s\n", phase, status, errmsg);
    _exit(1);
}

// The freezing process.
void freeze_and_cut() {
    hdef *h = nullptr;
    int32_t volumes = 0;
    char *text = nullptr;
    step(phase::freeze, [&] {
        return TimeFinder_freeze(config, "/data", "/bench/fifs", nullptr, &volumes, TF_FREEZE_WAIT,
                                 &h);
    });
    step(phase::control, [&] { return TimeFinder_ctl(h, TF_CTL_RESYNC_AT_START); });
    step(phase::freeze_commit, [&] { return TimeFinder_freeze_commit(h); });
    step(phase::checkpoint, [&] { return TimeFinder_ckpt(h, &text); });
    std::ofstream(text_file) << text;
    free(text);
}

// The process that reads the copy and gives it back.
void read_and_release() {
    std::ifstream in(text_file);
    std::string text((std::istreambuf_iterator<char>(in)), {});
    hdef *h = nullptr;
    char path[TF_VOLPATH_SIZE] = "";
    int32_t volumes = 0;
    step(phase::rebuild, [&] { return TimeFinder_rebuild(&h, text.data()); });
    step(phase::volumes, [&] { return TimeFinder_volumes(h, path, &volumes); });
    step(phase::thaw, [&] { return TimeFinder_thaw(h); });
    step(phase::thaw_commit, [&] { return TimeFinder_thaw_commit(h); });
}

struct Cost {
    double wall = 0, cpu = 0;  // seconds
};

// What the heap held at its peak, told by the processes of a cycle.
size_t *heap_peak;

void tell_heap_peak() {
    *heap_peak = std::max(*heap_peak, bench::heap_peak_since_mark());
}

double seconds(const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

// What a process and its commands cost.
Cost run(const std::function<void()> &work) {
    const auto begin = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        work();
        _exit(0);
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - begin;
    if (status != 0) {
        fprintf(stderr, "bench_cycle: a process ended with %d\n", status);
        exit(2);
    }
    return {wall.count(), seconds(usage.ru_utime) + seconds(usage.ru_stime)};
}

Cost operator+(const Cost &one, const Cost &other) {
    return {one.wall + other.wall, one.cpu + other.cpu};
}

Cost run_method() {
    const Cost first = run([] {
        bench::set_pair_states(split);
        bench::heap_mark();
        freeze_and_cut();
        tell_heap_peak();
    });
    return first + run([] {
               bench::set_pair_states(split);
               bench::heap_mark();
               read_and_release();
               tell_heap_peak();
           });
}

void make_world() {
    test::enter_private_root();
    test::make_folders("/bench");
    test::make_folders("/data");
    test::make_folders("/var/symapi/db");
    test::write_file("/var/symapi/db/symapi_db.bin", "");
    test::make_folders("/usr/quill/tessera/online_util/fi_cntl");
    test::make_folders("/usr/quill/tessera/online_util/db_cntl");
    test::write_mount_table(std::string(volume) + " / ext4 rw 0 0\n");
    for (const char *tool : {bench::device_tool, "/usr/quill/tessera/bin/tqdgclone",
                             "/usr/sbin/qzdg", "/usr/sbin/qzdisk", "/usr/sbin/qzvol"}) {
        test::write_file(tool, "");
        std::filesystem::copy_file(TF_BINARY_DIR "/bin/bench_cycle_tool", tool,
                                   std::filesystem::copy_options::overwrite_existing);
        std::filesystem::permissions(tool, std::filesystem::perms{0755});
    }
}

void make_devices(int pairs) {
    std::string list;
    for (int i = 0; i < pairs; ++i) {
        char name[64];
        snprintf(name, sizeof name, bench::raw_device_format, i);
        list += std::string(name) + "\n";
        test::write_file(name, "");
        std::string block = name;
        block.erase(block.find("rdmp"), 1);
        test::write_file(block, "");
    }
    test::write_file("/bench/devices", list);
}

struct Measured {
    double method_wall, method_cpu, floor_wall, floor_cpu;  // medians
    bench::Calls calls;
};

bench::Result result(const std::string &what, const std::string &measure,
                     const std::string &subject, const std::string &against, double ratio,
                     std::optional<double> target) {
    bench::Result one;
    one.row = row;
    one.what = what;
    one.measure = measure;
    one.subject = subject;
    one.against = against;
    one.ratio = ratio;
    one.target = target;
    return one;
}

std::string pairs_text(int pairs) {
    return std::to_string(pairs) + (pairs == 1 ? " pair" : " pairs");
}

// Against the records themselves: one object, and a device record a pair.
bool print_memory(int pairs) {
    const double records =
        static_cast<double>(sizeof(hdef)) + pairs * static_cast<double>(sizeof(prim_mir_info));
    return bench::print(result("memory, " + pairs_text(pairs), "bytes at the peak", "the method",
                               "its records", static_cast<double>(*heap_peak) / records,
                               pairs >= 256 ? std::optional(1.2) : std::nullopt));
}

// Method and floor in turn, so that a busy moment of the machine meets both.
Measured measure(int pairs, int repetitions) {
    make_devices(pairs);
    bench::empty_call_log();
    bench::record_calls(bench::Recording::on);
    run_method();
    bench::record_calls(bench::Recording::off);
    *heap_peak = 0;
    Measured measured{};
    measured.calls = bench::count_calls();
    std::vector<double> costs[4];
    for (int i = 0; i < repetitions; ++i) {
        const Cost method = run_method();
        const Cost floor = run([] { bench::replay_calls(); });
        costs[0].push_back(method.wall);
        costs[1].push_back(method.cpu);
        costs[2].push_back(floor.wall);
        costs[3].push_back(floor.cpu);
    }
    measured.method_wall = bench::median(costs[0]);
    measured.method_cpu = bench::median(costs[1]);
    measured.floor_wall = bench::median(costs[2]);
    measured.floor_cpu = bench::median(costs[3]);
    return measured;
}

// Numbers of calls and bytes per pair are taken at the first two.
constexpr bench::Sizes counted_sizes = {64, 256, 2046};

// A cycle and its floor, each once.
void count_below_callgrind() {
    bench::choose_answers(bench::Answers::in_process);
    for (const int pairs : {counted_sizes.few, counted_sizes.more, counted_sizes.most}) {
        make_devices(pairs);
        bench::empty_call_log();
        bench::record_calls(bench::Recording::on);
        run_method();
        bench::record_calls(bench::Recording::off);
        counted_pairs = pairs;
        run_method();
        run([] {
            bench::count_from_here();
            bench::replay_calls();
            bench::count_to_here(bench::mark_of(bench::whole_floor, counted_pairs));
        });
        counted_pairs = 0;
    }
}

bool print_instructions() {
    const auto instructions = bench::count_instructions(
        std::filesystem::read_symlink("/proc/self/exe"), "--below-callgrind");
    return bench::print_growth(row, instructions, counted_sizes);
}

}  // namespace

int main(int argc, char **argv) {
    bool count = false, below_callgrind = false;
    int repetitions = 5;
    std::vector<int> sizes = {1, 16, 64, 256, 1024, 2046};
    CLI::App app("the method's own cost per pair");
    app.add_flag("--count", count, "numbers of calls, bytes and instructions only");
    app.add_flag("--below-callgrind", below_callgrind, "for --count itself")->group("");
    app.add_option("--repetitions", repetitions)->check(CLI::Range(1, 1000));
    app.add_option("--sizes", sizes, "numbers of pairs");
    CLI11_PARSE(app, argc, argv);
    // Below callgrind it is the world of the process that counts.
    if (!below_callgrind) make_world();
    bench::make_call_log();
    heap_peak = static_cast<size_t *>(mmap(nullptr, sizeof *heap_peak, PROT_READ | PROT_WRITE,
                                           MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    bench::bind_array();
    TimeFinder_init(&number, logmsg, errmsg);
    resolve_symapi = 1;
    if (below_callgrind) {
        count_below_callgrind();
        return 0;
    }
    if (count) {
        repetitions = 1;
        sizes = {counted_sizes.few, counted_sizes.more};
    }
    bool held = true;
    std::map<int, Measured> all;
    for (const int pairs : sizes) {
        const Measured &m = all[pairs] = measure(pairs, repetitions);
        held = print_memory(pairs) && held;
        if (count) continue;
        const bool judged = pairs == 2046;
        const auto target = judged ? std::optional(1.15) : std::nullopt;
        held = bench::print(result(pairs_text(pairs), "wall time", "the method", "the floor",
                                   m.method_wall / m.floor_wall, target)) &&
               held;
        held = bench::print(result(pairs_text(pairs), "CPU time", "the method", "the floor",
                                   m.method_cpu / m.floor_cpu, target)) &&
               held;
    }
    if (!count && all.contains(64)) {
        for (const auto &[pairs, m] : all) {
            const auto target = pairs == 2046 ? std::optional(1.10) : std::nullopt;
            const Measured &base = all[64];
            held = bench::print(result(pairs_text(pairs), "CPU time per pair", "the method",
                                       "itself at 64 pairs",
                                       m.method_cpu / pairs / (base.method_cpu / 64), target)) &&
                   held;
            bench::print(result(pairs_text(pairs), "CPU time per pair", "the floor",
                                "itself at 64 pairs", m.floor_cpu / pairs / (base.floor_cpu / 64),
                                std::nullopt));
        }
    }
    const int few = sizes.front(), many = sizes.back();
    if (few != many) {
        held = bench::print_calls_per_pair(row, all[few].calls, few, all[many].calls, many) && held;
    }
    if (count) held = print_instructions() && held;
    return held ? 0 : 1;
}
