// What stays of the method when it is loaded, used and unloaded a thousand times in one process of
// a host in the lab. The uses are those of the proof's program, with one pair.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>

#include "bench/kit/comparison.h"
#include "tests/support/lab_world.h"

namespace {

class Host {
  public:
    Host() {
        world_.start();
        std::filesystem::copy_file(TF_BINARY_DIR "/bin/tfreload", world_.exchange() / "tfreload");
        world_.mount_source();
        world_.synchronise();
    }

    // A line for each thing that is held: what, before, behind the cycles.
    std::string use(const std::string &work, int cycles) {
        int status = 0;
        // Blocks that the C library keeps at hand would count as in use.
        const std::string said = world_.host(
            "GLIBC_TUNABLES=glibc.malloc.tcache_count=0"
            " LD_PRELOAD=/usr/lib/tflab/libtflabsleep.so /exchange/tfreload " +
                std::to_string(cycles) + " " + work + " figures",
            &status);
        // Growth is in the figures.
        if (status != 0 && status != 1) throw std::runtime_error(said);
        return said;
    }

  private:
    test::LabWorld world_;
};

bool print_held(const std::string &work, int cycles, const std::string &figures) {
    bool held = true, any = false;
    std::istringstream lines(figures);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string mark, what;
        double before = 0, behind = 0;
        if (!(words >> mark >> what >> before >> behind) || mark != "held") continue;
        any = true;
        bench::Result result;
        result.row = "load and unload";
        result.what = work + ", " + std::to_string(cycles) + " cycles";
        std::replace(what.begin(), what.end(), '-', ' ');
        result.measure = what;
        result.subject = "behind them";
        result.against = "before them";
        result.ratio = behind / before;
        result.target = 1.0;
        result.note = "growth " + std::to_string(static_cast<long>(behind - before));
        held = bench::print(result) && held;
    }
    if (!any) throw std::runtime_error(figures);
    return held;
}

}  // namespace

int main(int argc, char **argv) try {
    int cycles = 1000;
    CLI::App app("what stays of a method that is loaded, used and unloaded");
    app.add_option("--cycles", cycles)->check(CLI::Range(1, 100000));
    CLI11_PARSE(app, argc, argv);
    if (geteuid() != 0) throw std::runtime_error("a world needs root");
    Host host;
    bool held = true;
    for (const char *work : {"refusals", "snapshot"}) {
        held = print_held(work, cycles, host.use(work, cycles)) && held;
    }
    return held ? 0 : 1;
} catch (const std::exception &error) {
    fprintf(stderr, "bench_load_and_unload: %s\n", error.what());
    return 2;
}
