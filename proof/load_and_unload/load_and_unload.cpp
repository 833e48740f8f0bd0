// The row "load and unload": the method is loaded, used and unloaded a thousand times in one
// process, and nothing of it stays: no memory, mapping, descriptor, and above all not the library
// itself. A point is a kind of use; see reload.cpp.
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <stdexcept>

#include "proof/kit/row.h"
#include "tests/support/lab_world.h"

namespace {

constexpr int all_cycles = 1000;

// Uses that go to the array take a while, so a sample has fewer of them.
struct Use {
    const char *name;
    int cycles_in_a_sample;
};
constexpr Use uses[] = {{"nothing", all_cycles},
                        {"settings", all_cycles},
                        {"refusals", 200},
                        {"snapshot", 12},
                        {"backup", 12}};

class Host {
  public:
    Host() {
        world_.start();
        std::filesystem::copy_file(TF_BINARY_DIR "/bin/tfreload", world_.exchange() / "tfreload");
        world_.mount_source();
        world_.synchronise();
    }

    // What is wrong; empty: nothing stayed.
    std::string use(const std::string &name, int cycles) {
        const bool backup = name == "backup";
        if (backup) must_succeed({"freeze", "-", "/data", "/copy", "commit", "ckpt", text});
        int status = 0;
        // Blocks that the C library keeps at hand would count as in use.
        const std::string said = world_.host(
            "GLIBC_TUNABLES=glibc.malloc.tcache_count=0"
            " LD_PRELOAD=/usr/lib/tflab/libtflabsleep.so /exchange/tfreload " +
                std::to_string(cycles) + " " + name,
            &status);
        if (backup) must_succeed({"rebuild", text, "thaw", "thaw_commit"});
        const std::string last = "cycles " + std::to_string(cycles) + "\n";
        if (status == 0 && said == last) return "";
        return "status " + std::to_string(status) + ": " + said;
    }

  private:
    static constexpr char text[] = "/exchange/text";

    void must_succeed(const test::Words &steps) {
        for (const test::Call &call : world_.phase(steps).calls) {
            if (call.status != 0) throw std::runtime_error(call.step + ": " + call.errmsg);
        }
    }

    test::LabWorld world_;
};

int run(int argc, char **argv) {
    const proof::Options options =
        proof::options_of(argc, argv, "The method is loaded, used and unloaded a thousand times");
    if (geteuid() != 0) return proof::Row::cannot_run("worlds need root");
    proof::Row row("load_and_unload", options, proof::shipped_libraries());
    std::vector<std::string> points;
    for (const Use &use : uses) points.emplace_back(use.name);
    Host host;
    long cycles = 0;
    for (const std::string &point : row.choose(points, points.size())) {
        int of_this = all_cycles;
        for (const Use &use : uses) {
            if (point == use.name && !options.full) of_this = use.cycles_in_a_sample;
        }
        const std::string wrong = host.use(point, of_this);
        cycles += of_this;
        if (wrong.empty()) {
            row.held(point);
        } else {
            row.failed(point, wrong);
        }
    }
    return row.finish(std::to_string(cycles) + " times loaded and unloaded");
}

}  // namespace

int main(int argc, char **argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        fprintf(stderr, "load_and_unload: %s\n", error.what());
        return proof::row_missed;
    }
}
