// A small array to try things on: standard devices 00A1 and 00A2, BCVs 01A1, 01A2 and 01B1, all of
// 64 MiB in the group dg. 00A1 is paired with 01A1 and 01B1, 00A2 with 01A2 and 01A1.
#pragma once

#include <string>

#include "lab/array/model/control.h"
#include "lab/array/model/world.h"

namespace test {

inline const std::string symid = "000184500123";
constexpr uint64_t device_size = uint64_t{64} << 20;
constexpr uint64_t device_tracks = device_size / lab::track_size;

inline void build_small_array(lab::World *world) {
    world->add_array(symid, 0);
    for (const char *name : {"00A1", "00A2"}) world->add_device(symid, name, device_size, false);
    for (const char *name : {"01A1", "01A2", "01B1"}) {
        world->add_device(symid, name, device_size, true);
    }
    for (const char *name : {"00A1", "00A2", "01A1", "01A2", "01B1"}) {
        world->set_group(symid, name, "dg", "");
    }
    world->add_pair(symid, "00A1", "01A1");
    world->add_pair(symid, "00A1", "01B1");
    world->add_pair(symid, "00A2", "01A2");
    world->add_pair(symid, "00A2", "01A1");
}

// The small array under control at a time of its own.
struct SmallArray {
    SmallArray() {
        build_small_array(&world);
        world.change_settings().rate = 64;  // a full establish takes a second
    }
    // Plans and, when that went well, applies.
    int control(const std::string &primary, const std::string &bcv, int action,
                uint64_t tracks = device_tracks) {
        world.settle(now);
        lab::Control plan;
        const int answer = lab::plan_control(world, now, symid, {{primary, bcv}}, action, &plan);
        if (answer == 0) lab::apply_control(&world, now, plan, {tracks});
        return answer;
    }
    int control(lab::BcvAction action) { return control("00A1", "01A1", static_cast<int>(action)); }
    void wait(double seconds) {
        now += static_cast<lab::Micros>(seconds * lab::micros_per_second);
        world.settle(now);
    }
    const lab::Pair &pair(const std::string &primary = "00A1", const std::string &bcv = "01A1") {
        return *world.pair_of(world.device(symid, primary)->id, world.device(symid, bcv)->id);
    }
    // Puts the first pair into a state the way a user would.
    void reach(lab::PairState state);

    lab::World world;
    lab::Micros now = 0;
};

inline void SmallArray::reach(lab::PairState state) {
    using lab::BcvAction, lab::PairState;
    switch (state) {
    case PairState::split:
        return;
    case PairState::synchronising:
        control(BcvAction::full_establish);
        return;
    case PairState::synchronised:
        control(BcvAction::full_establish);
        wait(1);
        return;
    case PairState::splitting:
        reach(PairState::synchronised);
        world.change_settings().split_time = 5 * lab::micros_per_second;
        control(BcvAction::split);
        return;
    case PairState::restoring:
        control(BcvAction::restore);
        return;
    case PairState::restored:
        control(BcvAction::restore);
        wait(1);
        return;
    }
}

}  // namespace test
