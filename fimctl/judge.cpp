#include "fimctl/judge.h"

#include <map>
#include <set>

#include "fimctl/array_reader.h"

namespace fimctl {
namespace {

std::string name_of(const Pair &pair) {
    return "pair " + pair.device + "/" + pair.bcv + " of array " + pair.symid;
}

std::string with_name(long state) {
    return std::to_string(state) + " (" + name_of_pair_state(state) + ")";
}

}  // namespace

std::vector<std::string> judge(const std::vector<PairRecord> &pairs,
                               const std::vector<std::pair<std::string, std::string>> &split_list) {
    const std::set<std::pair<std::string, std::string>> named(split_list.begin(), split_list.end());
    std::map<std::string, std::set<std::string>> arrays_of;
    for (const PairRecord &record : pairs) {
        arrays_of[record.pair.device].insert(record.pair.symid);
    }
    std::vector<std::string> reasons;
    for (const PairRecord &record : pairs) {
        const Pair &pair = record.pair;
        if (record.after != pair_state::split) {
            reasons.push_back(name_of(pair) + " is not split: state " + with_name(record.after));
        } else if (record.before == pair_state::split) {
            reasons.push_back(name_of(pair) + " was split before this commit");
        } else if (record.before != state_unknown) {
            continue;
        } else if (arrays_of[pair.device].size() > 1) {
            reasons.push_back(name_of(pair) +
                              " has the name of a device on another array of this snapshot");
        } else if (!named.contains({pair.device, pair.bcv})) {
            reasons.push_back(name_of(pair) + " was not split by this commit");
        }
    }
    return reasons;
}

std::vector<std::string> judge_objects(const std::vector<ObjectRecord> &objects) {
    std::set<std::string> copied_groups;
    for (const ObjectRecord &object : objects) {
        const CheckpointText text(object.text);
        if (text.is_imported_group() && !text.pairs().empty()) {
            copied_groups.insert(text.value("HDEF-vol_group"));
        }
    }
    std::vector<std::string> reasons;
    for (const ObjectRecord &object : objects) {
        const CheckpointText text(object.text);
        if (!text.pairs().empty()) continue;
        if (text.is_imported_group() && copied_groups.contains(text.value("HDEF-vol_group"))) {
            continue;
        }
        reasons.push_back(object.source + " names no pair: nothing of it was split");
    }
    return reasons;
}

}  // namespace fimctl
