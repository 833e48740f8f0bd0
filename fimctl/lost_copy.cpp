#include "fimctl/lost_copy.h"

#include "fimctl/array_reader.h"
#include "fimctl/failure.h"
#include "fimctl/log.h"

namespace fimctl {
namespace {

struct OwnPair {
    Pair pair;
    std::string source;
};

std::vector<OwnPair> pairs_of(const SnapshotRecord &snapshot) {
    std::vector<OwnPair> own;
    for (const ObjectRecord &object : snapshot.objects) {
        for (const PairRecord &record : object.pairs) own.push_back({record.pair, object.source});
    }
    return own;
}

std::vector<long> states_now(const std::vector<OwnPair> &own) {
    std::vector<Pair> asked;
    for (const OwnPair &one : own) asked.push_back(one.pair);
    try {
        return read_pair_states(asked, Step::states);
    } catch (const Failure &failure) {
        log::detail(std::string("the pairs were not looked at: ") + failure.what());
        return {};
    }
}

}  // namespace

void refuse_lost(Catalogue &catalogue, const SnapshotRecord &snapshot) {
    const auto own = pairs_of(snapshot);
    const auto states = states_now(own);
    std::string lost;
    for (size_t i = 0; i < states.size(); ++i) {
        if (states[i] == pair_state::split || states[i] == state_unknown) continue;
        const Pair &pair = own[i].pair;
        lost += (lost.empty() ? "pair " : "; pair ") + pair.device + "/" + pair.bcv + " is " +
                name_of_pair_state(states[i]) + " (array " + pair.symid + ", " + own[i].source +
                ")";
    }
    if (lost.empty()) return;
    const std::string reason = "the copy is lost: " + lost;
    catalogue.set_void(snapshot.id, reason);
    Failure failure(Step::judge, ExitCode::usage, reason);
    failure.id = static_cast<long>(snapshot.id);
    failure.next = "fimctl release " + std::to_string(snapshot.id);
    throw failure;
}

}  // namespace fimctl
