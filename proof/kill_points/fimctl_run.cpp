#include "proof/kill_points/fimctl_run.h"

#include <cstdio>

#include "proof/kit/processes.h"

namespace proof {
namespace {

const Words hosts = {"client1"};

constexpr char prepare[] =
    "mkfs.ext4 -q /dev/qz/dmp/p0 && mkdir /data && mount /dev/qz/dmp/p0 /data &&"
    " head -c 100000 /dev/urandom >/data/file && sync -f /data";
// The copy is compared with the original, which nobody changes.
constexpr char run_line[] = "fimctl -q run /data -- cmp /data/file {}/file";
constexpr char without_waits[] = "LD_PRELOAD=/usr/lib/tflab/libtflabsleep.so timeout -s KILL 100 ";
constexpr char leftovers[] =
    "fimctl orphans 2>/dev/null; ls -A /var/lib/fimctl/mnt /var/lib/fimctl/tmp | grep -v : | grep "
    ".;"
    " find /run/fimctl /tmp -type f; true";

}  // namespace

FimctlRun::FimctlRun() = default;
FimctlRun::~FimctlRun() = default;

void FimctlRun::make_world() {
    if (world_ != nullptr) return;
    auto world = std::make_unique<test::LabWorld>("small", hosts);
    world->start();
    install_tools(*world);
    world->host(prepare);
    world->host(std::string(without_waits) + run_line);
    world_ = std::move(world);
    before_ = picture_of(*world_, hosts, {});
}

int FimctlRun::run_watched(const Words &options, std::string &said) {
    Words all = {"--follow"};
    all.insert(all.end(), options.begin(), options.end());
    int status = 0;
    said = world_->host(killing_line(all, run_line), &status);
    return status;
}

std::vector<Place> FimctlRun::places() {
    make_world();
    std::string said;
    if (run_watched({}, said) != 0) throw std::runtime_error("fimctl fails as it is: " + said);
    return seen_places(*world_);
}

void FimctlRun::recover(Wrong &wrong) {
    const auto expect = [&](const std::string &line, const std::string &nothing) {
        int status = 0;
        const std::string said = world_->host(line, &status);
        if (status != 0 || (nothing == "nothing" && !said.empty())) {
            wrong.push_back(line + ": status " + std::to_string(status) + ": " + said);
        }
    };
    expect(std::string(without_waits) + "fimctl cleanup", "");
    expect(leftovers, "nothing");
    expect(std::string(without_waits) + run_line, "");
    expect(leftovers, "nothing");
    world_->host("rm -rf /exchange/killed");
    const std::string changed = difference(before_, picture_of(*world_, hosts, {}));
    if (!changed.empty()) wrong.push_back("in the end the world is another one:" + changed);
}

Wrong FimctlRun::kill(const Kill &kill, bool verbose) {
    Wrong wrong;
    try {
        make_world();
        const std::string original = originals(*world_, {});
        std::string said;
        run_watched(options_of(kill), said);
        if (!was_met(*world_)) wrong.push_back("the call was not met: " + said);
        if (verbose) printf("%s\n%s", said.c_str(), world_->host("fimctl orphans").c_str());
        // A guardian that was killed has left its file system frozen, and cleanup is what thaws it.
        int status = 0;
        const std::string running = world_->host("exec " + std::string(list_processes), &status);
        if (status != 0) wrong.push_back("after the kill: " + running);
        recover(wrong);
        check_after_kill(*world_, hosts, wrong);
        const std::string changed = difference(original, originals(*world_, {}));
        if (!changed.empty()) wrong.push_back("the kill changed the originals:" + changed);
    } catch (const std::runtime_error &error) {
        wrong.push_back(error.what());
    }
    if (!wrong.empty()) world_.reset();
    return wrong;
}

}  // namespace proof
