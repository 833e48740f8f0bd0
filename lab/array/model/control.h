// Control of BCV pairs: which action a pair admits, and what it makes of the pair.
//
//                 full/incremental establish        split                  restore
//   split                -> synchronising        pair_split             -> restoring
//   synchronising      pair_synchronising      pair_synchronising     pair_synchronising
//   synchronised       pair_established          -> splitting           pair_established
//   splitting          split_in_background     split_in_background    split_in_background
//   restoring          pair_restoring          pair_restoring         pair_restoring
//   restored             -> synchronising        -> splitting           pair_restored
//
// A call is planned first, which changes nothing; then its data are moved; then the plan is
// applied. One pair that cannot be controlled refuses the whole call.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "lab/array/model/world.h"

namespace lab {

struct Control {
    BcvAction action = BcvAction::split;
    std::string symid;
    std::vector<int64_t> pairs;
};

// Names of a standard device and its BCV.
using PairNames = std::pair<std::string, std::string>;

// Answers a code; fills *plan on ok. The world has been settled for `now`.
int plan_control(const World &world, Micros now, const std::string &symid,
                 const std::vector<PairNames> &names, int action, Control *plan);
// The pair of a logical device of a group, through its standard device or its BCV: of several BCVs
// the first of the same group. `named` gets array, standard device and BCV.
int pair_of_ldev(const World &world, const std::string &group, const std::string &ldev,
                 std::string *symid, PairNames *named);
// All pairs whose both devices belong to the group; one array only.
int pairs_of_group(const World &world, const std::string &group, std::string *symid,
                   std::vector<PairNames> *names);

// `tracks` holds for each pair of the plan how many tracks it moves (0 for a split).
void apply_control(World *world, Micros now, const Control &plan,
                   const std::vector<uint64_t> &tracks);

// How long `tracks` take at `rate` MiB a second; a rate of 0 takes no time.
Micros duration_of(uint64_t tracks, uint64_t rate);
int percent_done(const Pair &pair, Micros now);
// Whether the BCV belongs to its standard device in this state, and no host may read it.
bool is_joined(PairState state);

}  // namespace lab
