#include "lab/array/model/control.h"

#include <unordered_set>

namespace lab {
namespace {

bool known_action(int action) {
    switch (static_cast<BcvAction>(action)) {
    case BcvAction::full_establish:
    case BcvAction::split:
    case BcvAction::incremental_establish:
    case BcvAction::restore:
        return true;
    }
    return false;
}

bool is_establish(BcvAction action) {
    return action == BcvAction::full_establish || action == BcvAction::incremental_establish;
}

int admits(PairState state, BcvAction action) {
    switch (state) {
    case PairState::synchronising:
        return code::pair_synchronising;
    case PairState::synchronised:
        return action == BcvAction::split ? code::ok : code::pair_established;
    case PairState::splitting:
        return code::split_in_background;
    case PairState::split:
        return action == BcvAction::split ? code::pair_split : code::ok;
    case PairState::restoring:
        return code::pair_restoring;
    case PairState::restored:
        return action == BcvAction::restore ? code::pair_restored : code::ok;
    }
    return code::bad_argument;
}

bool splits_in_background(const World &world, const Device &device, Micros now) {
    for (const int64_t id : device.pairs) {
        const Pair &pair = world.pair(id);
        if (pair.state == PairState::splitting || pair.background_until > now) return true;
    }
    return false;
}

bool with_another(const World &world, const Device &bcv, int64_t pair) {
    for (const int64_t id : bcv.pairs) {
        if (id != pair && is_joined(world.pair(id).state)) return true;
    }
    return false;
}

bool standard_is_busy(const World &world, const Device &primary, int64_t pair) {
    for (const int64_t id : primary.pairs) {
        const PairState state = world.pair(id).state;
        if (id != pair && (state == PairState::synchronising || state == PairState::restoring)) {
            return true;
        }
    }
    return false;
}

int find_pair(const World &world, const std::string &symid, const PairNames &names,
              const Pair **found) {
    const Device *primary = world.device(symid, names.first);
    const Device *bcv = world.device(symid, names.second);
    if (primary == nullptr || bcv == nullptr) return code::device_unknown;
    if (primary->bcv) return code::not_a_standard;
    if (!bcv->bcv) return code::not_a_bcv;
    *found = world.pair_of(primary->id, bcv->id);
    return *found == nullptr ? code::pair_unknown : code::ok;
}

int check_pair(const World &world, Micros now, const Pair &pair, BcvAction action) {
    const Device &primary = world.device(pair.primary), &bcv = world.device(pair.bcv);
    if (splits_in_background(world, primary, now)) return code::split_in_background;
    if (splits_in_background(world, bcv, now)) return code::split_in_background_too;
    if (const int answer = admits(pair.state, action)) return answer;
    if (with_another(world, bcv, pair.id)) return code::bcv_with_another;
    if (action == BcvAction::restore && standard_is_busy(world, primary, pair.id)) {
        return code::standard_busy;
    }
    return code::ok;
}

bool associated(const World &world, const Pair &pair, const std::string &group) {
    return world.device(pair.primary).group == group && world.device(pair.bcv).group == group;
}

}  // namespace

int plan_control(const World &world, Micros now, const std::string &symid,
                 const std::vector<PairNames> &names, int action, Control *plan) {
    if (!known_action(action)) return code::action_unknown;
    if (world.array(symid) == nullptr) return code::array_unknown;
    if (names.empty()) return code::bad_argument;
    *plan = {static_cast<BcvAction>(action), symid, {}};
    std::unordered_set<int64_t> written;  // devices that the call writes: each only once
    for (const PairNames &one : names) {
        const Pair *pair = nullptr;
        if (const int answer = find_pair(world, symid, one, &pair)) return answer;
        if (const int answer = check_pair(world, now, *pair, plan->action)) return answer;
        if (!written.insert(pair->bcv).second) return code::device_twice;
        if (plan->action == BcvAction::restore && !written.insert(pair->primary).second) {
            return code::device_twice;
        }
        plan->pairs.push_back(pair->id);
    }
    return code::ok;
}

int pair_of_ldev(const World &world, const std::string &group, const std::string &ldev,
                 std::string *symid, PairNames *named) {
    const std::vector<int64_t> &members = world.group(group);
    if (members.empty()) return code::group_unknown;
    int answer = code::ldev_unknown;
    for (const int64_t id : members) {
        const Device &device = world.device(id);
        if (device.ldev != ldev) continue;
        answer = code::pair_unknown;
        for (const int64_t pair_id : device.pairs) {
            const Pair &pair = world.pair(pair_id);
            if (!associated(world, pair, group)) continue;
            *symid = device.symid;
            *named = {world.device(pair.primary).name, world.device(pair.bcv).name};
            return code::ok;
        }
    }
    return answer;
}

int pairs_of_group(const World &world, const std::string &group, std::string *symid,
                   std::vector<PairNames> *names) {
    const std::vector<int64_t> &members = world.group(group);
    if (members.empty()) return code::group_unknown;
    for (const int64_t id : members) {
        const Device &device = world.device(id);
        if (device.bcv) continue;
        for (const int64_t pair_id : device.pairs) {
            const Pair &pair = world.pair(pair_id);
            if (!associated(world, pair, group)) continue;
            if (!names->empty() && *symid != device.symid) return code::bad_argument;
            *symid = device.symid;
            names->emplace_back(device.name, world.device(pair.bcv).name);
            break;
        }
    }
    return names->empty() ? code::pair_unknown : code::ok;
}

Micros duration_of(uint64_t tracks, uint64_t rate) {
    if (rate == 0) return 0;
    const uint64_t bytes_a_second = rate << 20;
    return static_cast<Micros>(tracks * track_size * uint64_t{micros_per_second} / bytes_a_second);
}

void apply_control(World *world, Micros now, const Control &plan,
                   const std::vector<uint64_t> &tracks) {
    const Settings &settings = world->settings();
    for (size_t i = 0; i < plan.pairs.size(); ++i) {
        Pair &pair = world->change_pair(plan.pairs[i]);
        if (plan.action == BcvAction::split) {
            world->begin(pair, PairState::splitting, now, settings.split_time);
            pair.background_until = now + settings.split_time + settings.background_time;
            continue;
        }
        pair.tracks = tracks[i];
        pair.established_before = true;
        world->begin(pair,
                     is_establish(plan.action) ? PairState::synchronising : PairState::restoring,
                     now, duration_of(tracks[i], settings.rate));
    }
}

}  // namespace lab
