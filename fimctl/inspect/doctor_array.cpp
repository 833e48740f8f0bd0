// What the examination asks the array's library, and the array.
#include <unistd.h>

#include <map>

#include "fimctl/inspect/array_functions.h"
#include "fimctl/inspect/array_view.h"
#include "fimctl/inspect/doctor.h"
#include "fimctl/paths.h"

namespace fimctl {
namespace {

using Names = std::vector<std::string>;

std::string joined(const Names &words) {
    std::string text;
    for (const std::string &word : words) text += (text.empty() ? "" : ", ") + word;
    return text;
}

Names missing_functions(const ArraySession &session, Need need) {
    Names missing;
    for (const ArrayFunction &function : array_functions) {
        if (function.need == need && !session.has(function.name)) {
            missing.emplace_back(function.name);
        }
    }
    return missing;
}

// Each device of the array that this host sees, once, whatever paths lead to it.
Message devices_seen(ArraySession &session) {
    std::map<std::string, DeviceView> devices;
    for (const std::string &disk : disks_of_host()) {
        DeviceView device = view_of(session, disk);
        if (device.trouble.empty()) devices.emplace(device.array_name(), std::move(device));
    }
    Message seen = Message::array();
    for (const auto &device : devices) seen.push_back(device.second);
    return seen;
}

Message ask_array() {
    ArraySession session;
    Message facts;
    facts["required"] = missing_functions(session, Need::required);
    facts["texts"] = missing_functions(session, Need::texts);
    facts["unused"] = missing_functions(session, Need::unused);
    std::string text = "unknown";
    facts["version"] = session.has("SymApiVersion") ? session.version(&text) : 0;
    facts["text"] = text;
    facts["patch"] = session.patch_level();
    facts["session"] = "";
    if (access(path::array_database, F_OK) != 0) return facts;
    try {
        session.open();
        if (session.has("SymPdevShow")) facts["devices"] = devices_seen(session);
    } catch (const Failure &failure) {
        facts["session"] = failure.what();
    }
    return facts;
}

void judge_functions(const Message &facts, Findings &findings) {
    const std::string subject = "array library";
    const auto required = facts.at("required").get<Names>();
    const auto texts = facts.at("texts").get<Names>();
    const auto unused = facts.at("unused").get<Names>();
    const std::string remedy = "install a complete array library of release 5.0 or later";
    if (!required.empty()) {
        findings.fail(subject, std::string(path::array_library) + " lacks " + joined(required),
                      remedy);
    }
    if (!texts.empty()) {
        findings.warn(subject, "lacks " + joined(texts) + ": its texts will read \"unknown\"",
                      remedy);
    }
    if (!unused.empty()) {
        findings.warn(subject, "lacks " + joined(unused) + ": looked for, and not used", remedy);
    }
    if (required.empty() && texts.empty() && unused.empty()) {
        findings.ok(subject, std::string(path::array_library) + ", all " +
                                 std::to_string(std::size(array_functions)) + " functions");
    }
}

void judge_version(const Message &facts, Findings &findings) {
    const auto version = facts.at("version").get<unsigned>();
    char number[20] = "";
    snprintf(number, sizeof number, "0x%08X", version);
    const std::string text = facts.at("text").get<std::string>() + " (" + number +
                             "), patch level " + facts.at("patch").get<std::string>();
    if (is_accepted(version)) {
        findings.ok("array release", text);
    } else if (version == 0) {
        findings.fail("array release", text + ": the array's library gave none",
                      "see that the array's daemon runs and that this host reaches the array");
    } else {
        findings.fail("array release",
                      text + ": the method refuses all up to 4.2 with sub-level 153",
                      "install release 5.0 or later of the array library");
    }
}

// None for a catalogue that cannot be read, of which a finding of its own tells.
std::vector<SnapshotRecord> snapshots_of(const Settings &settings) {
    try {
        if (Catalogue::exists(settings.state)) return Catalogue(settings.state, false).all();
    } catch (const Failure &) {
    }
    return {};
}

// Who of the snapshots that are not over has a BCV: by array and name.
std::map<std::string, int64_t> held_bcvs(const Settings &settings) {
    std::map<std::string, int64_t> held;
    for (const SnapshotRecord &snapshot : snapshots_of(settings)) {
        if (is_over(snapshot.state)) continue;
        for (const ObjectRecord &object : snapshot.objects) {
            for (const PairRecord &record : object.pairs) {
                held[record.pair.symid + "/" + record.pair.bcv] = snapshot.id;
            }
        }
    }
    return held;
}

// The BCVs that can be used for one primary. Counts it when it has a free one.
void judge_primary(const DeviceView &device, const std::map<std::string, int64_t> &held,
                   size_t &free, Findings &findings) {
    const std::string subject = "BCV";
    const std::string name = device.array_name() + " (" + device.asked + ")";
    std::string holder;
    bool labelled = false, seen = false, usable = false;
    for (const BcvView &bcv : device.bcvs) {
        if (!bcv.is_labelled() || !is_associated(device, bcv)) continue;
        labelled = true;
        const auto found = held.find(device.symid + "/" + bcv.name);
        if (found != held.end()) {
            holder = std::to_string(found->second);
            continue;
        }
        usable = true;
        seen = seen || bcv.is_seen();
    }
    if (!labelled) {
        findings.warn(subject, name + ": no BCV of its group carries the label TSR-BCV",
                      "label one on the array");
    } else if (!usable) {
        findings.warn(subject, name + ": its BCV is held by snapshot " + holder,
                      "fimctl release " + holder);
    } else if (!seen) {
        findings.warn(subject, name + ": its free BCV is not visible on this host",
                      "mask it to this host, or mount the copy on the backup host");
    }
    if (usable) ++free;
}

void judge_devices(const Message &facts, const Settings &settings, Findings &findings) {
    const std::string subject = "BCVs";
    if (!facts.contains("devices")) return;
    const auto held = held_bcvs(settings);
    size_t primaries = 0, free = 0, all = 0;
    for (const Message &one : facts.at("devices")) {
        const auto device = one.get<DeviceView>();
        ++all;
        if (!device.is_primary()) continue;
        ++primaries;
        judge_primary(device, held, free, findings);
    }
    if (all == 0) {
        findings.warn(subject, "this host sees no device of an array",
                      "see that devices are masked to it, and that SymDiscover has run since");
    } else if (primaries == 0) {
        findings.ok(subject, std::to_string(all) +
                                 " devices are seen, none of them a primary: a backup host");
    } else {
        findings.ok(subject, std::to_string(free) + " of " + std::to_string(primaries) +
                                 " primaries have a free BCV with the label");
    }
}

}  // namespace

void examine_array(const Settings &settings, Findings &findings) {
    Message facts;
    try {
        facts = read_elsewhere(Step::array, ask_array);
    } catch (const Failure &failure) {
        findings.fail("array library", failure.what(),
                      std::string("install the array's library as ") + path::array_library);
        return;
    }
    judge_functions(facts, findings);
    judge_version(facts, findings);
    const std::string trouble = facts.at("session");
    if (!trouble.empty()) {
        findings.fail("array session", trouble,
                      "see that the array's daemon runs and that this host reaches the array");
    } else if (!facts.contains("devices")) {
        findings.ok("array session", "not tried: there is no database yet");
    } else {
        findings.ok("array session", "opened and ended");
    }
    judge_devices(facts, settings, findings);
}

}  // namespace fimctl
