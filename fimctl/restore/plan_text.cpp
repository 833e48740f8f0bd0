// A plan as people and programs read it, and the code that stands for it.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

#include "fimctl/array_reader.h"
#include "fimctl/digest.h"
#include "fimctl/restore/plan.h"

namespace fimctl {
namespace {

using Json = nlohmann::ordered_json;

std::string line(const std::string &name, const std::string &value) {
    std::string padded = name + ":";
    padded.resize(std::max<size_t>(padded.size() + 1, 14), ' ');
    return padded + value + "\n";
}

std::string formatted(const char *format, double value) {
    char text[40] = "";
    snprintf(text, sizeof text, format, value);
    return text;
}

std::string amount(uint64_t bytes) {
    constexpr uint64_t mebibyte = uint64_t{1} << 20;
    if (bytes < mebibyte) return std::to_string(bytes) + " bytes";
    return formatted("%.1f MiB", static_cast<double>(bytes) / static_cast<double>(mebibyte));
}

// How long ago a time of the catalogue was. "" when it cannot be read.
std::string age(const std::string &created) {
    tm when = {};
    if (strptime(created.c_str(), "%Y-%m-%dT%H:%M:%SZ", &when) == nullptr) return "";
    const long seconds = std::max(0L, static_cast<long>(time(nullptr) - timegm(&when)));
    constexpr long minute = 60, hour = 60 * minute, day = 24 * hour;
    if (seconds < 2 * minute) return std::to_string(seconds) + " s";
    if (seconds < 2 * hour) return std::to_string(seconds / minute) + " min";
    if (seconds < 2 * day) return std::to_string(seconds / hour) + " h";
    return std::to_string(seconds / day) + " days";
}

std::string quality(const RestorePlan &plan) {
    std::string text = "taken " + plan.created;
    const std::string old = age(plan.created);
    if (!old.empty()) text += ", " + old + " ago";
    if (!plan.quiesced) return text + "; not quiesced: the file systems were in use at the cut";
    return text + "; quiesced, frozen for " + formatted("%.1f ms", plan.frozen_ms);
}

std::string joined(const std::vector<std::string> &names) {
    std::string text;
    for (const std::string &name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
}

std::string group_text(const RestoreGroup &group, const RestorePlan &plan) {
    std::string text = group.name + ": deported, its disks overwritten, imported again; volumes";
    for (const RestoreObject &object : plan.objects) {
        if (object.group == group.name) text += " " + object.volume;
    }
    if (!group.bystanders.empty()) {
        text += "; overwritten with it: " + joined(group.bystanders);
    }
    if (!group.imported) text += " (not imported now)";
    return text;
}

std::string pair_text(const RestorePair &pair, bool measured) {
    std::string text = "array " + pair.pair.symid + ": mirror " + pair.pair.bcv;
    if (!pair.mirror.empty()) text += " (" + pair.mirror + ")";
    text += " over primary " + pair.pair.device + " (" + pair.primary + ")";
    if (pair.state == pair_state::restoring) return text + ": being restored by the array";
    if (pair.is_restored()) return text + ": done already";
    text += pair.size ? ", at most " + amount(*pair.size) : ", of unknown size";
    if (!measured) return text;
    return text + (pair.differs ? ", " + amount(*pair.differs) + " differ now"
                                : ", not measured: this host does not see both");
}

std::string object_text(const RestoreObject &object) {
    if (!object.is_file_system()) return object.source + " (" + object.volume + ")";
    std::string text =
        object.directory + " (" + object.fstype + ", " + object.group + "/" + object.volume + "): ";
    text +=
        object.mounted_now ? "unmounted, and mounted again" : "not mounted now; will be mounted";
    if (!object.options.empty()) text += " with " + object.options;
    return text;
}

Json optional_number(const std::optional<uint64_t> &number) {
    if (!number) return nullptr;
    return *number;
}

Json objects_json(const RestorePlan &plan) {
    Json objects = Json::array();
    for (const RestoreObject &object : plan.objects) {
        Json one;
        one["object"] = object.number + 1;
        one["source"] = object.source;
        one["kind"] = object.is_file_system() ? "file system" : "device";
        one["group"] = object.group;
        one["volume"] = object.volume;
        one["type"] = object.fstype;
        one["directory"] = object.directory;
        one["mounted"] = object.mounted;
        one["options"] = object.options;
        objects.push_back(one);
    }
    return objects;
}

Json groups_json(const RestorePlan &plan, bool with_state) {
    Json groups = Json::array();
    for (const RestoreGroup &group : plan.groups) {
        Json one;
        one["group"] = group.name;
        one["bystanders"] = group.bystanders;
        if (with_state) one["imported"] = group.imported;
        groups.push_back(one);
    }
    return groups;
}

Json pair_json(const RestorePair &pair) {
    Json one;
    one["array"] = pair.pair.symid;
    one["device"] = pair.pair.device;
    one["bcv"] = pair.pair.bcv;
    one["group"] = pair.group;
    one["primary"] = pair.primary;
    one["mirror"] = pair.mirror;
    one["size"] = optional_number(pair.size);
    one["done"] = pair.state == pair_state::restored;
    return one;
}

// What is bound by the code. Nothing in it changes while somebody reads the plan and types: not
// the age, not what differs on a file system that is in use, not how far a running restore is.
// The number of a snapshot is its catalogue's; a code that was noted on one host must not fit a
// snapshot of another one, or one that was taken after the catalogue was lost.
Json bound(const RestorePlan &plan) {
    Json json;
    json["snapshot"] = plan.id;
    json["uuid"] = plan.uuid;
    json["resumed"] = plan.resumed;
    json["objects"] = objects_json(plan);
    json["order"] = plan.rebuild_order;
    json["groups"] = groups_json(plan, false);
    json["pairs"] = Json::array();
    for (const RestorePair &pair : plan.pairs) {
        Json one = pair_json(pair);
        one["done"] = pair.is_restored();
        one["state"] = pair.is_restored() ? pair_state::restored : pair.state;
        json["pairs"].push_back(one);
    }
    return json;
}

std::string dump(const Json &json, int indent) {
    return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

std::string code_of(const RestorePlan &plan) {
    const std::string digest = sha256(dump(bound(plan), -1));
    return digest.substr(0, 4) + "-" + digest.substr(4, 4);
}

bool is_code_of(const RestorePlan &plan, const std::string &typed) {
    const auto plain = [](const std::string &text) {
        std::string kept;
        for (const char character : text) {
            const auto byte = static_cast<unsigned char>(character);
            if (isalnum(byte) != 0) kept += static_cast<char>(tolower(byte));
        }
        return kept;
    };
    return !plain(typed).empty() && plain(typed) == plain(plan.code);
}

std::string plan_text(const RestorePlan &plan) {
    std::string text = line("restore", "snapshot " + std::to_string(plan.id) +
                                           (plan.resumed ? ", goes on with what was begun" : ""));
    text += line("copy", quality(plan));
    for (const RestoreGroup &group : plan.groups) {
        text += line("disk group", group_text(group, plan));
    }
    for (const RestorePair &pair : plan.pairs) text += line("pair", pair_text(pair, plan.measured));
    for (const RestoreObject &object : plan.objects) {
        text += line(object.is_file_system() ? "file system" : "device", object_text(object));
    }
    for (const Obstacle &obstacle : plan.obstacles) text += line("against it", obstacle.what);
    if (plan.obstacles.empty()) text += line("code", plan.code);
    return text;
}

std::string plan_json(const RestorePlan &plan) {
    Json json;
    json["snapshot"] = plan.id;
    json["resumed"] = plan.resumed;
    json["created"] = plan.created;
    json["quiesced"] = plan.quiesced;
    json["frozen_ms"] = plan.frozen_ms;
    json["groups"] = groups_json(plan, true);
    json["pairs"] = Json::array();
    for (const RestorePair &pair : plan.pairs) {
        Json one = pair_json(pair);
        one["state"] = pair.state == state_unknown ? Json(nullptr) : Json(pair.state);
        one["differs"] = optional_number(pair.differs);
        json["pairs"].push_back(one);
    }
    json["objects"] = objects_json(plan);
    json["against_it"] = Json::array();
    for (const Obstacle &obstacle : plan.obstacles) {
        json["against_it"].push_back({{"what", obstacle.what}, {"next", obstacle.next}});
    }
    json["code"] = plan.code;
    return dump(json, 2) + "\n";
}

std::string kept_form(const RestorePlan &plan) {
    return dump(objects_json(plan), -1);
}

void apply_kept_form(RestorePlan &plan, const std::string &form) {
    const Json kept = Json::parse(form, nullptr, false);
    if (!kept.is_array()) return;
    for (RestoreObject &object : plan.objects) {
        for (const Json &one : kept) {
            if (one.value("object", size_t{0}) != object.number + 1) continue;
            if (!one.value("mounted", false) && object.mounted) continue;
            if (!object.mounted) object.directory = one.value("directory", object.directory);
            if (!object.mounted) object.options = one.value("options", object.options);
            object.mounted = object.mounted || one.value("mounted", false);
        }
    }
}

}  // namespace fimctl
