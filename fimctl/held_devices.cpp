#include "fimctl/held_devices.h"

#include <algorithm>

#include "fimctl/failure.h"
#include "fimctl/inspect/plan.h"

namespace fimctl {
namespace {

bool is_of(const SourceDevice &device, const ObjectRecord &object) {
    return std::any_of(object.pairs.begin(), object.pairs.end(), [&](const PairRecord &record) {
        return record.pair.symid == device.symid && record.pair.device == device.name;
    });
}

bool holds(const SnapshotRecord &snapshot, const SourceDevice &device) {
    return std::any_of(snapshot.objects.begin(), snapshot.objects.end(),
                       [&](const ObjectRecord &object) { return is_of(device, object); });
}

}  // namespace

std::vector<SourceDevice> devices_of(const Plan &plan) {
    std::vector<SourceDevice> devices;
    for (size_t i = 0; i < plan.objects.size(); ++i) {
        for (const PlannedPair &pair : plan.objects[i].pairs) {
            if (!pair.device.trouble.empty() || pair.device.name.empty()) continue;
            devices.push_back({i, pair.device.symid, pair.device.name});
        }
    }
    return devices;
}

std::vector<SourceDevice> devices_below(const Settings &settings,
                                        const std::vector<Source> &sources) {
    Plan plan;
    plan.config = parse_method_config(settings.config);
    for (const Source &source : sources) {
        PlannedObject object;
        object.source = source;
        plan.objects.push_back(std::move(object));
    }
    find_devices(settings, plan);
    find_pairs(plan);
    return devices_of(plan);
}

void refuse_held_devices(const std::vector<Source> &sources,
                         const std::vector<SourceDevice> &devices,
                         const std::vector<SnapshotRecord> &snapshots) {
    for (const SnapshotRecord &snapshot : snapshots) {
        if (is_over(snapshot.state) || snapshot.is_target) continue;
        for (const SourceDevice &device : devices) {
            if (!holds(snapshot, device)) continue;
            const std::string id = std::to_string(snapshot.id);
            Failure failure(Step::check, ExitCode::usage,
                            sources[device.source].path + " lies on device " + device.name +
                                " of array " + device.symid + ", which is held by snapshot " + id +
                                " (" + name_of(snapshot.state) + ")");
            failure.next = "end that one first: fimctl release " + id;
            throw failure;
        }
    }
}

void refuse_moved(const SnapshotRecord &snapshot, const std::vector<SourceDevice> &devices) {
    for (const SourceDevice &device : devices) {
        const ObjectRecord &object = snapshot.objects[device.source];
        // Of a volume the pairs are known only from its text.
        if (object.pairs.empty() || is_of(device, object)) continue;
        Failure failure(Step::freeze, ExitCode::left,
                        object.source + " leads to device " + device.name + " of array " +
                            device.symid + " now, which it was not taken of");
        failure.id = static_cast<long>(snapshot.id);
        failure.next = "let the path lead to device " + object.pairs.front().pair.device +
                       " of array " + object.pairs.front().pair.symid +
                       " again, then: fimctl release " + std::to_string(snapshot.id);
        throw failure;
    }
}

}  // namespace fimctl
