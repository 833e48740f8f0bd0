#include "lab/array/model/faults.h"

#include <algorithm>

namespace lab {
namespace {

bool concerns(const Fault &fault, const std::string &function, const std::string &host,
              const std::vector<std::string> &devices) {
    if (fault.function != function) return false;
    if (!fault.host.empty() && fault.host != host) return false;
    return fault.device.empty() ||
           std::find(devices.begin(), devices.end(), fault.device) != devices.end();
}

}  // namespace

int64_t Faults::add(Fault fault) {
    if (fault.function.empty()) throw Refused("a fault needs a function");
    if (fault.at < 1) throw Refused("a fault counts calls from 1");
    if (fault.code == 0 && fault.delay_ms <= 0) {
        throw Refused("a fault needs a code or a delay");
    }
    fault.id = all_.empty() ? 1 : all_.back().id + 1;
    fault.seen = 0;
    all_.push_back(fault);
    return fault.id;
}

bool Faults::clear(int64_t id) {
    if (id == 0) {
        all_.clear();
        return true;
    }
    return std::erase_if(all_, [id](const Fault &fault) { return fault.id == id; }) != 0;
}

Verdict Faults::ask(const std::string &function, const std::string &host,
                    const std::vector<std::string> &devices, bool *counted) {
    Verdict verdict;
    for (Fault &fault : all_) {
        if (!concerns(fault, function, host, devices)) continue;
        ++fault.seen;
        *counted = true;
        if (fault.seen != fault.at && !(fault.for_good && fault.seen > fault.at)) continue;
        verdict.delay_ms += fault.delay_ms;
        int &answer = fault.after ? verdict.after : verdict.before;
        if (answer == 0) answer = fault.code;
    }
    return verdict;
}

}  // namespace lab
