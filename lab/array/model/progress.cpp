// Transitions of a pair over virtual time, and what must hold at any time.
#include "lab/array/model/control.h"
#include "lab/array/model/world.h"

namespace lab {
namespace {

PairState end_of(PairState state) {
    switch (state) {
    case PairState::synchronising:
        return PairState::synchronised;
    case PairState::splitting:
        return PairState::split;
    case PairState::restoring:
        return PairState::restored;
    default:
        return state;
    }
}

}  // namespace

void World::begin(Pair &pair, PairState state, Micros now, Micros duration) {
    if (pair.ends != 0) pending_.erase({pair.ends, pair.id});
    pair.started = now;
    pair.ends = 0;
    if (duration == 0) {
        pair.state = end_of(state);
        return;
    }
    pair.state = state;
    pair.ends = now + duration;
    pending_.insert({pair.ends, pair.id});
}

std::vector<int64_t> World::settle(Micros now) {
    std::vector<int64_t> settled;
    while (!pending_.empty() && pending_.begin()->first <= now) {
        Pair &pair = change_pair(pending_.begin()->second);
        pending_.erase(pending_.begin());
        pair.state = end_of(pair.state);
        pair.ends = 0;
        settled.push_back(pair.id);
    }
    return settled;
}

int percent_done(const Pair &pair, Micros now) {
    if (pair.ends == 0) return 100;
    if (now <= pair.started) return 0;
    if (now >= pair.ends) return 100;
    return static_cast<int>(100 * (now - pair.started) / (pair.ends - pair.started));
}

bool is_joined(PairState state) {
    return state != PairState::split;
}

std::vector<std::string> broken_invariants(const World &world) {
    std::vector<std::string> found;
    for (const auto &[id, device] : world.devices()) {
        if (!device.bcv) continue;
        int joined = 0;
        for (const int64_t pair : device.pairs) joined += is_joined(world.pair(pair).state) ? 1 : 0;
        if (joined > 1) {
            found.push_back("BCV " + device.symid + " " + device.name +
                            " is joined with more than one standard device");
        }
    }
    for (const auto &[id, pair] : world.pairs()) {
        const bool moves = end_of(pair.state) != pair.state;
        if (moves != (pair.ends != 0)) {
            found.push_back("pair " + std::to_string(id) + " is " + name_of(pair.state) +
                            (moves ? " without an end" : " and still moves"));
        }
    }
    std::map<std::string, uint64_t> used;
    for (const auto &[id, device] : world.devices()) {
        if (device.bcv) continue;
        uint64_t &end = used[device.symid];
        if (device.offset != end) {
            found.push_back("device " + device.symid + " " + device.name +
                            " does not begin where the one before it ends");
        }
        end = device.offset + device.size;
    }
    return found;
}

}  // namespace lab
