#include "lab/array/daemon/engine.h"

#include <chrono>
#include <iostream>

namespace lab {
namespace {

int64_t steady_nanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool is_ready(const World &world, const Device &bcv) {
    for (const int64_t id : bcv.pairs) {
        if (is_joined(world.pair(id).state)) return false;
    }
    return true;
}

// Takes BCVs away from their hosts: all of them, or none when one cannot be taken.
void take_from_hosts(Media *media, const std::vector<DataPair> &pairs) {
    std::vector<const Device *> taken;
    for (const DataPair &pair : pairs) {
        if (media->ready(*pair.bcv)) taken.push_back(pair.bcv);  // a restored one is taken already
    }
    try {
        media->set_ready(taken, false);
    } catch (const MediaError &) {
        media->set_ready(taken, true);
        throw;
    }
}

}  // namespace

Micros steady_time() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string node_path(const HostRecord &host, const std::string &path) {
    return host.dev + path.substr(std::string("/dev").size());
}

Engine::Engine(const std::string &state_file, std::unique_ptr<Media> media)
    : store_(state_file), media_(std::move(media)), clock_(0, 0, false), sessions_(1) {
    store_.load(&world_, &faults_);
    const Settings &settings = world_.settings();
    clock_ = Clock(settings.clock, steady_time(), settings.clock_running);
    sessions_ = Sessions(settings.next_session);
    for (const auto &[id, device] : world_.devices()) {
        media_->attach(device, !device.bcv || is_ready(world_, device));
    }
    for (const auto &[at, view] : world_.views()) expose(view);
    settle();
}

void Engine::settle() {
    const std::vector<int64_t> settled = world_.settle(now());
    if (settled.empty()) return;
    std::vector<const Device *> split;
    for (const int64_t id : settled) {
        const Pair &pair = world_.pair(id);
        if (pair.state == PairState::split) split.push_back(&world_.device(pair.bcv));
    }
    try {
        media_->set_ready(split, true);
    } catch (const MediaError &error) {
        std::cerr << "tfarrayd: " << error.what() << "\n";
    }
    save();
}

Micros Engine::next_settle() const {
    const Micros end = world_.next_end();
    return end == 0 ? -1 : clock_.until(end, steady_time());
}

int Engine::save() {
    if (!world_.changes.any()) return code::ok;
    Settings &settings = world_.change_settings();
    settings.clock = now();
    settings.clock_running = clock_.running();
    settings.next_session = sessions_.next();
    try {
        store_.save(&world_, faults_);
        return code::ok;
    } catch (const StoreError &error) {
        std::cerr << "tfarrayd: " << error.what() << "\n";
        return code::store_failed;
    }
}

int Engine::control(const std::string &symid, const std::vector<PairNames> &names, int action) {
    settle();
    Control plan;
    if (const int answer = plan_control(world_, now(), symid, names, action, &plan)) return answer;
    try {
        apply_control(&world_, now(), plan, move_data(plan));
    } catch (const MediaError &error) {
        std::cerr << "tfarrayd: " << error.what() << "\n";
        return error.number;
    }
    return save();
}

std::vector<DataPair> Engine::data_pairs(const Control &plan) const {
    std::vector<DataPair> pairs;
    for (const int64_t id : plan.pairs) {
        const Pair &pair = world_.pair(id);
        pairs.push_back({&world_.device(pair.primary), &world_.device(pair.bcv)});
    }
    return pairs;
}

std::vector<uint64_t> Engine::move_data(const Control &plan) {
    switch (plan.action) {
    case BcvAction::full_establish:
    case BcvAction::incremental_establish:
        return join(plan);
    case BcvAction::restore:
        return restore(plan);
    case BcvAction::split:
        break;
    }
    const std::vector<DataPair> pairs = data_pairs(plan);
    const int64_t begun = steady_nanoseconds();
    media_->cut(pairs);
    last_cut_ = {begun, steady_nanoseconds()};
    if (world_.settings().split_time == 0) {
        std::vector<const Device *> bcvs;
        for (const DataPair &pair : pairs) bcvs.push_back(pair.bcv);
        media_->set_ready(bcvs, true);
    }
    return std::vector<uint64_t>(pairs.size(), 0);
}

// The BCVs go to their standard devices and away from the hosts. Nothing is copied yet: what a BCV
// holds is seen at the next split only, and that one copies.
std::vector<uint64_t> Engine::join(const Control &plan) {
    const std::vector<DataPair> pairs = data_pairs(plan);
    std::vector<std::unique_ptr<Claim>> claims;
    for (const DataPair &pair : pairs) claims.push_back(media_->claim(*pair.bcv));
    std::vector<uint64_t> tracks;
    for (const DataPair &pair : pairs) {
        tracks.push_back(plan.action == BcvAction::full_establish ? pair.primary->size / track_size
                                                                  : media_->changed_tracks(pair));
    }
    take_from_hosts(media_.get(), pairs);
    return tracks;
}

std::vector<uint64_t> Engine::restore(const Control &plan) {
    const std::vector<DataPair> pairs = data_pairs(plan);
    std::vector<std::unique_ptr<Claim>> claims;
    std::vector<uint64_t> tracks;
    for (const DataPair &pair : pairs) {
        claims.push_back(media_->claim(*pair.bcv));
        claims.push_back(media_->claim(*pair.primary));
    }
    for (const DataPair &pair : pairs) tracks.push_back(media_->changed_tracks(pair));
    media_->copy_back(pairs);
    take_from_hosts(media_.get(), pairs);
    return tracks;
}

const Device &Engine::create_device(const std::string &symid, const std::string &name,
                                    uint64_t size, bool bcv) {
    const Device &device = world_.add_device(symid, name, size, bcv);
    try {
        media_->attach(device, true);
    } catch (const MediaError &) {
        world_.undo_device(device.id);
        throw;
    }
    return device;
}

void Engine::pair(const std::string &symid, const std::string &primary, const std::string &bcv) {
    world_.add_pair(symid, primary, bcv);
}

void Engine::expose(const View &view) {
    const HostRecord *host = world_.host(view.host);
    if (host == nullptr) return;
    for (const Path &one : view.paths) {
        media_->expose(world_.device(view.device), node_path(*host, one.path), one.down);
    }
}

void Engine::add_host(const HostRecord &host) {
    world_.add_host(host);
    try {
        if (listen) listen(host);
        for (auto at = world_.views().lower_bound({host.name, 0});
             at != world_.views().end() && at->first.first == host.name; ++at) {
            expose(at->second);
        }
    } catch (...) {
        world_.remove_host(host.name);
        throw;
    }
}

void Engine::mask(const std::string &symid, const std::string &name, const std::string &host,
                  const std::vector<Path> &paths) {
    const View &view = world_.mask(symid, name, host, paths);
    try {
        expose(view);
    } catch (const MediaError &) {
        world_.unmask(symid, name, host);
        throw;
    }
}

void Engine::unmask(const std::string &symid, const std::string &name, const std::string &host) {
    const View gone = world_.unmask(symid, name, host);
    const HostRecord *record = world_.host(host);
    if (record == nullptr) return;
    for (const Path &one : gone.paths) media_->hide(node_path(*record, one.path));
}

void Engine::set_path(const std::string &host, const std::string &path, bool down) {
    const View &view = world_.set_path(host, path, down);
    const HostRecord *record = world_.host(host);
    if (record == nullptr) return;
    media_->expose(world_.device(view.device), node_path(*record, path), down);
}

void Engine::advance_clock(Micros by) {
    clock_.advance(by);
    world_.changes.settings = true;
    settle();
    save();
}

void Engine::run_clock(bool running) {
    clock_.run(steady_time(), running);
    world_.changes.settings = true;
    save();
}

std::vector<std::string> Engine::check() {
    std::vector<std::string> found = broken_invariants(world_);
    for (const auto &[id, device] : world_.devices()) {
        const bool wanted = !device.bcv || is_ready(world_, device);
        if (media_->ready(device) != wanted) {
            found.push_back("device " + device.symid + " " + device.name +
                            (wanted ? " has no capacity" : " can be read while it is joined"));
        }
    }
    return found;
}

}  // namespace lab
