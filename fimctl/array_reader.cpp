#include "fimctl/array_reader.h"

#include <unistd.h>

#include <map>
#include <memory>

#include "fimctl/array_session.h"
#include "fimctl/catalogue.h"
#include "fimctl/paths.h"

namespace fimctl {
namespace {

long state_of(const SymDevice &device, const std::string &bcv) {
    for (int32_t i = 0; i < device.bcv_count && i < SYM_MAX_BCVS; ++i) {
        if (bcv == device.bcvs[i].bcvdev_sym_devname) return device.bcvs[i].bcv_pair_state;
    }
    return state_unknown;
}

std::vector<long> read_in_this_process(const std::vector<Pair> &pairs) {
    ArraySession session;
    session.open();
    std::map<std::pair<std::string, std::string>, std::unique_ptr<SymDevice>> shown;
    std::vector<long> states;
    for (const Pair &pair : pairs) {
        auto &device = shown[{pair.symid, pair.device}];
        if (device == nullptr) {
            device = std::make_unique<SymDevice>();
            const int code = session.show_device(pair.symid, pair.device, *device);
            if (code != 0) {
                throw array_unreachable("cannot read device " + pair.device + " of array " +
                                        pair.symid + ": " + session.reason(code));
            }
        }
        states.push_back(state_of(*device, pair.bcv));
    }
    return states;
}

}  // namespace

const char *name_of_pair_state(long state) {
    switch (state) {
    case pair_state::synchronising:
        return "synchronising";
    case pair_state::synchronised:
        return "synchronised";
    case pair_state::splitting:
        return "splitting";
    case pair_state::split:
        return "split";
    case pair_state::restoring:
        return "restoring";
    case pair_state::restored:
        return "restored";
    default:
        return "unknown";
    }
}

std::vector<long> read_pair_states(const std::vector<Pair> &pairs, Step step) {
    if (pairs.empty()) return {};
    return read_elsewhere(step, [&pairs] { return Message(read_in_this_process(pairs)); });
}

bool has_array_database() {
    return access(path::array_database, F_OK) == 0;
}

void probe_array() {
    read_elsewhere(Step::array, [] {
        ArraySession session;
        session.require_functions();
        if (has_array_database()) session.open();
        return Message(true);
    });
}

}  // namespace fimctl
