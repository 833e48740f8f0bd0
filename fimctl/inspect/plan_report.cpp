#include "fimctl/array_reader.h"
#include "fimctl/inspect/plan.h"
#include "fimctl/inspect/report.h"

namespace fimctl {
namespace {

Json bcv_json(const PlannedPair &pair, const BcvView &bcv) {
    Json json;
    json["name"] = bcv.name;
    json["label"] = bcv.label;
    json["state"] = bcv.state;
    json["state_name"] = name_of_pair_state(bcv.state);
    json["path"] = pair.bcv_path;
    json["action"] = pair.action;
    return json;
}

Json pair_json(const PlannedPair &pair) {
    Json json;
    json["path"] = pair.addressed;
    json["array"] = pair.device.symid;
    json["device"] = pair.device.name;
    json["group"] = pair.device.group;
    json["bcv"] = pair.bcv() == nullptr ? Json(nullptr) : bcv_json(pair, *pair.bcv());
    json["lock"]["file"] = pair.lock.path;
    json["lock"]["owner"] = pair.lock.path.empty() ? Json(nullptr) : Json(name_of(pair.lock.owner));
    json["lock"]["pid"] = pair.lock.pid;
    return json;
}

Json object_json(const PlannedObject &object) {
    Json json;
    json["source"] = object.source.path;
    json["kind"] = name_of(object.source.kind);
    json["block_device"] = object.block;
    json["file_system"] = object.type;
    json["disk_group"] = object.group;
    json["volume"] = object.volume;
    json["devices"] = Json::array();
    for (const PlannedPair &pair : object.pairs) json["devices"].push_back(pair_json(pair));
    return json;
}

std::string as_json(const Plan &plan) {
    Json json;
    json["possible"] = !plan.is_prevented();
    json["array_known"] = plan.array_known;
    json["objects"] = Json::array();
    for (const PlannedObject &object : plan.objects) json["objects"].push_back(object_json(object));
    json["quiesced"] = plan.quiesced;
    json["import"] = plan.import;
    json["import_reason"] = plan.import_reason;
    json["commands"]["freeze"] = plan.freeze_commands;
    json["commands"]["mount"] = plan.mount_commands;
    json["commands"]["release"] = plan.release_commands;
    json["problems"] = Json::array();
    for (const Problem &problem : plan.problems) {
        Json one;
        one["prevents"] = problem.prevents;
        one["text"] = problem.text;
        one["remedy"] = problem.remedy;
        json["problems"].push_back(one);
    }
    return document(json);
}

// A name and what it stands for, aligned; without a name it goes on under the line above.
std::string field(const std::string &name, const std::string &value) {
    std::string padded = name;
    padded.resize(std::max<size_t>(padded.size() + 1, 12), ' ');
    return padded + value + "\n";
}

std::string lock_text(const PlannedPair &pair) {
    if (!pair.lock_trouble.empty()) return "not known: " + pair.lock_trouble;
    switch (pair.lock.owner) {
    case Owner::alive:
        return pair.lock.group + ", owned by process " + std::to_string(pair.lock.pid);
    case Owner::replaced:
        return pair.lock.group + ", owned by a process that is no more";
    default:
        return pair.lock.group + ", free";
    }
}

std::string pair_text(const PlannedPair &pair, bool array_known) {
    if (!array_known) return field("  device", pair.addressed);
    if (!pair.device.trouble.empty()) {
        return field("  device", pair.addressed + ", not known to the array");
    }
    std::string text = field("  device", pair.addressed + " = " + pair.device.array_name() +
                                             ", device group " + pair.device.group);
    if (const BcvView *bcv = pair.bcv()) {
        text += field("  BCV", bcv->name + " (" + (bcv->is_labelled() ? bcv->label : "no label") +
                                   ", " + name_of_pair_state(bcv->state) + ", " +
                                   (pair.bcv_path.empty() ? "not visible here" : pair.bcv_path) +
                                   ")" + (pair.action.empty() ? "" : ": " + pair.action));
    } else {
        text += field("  BCV", "none");
    }
    return text + field("  lock", lock_text(pair));
}

std::string object_text(const Plan &plan, const PlannedObject &object) {
    std::string what = name_of(object.source.kind);
    if (!object.type.empty()) what += " " + object.type;
    if (!object.block.empty() && object.block != object.source.path) what += " on " + object.block;
    std::string text = field("object", object.source.path + " (" + what + ")");
    if (object.is_volume()) {
        text += field("  volume", object.volume + " of disk group " + object.group);
    }
    if (object.covered_by != covered_by_none) {
        text +=
            field("  devices",
                  "those of " + plan.objects[static_cast<size_t>(object.covered_by)].source.path +
                      ": the group is imported as a whole");
    }
    for (const PlannedPair &pair : object.pairs) text += pair_text(pair, plan.array_known);
    return text;
}

std::string list_text(const std::string &name, const std::vector<std::string> &lines,
                      const std::string &none) {
    if (lines.empty()) return none.empty() ? "" : field(name, none);
    std::string text;
    for (const std::string &line : lines) text += field(text.empty() ? name : "", line);
    return text;
}

}  // namespace

std::string plan_report(const Plan &plan, bool json) {
    if (json) return as_json(plan);
    std::string text;
    for (const PlannedObject &object : plan.objects) text += object_text(plan, object);
    text += list_text("quiesced", plan.quiesced, "nothing");
    text += field("import", (plan.import ? "yes: " : "no: ") + plan.import_reason);
    text += list_text("at freeze", plan.freeze_commands, "");
    text += list_text("at mount", plan.mount_commands, "");
    text += list_text("at release", plan.release_commands, "");
    for (const Problem &problem : plan.problems) {
        text += field(problem.prevents ? "PROBLEM" : "note", problem.text);
        if (!problem.remedy.empty()) text += field("", "-> " + problem.remedy);
    }
    return text + (plan.is_prevented() ? "A freeze would fail.\n"
                   : plan.array_known  ? "Nothing speaks against a freeze.\n"
                                       : "What can be known does not speak against a freeze.\n");
}

}  // namespace fimctl
