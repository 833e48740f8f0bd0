#include "proof/kill_points/ground.h"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "fimctl/checkpoint_text.h"
#include "fimctl/restore/texts.h"
#include "proof/kill_points/recovery.h"

namespace proof {
namespace {

namespace fs = std::filesystem;

constexpr int killed_status = 137;
constexpr int restored = 8;  // state of a pair

std::string read_file(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// A path of the hosts' shared folder, as this process sees it.
fs::path seen_from_here(const test::LabWorld &world, const std::string &path) {
    const std::string shared = "/exchange/";
    if (!path.starts_with(shared)) throw std::runtime_error(path + " is not below " + shared);
    return world.exchange() / path.substr(shared.size());
}

}  // namespace

Ground::Ground(const Scenario &scenario) : scenario_(scenario) {
    for (const auto &object : objects_of(scenario.processes.front().steps)) {
        const std::string &source = object.second.source;
        if (source.starts_with("/dev/")) devices_.push_back(source);
    }
}
Ground::~Ground() = default;

void Ground::make_world() {
    if (world_ != nullptr) return;
    auto world = std::make_unique<test::LabWorld>(scenario_.world, scenario_.hosts);
    world->start();
    install_tools(*world);
    for (const std::string &line : scenario_.prepare) world->host(line);
    world_ = std::move(world);
    // As between two points: what the preparation wrote may be on its way to a mirror, and a mirror
    // that is not yet synchronised is another case.
    settle();
    // The first round makes what stays: the database of the array, mount points, mirrors that run.
    Wrong wrong;
    run_all(0, scenario_.processes.size(), false, wrong);
    if (!wrong.empty()) throw std::runtime_error(scenario_.name + " fails as it is: " + wrong[0]);
    if (!world_->counter_files().empty())
        throw std::runtime_error(scenario_.name +
                                 " leaves counter files: " + world_->counter_files());
    before_ = picture_at_the_end();
    settle();
}

void Ground::prepare(const Process &process) {
    world_->on(process.host);
    for (const std::string &line : process.before) world_->host(line);
}

void Ground::run(const Process &process, Wrong &wrong) {
    world_->on(process.host);
    const test::Phase phase = world_->phase(process.steps);
    for (const test::Call &call : phase.calls) {
        if (call.status == 0) continue;
        wrong.push_back(process.name + ": " + call.step + " gave " + std::to_string(call.status) +
                        ": " + call.errmsg);
    }
    if (wrong.empty()) return follow(process);
    // What a failed command said stays for whoever looks after the host.
    wrong.push_back(world_->host("cat /tmp/QfMS* 2>/dev/null; true"));
}

void Ground::follow(const Process &process) {
    world_->on(process.host);
    for (const std::string &line : process.after) world_->host(line);
}

void Ground::run_all(size_t begin, size_t end, bool prepared, Wrong &wrong) {
    for (size_t i = begin; i < end && wrong.empty(); ++i) {
        if (!prepared) prepare(scenario_.processes[i]);
        prepared = false;
        run(scenario_.processes[i], wrong);
    }
}

int Ground::run_watched(const Process &process, const Words &options, std::string &said) {
    std::string command = "/exchange/tfphase /exchange/report 2";
    for (const std::string &step : process.steps) command += " " + quoted(step);
    int status = 0;
    world_->on(process.host);
    said = world_->host(killing_line(options, command), &status);
    return status;
}

void Ground::settle() {
    world_->on(scenario_.hosts.front());
    for (const std::string &line : scenario_.settle) world_->host(line);
    world_->host("rm -rf /exchange/killed /exchange/*.taken_down");
}

// Before anything is settled that a process has left, with what the scenario itself compares.
std::string Ground::picture_at_the_end() {
    world_->array("clock advance 60");
    std::string picture = picture_of(*world_, scenario_.hosts, devices_);
    for (const std::string &line : scenario_.content) picture += world_->host(line);
    return picture;
}

std::vector<std::vector<Place>> Ground::places() {
    make_world();
    std::vector<std::vector<Place>> all;
    for (const Process &process : scenario_.processes) {
        prepare(process);
        std::string said;
        if (run_watched(process, {}, said) != 0) {
            throw std::runtime_error(process.name + " fails as it is: " + said);
        }
        follow(process);
        all.push_back(seen_places(*world_));
    }
    settle();
    return all;
}

bool Ground::texts_are_kept(const Process &process) const {
    for (const auto &object : objects_of(process.steps)) {
        if (object.second.text.empty()) return false;
        if (read_file(seen_from_here(*world_, object.second.text)).empty()) return false;
    }
    return true;
}

void Ground::write_taken_down(const Process &process) const {
    for (const auto &object : objects_of(process.steps)) {
        const std::string &text = object.second.text;
        std::ofstream(seen_from_here(*world_, taken_down(text)))
            << fimctl::as_if_mounted(read_file(seen_from_here(*world_, text)));
    }
}

// Of pairs that a killed restore has restored the texts must not ask for it again: the array
// refuses the whole call. What the restore has begun it ends by itself, which is waited for.
void Ground::leave_restored_out(const Process &process) const {
    std::vector<fimctl::Pair> done;
    const auto shown = nlohmann::json::parse(world_->array("show --json"));
    for (const auto &array : shown["arrays"]) {
        for (const auto &pair : array["pairs"]) {
            if (pair["state"] == restored)
                done.push_back({array["symid"], pair["primary"], pair["bcv"]});
        }
    }
    for (const auto &object : objects_of(process.steps)) {
        const fs::path file = seen_from_here(*world_, object.second.text);
        const std::string text = object.second.source.empty() ? read_file(file) : "";
        const fimctl::CheckpointText parsed(text);
        if (parsed.value("HDEF-restore") != "1") continue;
        std::ofstream(file) << fimctl::text_for_restore(text, parsed.value("HDEF-mount_point"),
                                                        done);
    }
}

// Whether the clone tool made the copies of the process's texts.
bool Ground::is_shown_once(const Process &process) const {
    for (const auto &object : objects_of(process.steps)) {
        if (object.second.text.empty()) continue;
        const fimctl::CheckpointText text(read_file(seen_from_here(*world_, object.second.text)));
        if (text.is_volume() && !text.is_imported_group()) return true;
    }
    return false;
}

void Ground::recover(size_t killed, bool gives_up, Wrong &wrong) {
    const Process &process = scenario_.processes[killed];
    Left left;
    left.texts_kept = texts_are_kept(process);
    left.shown_once = is_shown_once(process);
    left.gives_up = gives_up;
    const Recovery recovery = recovery_of(scenario_, killed, left);
    if (has_step(process.steps, "volumes")) write_taken_down(process);
    // What the array has been told before the kill it does meanwhile.
    world_->array("clock advance 60");
    world_->on(process.host);
    for (const std::string &line : recovery.before) world_->host(line);
    leave_restored_out(process);
    if (recovery.next == killed + 1) follow(process);
    for (const Process &first : recovery.first) {
        if (wrong.empty()) run(first, wrong);
    }
    run_all(recovery.next, scenario_.processes.size(), recovery.prepared, wrong);
}

void Ground::kill_it(const Process &process, const Kill &kill, Wrong &wrong) {
    // A text of an earlier round is none of this one's.
    if (has_step(process.steps, "freeze")) {
        for (const auto &object : objects_of(process.steps)) {
            if (!object.second.text.empty())
                fs::remove(seen_from_here(*world_, object.second.text));
        }
    }
    world_->on(scenario_.hosts.front());
    const std::string before = originals(*world_, devices_);
    std::string said;
    const int status = run_watched(process, options_of(kill), said);
    if (status != killed_status || !was_met(*world_)) {
        wrong.push_back("the call was not met: status " + std::to_string(status) + ": " + said);
    }
    check_after_kill(*world_, scenario_.hosts, wrong);
    // What a restore writes over, and takes away meanwhile, is compared when it was ended.
    if (process.name == "restore") return;
    world_->on(scenario_.hosts.front());
    const std::string changed = difference(before, originals(*world_, devices_));
    if (!changed.empty()) wrong.push_back("the kill changed the originals:" + changed);
}

void Ground::tell() const {
    printf("%s\n", read_file(world_->exchange() / "report").c_str());
    printf("%s\n", picture_of(*world_, scenario_.hosts, devices_).c_str());
}

Wrong Ground::kill(size_t number, const Kill &kill, bool verbose) {
    Wrong wrong;
    try {
        make_world();
        run_all(0, number, false, wrong);
        const Process &process = scenario_.processes.at(number);
        prepare(process);
        kill_it(process, kill, wrong);
        if (verbose) tell();
        recover(number, kill.after, wrong);
        const std::string changed = difference(before_, picture_at_the_end());
        if (!changed.empty()) wrong.push_back("in the end the world is another one:" + changed);
        settle();
    } catch (const std::runtime_error &error) {
        wrong.push_back(error.what());
    }
    if (!wrong.empty()) world_.reset();
    return wrong;
}

}  // namespace proof
