// The array daemon: what a call over its socket costs against an echo, and what splits and
// establishes cost against the commands that copy files. All of it happens in a world of the lab,
// which leaves nothing behind.
#include <sched.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <stdexcept>

#include "bench/array_daemon/arrays.h"
#include "bench/array_daemon/calls.h"
#include "bench/array_daemon/data.h"
#include "lab/host/system.h"
#include "lab/host/world.h"

namespace {

// This process and its children on one of its processors, or on all it had.
class Processors {
  public:
    Processors() {
        if (sched_getaffinity(0, sizeof all_, &all_) != 0) tflab::fails("ask for processors");
    }
    void use_one() {
        cpu_set_t one;
        CPU_ZERO(&one);
        int first = 0;
        while (CPU_ISSET(first, &all_) == 0) ++first;
        CPU_SET(first, &one);
        use(one);
    }
    void use_all() { use(all_); }

  private:
    static void use(const cpu_set_t &wanted) {
        if (sched_setaffinity(0, sizeof wanted, &wanted) != 0) tflab::fails("choose processors");
    }
    cpu_set_t all_ = {};
};

}  // namespace

int main(int argc, char **argv) try {
    bench::CallOptions calls = {31, 2400, ""};
    int repetitions = 5;
    CLI::App app("the array daemon against an echo and against cp");
    app.add_option("--call-repetitions", calls.repetitions, "0: no calls")
        ->check(CLI::Range(0, 1000));
    app.add_option("--calls", calls.calls, "in one repetition")->check(CLI::Range(16, 1000000));
    app.add_option("--repetitions", repetitions, "of splits and establishes; 0: none")
        ->check(CLI::Range(0, 1000));
    app.add_option("--only", calls.only, "results whose name holds this text");
    CLI11_PARSE(app, argc, argv);
    if (geteuid() != 0) throw std::runtime_error("a world needs root");
    tflab::die_with_any_parent();
    tflab::WorldOptions options;
    options.build = TF_BINARY_DIR;
    // Client and server of a call never work at the same time. Whether the kernel puts them on one
    // processor or wakes another one for each answer makes a call four times as long, by chance and
    // for whole rounds: here they share one, and a call costs what is done for it.
    Processors processors;
    processors.use_one();
    const int status = tflab::run_world(options, [&] {
        bench::build_arrays();
        if (calls.repetitions > 0) bench::measure_calls(calls);
        return 0;
    });
    processors.use_all();
    if (status != 0 || repetitions == 0) return status;
    return tflab::run_world(options, [&] {
        bench::build_arrays();
        bench::measure_data(repetitions, calls.only);
        return 0;
    });
} catch (const std::exception &error) {
    fprintf(stderr, "bench_array_daemon: %s\n", error.what());
    return 2;
}
