// The array daemon: what a call over its socket costs against an echo, and what splits and
// establishes cost against the commands that copy files. All of it happens in a world of the lab,
// which leaves nothing behind.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <stdexcept>

#include "bench/array_daemon/arrays.h"
#include "bench/array_daemon/calls.h"
#include "bench/array_daemon/data.h"
#include "lab/host/world.h"

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
    return tflab::run_world(options, [&] {
        bench::build_arrays();
        if (calls.repetitions > 0) bench::measure_calls(calls);
        if (repetitions > 0) bench::measure_data(repetitions, calls.only);
        return 0;
    });
} catch (const std::exception &error) {
    fprintf(stderr, "bench_array_daemon: %s\n", error.what());
    return 2;
}
