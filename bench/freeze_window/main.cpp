// The freeze window: how long writers stand still for a copy, and how long it takes from the
// request to a mounted, checked copy; in the lab, with real data, beside what one would do without
// an array.
#include <sys/mman.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/freeze_window/copies.h"
#include "bench/freeze_window/ground.h"
#include "bench/kit/comparison.h"
#include "bench/kit/statistics.h"
#include "lab/host/system.h"
#include "lab/host/world.h"

namespace {

using bench::Copied;
using bench::Ground;
using bench::Size;

constexpr char row[] = "freeze window";
constexpr uint64_t mib = 1 << 20, gib = 1 << 30;
constexpr int pairs[] = {1, 8, 64};
constexpr uint64_t devices[] = {64 * mib, gib, 8 * gib};
// Of all that one world's file systems are given to hold; it lies in memory.
constexpr uint64_t most_written = 2 * gib;
// A copy that reads every device reads no more than this.
constexpr uint64_t most_read = 8 * gib;
constexpr int most_rounds = 5;

struct Way {
    const char *name;
    Copied (*copy)(const Ground &);
    bool on_array, reads_everything;
};
constexpr Way ways[] = {
    {"the method", bench::by_method, true, false},
    {"fsfreeze + cp --reflink", bench::by_reflink, false, false},
    {"fsfreeze + dd", bench::by_dd, false, true},
    {"fsfreeze + rsync", bench::by_rsync, false, false},
};
constexpr size_t way_count = std::size(ways);

// What a world found: medians, a way each; 0 for a way that was left out.
struct Found {
    double window[way_count], ready[way_count];
    int rounds;  // of which they are the medians
};

bool takes_part(const Way &way, const Size &size) {
    return !way.reads_everything || size.device * static_cast<uint64_t>(size.pairs) <= most_read;
}

// Rounds that are counted; one more comes before them.
int rounds_of(const Size &size, size_t ways_wanted) {
    const uint64_t written = size.changed * static_cast<uint64_t>(size.pairs) * ways_wanted;
    return static_cast<int>(std::clamp<uint64_t>(most_written / written - 1, 1, most_rounds));
}

// The ways in turn, so that a busy moment of the machine meets all.
void measure(const Size &size, size_t ways_wanted, Found *found) {
    const Ground ground(size);
    const int rounds = rounds_of(size, ways_wanted);
    std::vector<double> window[way_count], ready[way_count];
    // The first round finds everything cold, and is not counted.
    for (int round = 0; round <= rounds; ++round) {
        for (size_t i = 0; i < ways_wanted; ++i) {
            if (!takes_part(ways[i], size)) continue;
            const auto &systems = ways[i].on_array ? ground.on_array : ground.plain;
            bench::change_data(size, systems.seen,
                               round * static_cast<int>(way_count) + static_cast<int>(i));
            const Copied copied = ways[i].copy(ground);
            if (round == 0) continue;
            window[i].push_back(copied.window);
            ready[i].push_back(copied.ready);
        }
    }
    found->rounds = rounds;
    for (size_t i = 0; i < ways_wanted; ++i) {
        if (window[i].empty()) continue;
        found->window[i] = bench::median(window[i]);
        found->ready[i] = bench::median(ready[i]);
    }
}

// A world for this size alone.
Found find(const Size &size, size_t ways_wanted) {
    void *shared =
        mmap(nullptr, sizeof(Found), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) tflab::fails("share memory with a world");
    auto *found = static_cast<Found *>(shared);
    tflab::WorldOptions options;
    options.build = TF_BINARY_DIR;
    const int status = tflab::run_world(options, [&] {
        measure(size, ways_wanted, found);
        return 0;
    });
    if (status != 0) throw std::runtime_error("the world ended with " + std::to_string(status));
    const Found answer = *found;
    munmap(shared, sizeof(Found));
    return answer;
}

std::string text_of(uint64_t bytes) {
    char text[32];
    if (bytes >= gib && bytes % gib == 0) {
        snprintf(text, sizeof text, "%llu GiB", static_cast<unsigned long long>(bytes / gib));
    } else {
        snprintf(text, sizeof text, "%.3g MiB",
                 static_cast<double>(bytes) / static_cast<double>(mib));
    }
    return text;
}

std::string text_of(const Size &size) {
    return std::to_string(size.pairs) + (size.pairs == 1 ? " pair of " : " pairs of ") +
           text_of(size.device);
}

std::string text_of_rounds(int rounds) {
    return rounds == 1 ? "one round" : std::to_string(rounds) + " rounds";
}

void print(const std::string &what, const char *measure, const double (&seconds)[way_count],
           int rounds) {
    bench::Result result;
    result.row = row;
    result.what = what;
    result.measure = measure;
    result.subject = ways[0].name;
    result.against = ways[1].name;
    result.ratio = seconds[0] / seconds[1];
    for (size_t i = 2; i < way_count; ++i) {
        if (seconds[i] > 0) result.beside.emplace_back(ways[i].name, seconds[0] / seconds[i]);
    }
    result.note = text_of_rounds(rounds);
    bench::print(result);
}

// All ways, with a part of the devices changed. False: what is to be changed does not fit, and less
// was.
bool compare(int count, uint64_t device, int percent) {
    Size size{count, device, device / 100 * static_cast<uint64_t>(percent)};
    // Every way gets its own changes, in two rounds at least.
    const uint64_t most = most_written / way_count / 2 / static_cast<uint64_t>(count);
    const bool fits = size.changed <= most;
    if (!fits) size.changed = most;
    const Found found = find(size, way_count);
    const std::string what =
        text_of(size) + ", " +
        (fits ? std::to_string(percent) + " % changed" : text_of(most) + " each changed");
    print(what, "window", found.window, found.rounds);
    print(what, "request to mounted copy", found.ready, found.rounds);
    return fits;
}

// The method alone on devices of all sizes, with as much changed on each.
bool compare_sizes(int count) {
    bool held = true;
    std::map<uint64_t, double> window;
    for (const uint64_t device : devices) {
        const Size size{count, device, mib};
        const Found found = find(size, 1);
        window[device] = found.window[0];
        if (device == devices[0]) continue;
        bench::Result result;
        result.row = row;
        result.what = text_of(size) + ", 1 MiB each changed";
        result.measure = "window";
        result.subject = ways[0].name;
        result.against = "itself at " + text_of(devices[0]);
        result.ratio = window[device] / window[devices[0]];
        result.target = 1.2;  // what two runs of the same differ by
        result.note = text_of_rounds(found.rounds);
        held = bench::print(result) && held;
    }
    return held;
}

}  // namespace

int main(int argc, char **argv) try {
    std::vector<int> only_pairs(std::begin(pairs), std::end(pairs));
    bool sizes_only = false;
    CLI::App app("how long writers stand still for a copy");
    app.add_option("--pairs", only_pairs, "numbers of pairs");
    app.add_flag("--sizes-only", sizes_only, "only how the window depends on the devices' size");
    CLI11_PARSE(app, argc, argv);
    bool held = true;
    for (const int count : only_pairs) {
        for (const uint64_t device : devices) {
            // Where one percent is too much already, ten are the same.
            if (!sizes_only && compare(count, device, 1)) compare(count, device, 10);
        }
        held = compare_sizes(count) && held;
    }
    return held ? 0 : 1;
} catch (const std::exception &error) {
    fprintf(stderr, "bench_freeze_window: %s\n", error.what());
    return 2;
}
