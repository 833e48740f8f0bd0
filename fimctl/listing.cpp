#include "fimctl/listing.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "fimctl/array_reader.h"

namespace fimctl {
namespace {

using Json = nlohmann::ordered_json;

// A path may hold any byte; what is not UTF-8 is shown as such instead of ending the output.
std::string dump(const Json &json) {
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

// A copy is good when the array was asked about every pair, and nothing spoke against it.
std::string judgement(const SnapshotRecord &snapshot) {
    if (!snapshot.void_reason.empty()) return "void";
    if (snapshot.objects.empty()) return "none";
    for (const ObjectRecord &object : snapshot.objects) {
        if (object.text.empty()) return "none";
        for (const PairRecord &pair : object.pairs) {
            if (pair.after == state_unknown) return "none";
        }
    }
    return "good";
}

std::string milliseconds(double value) {
    char text[40] = "";
    snprintf(text, sizeof text, "%.1f ms", value);
    return text;
}

// A cut that was killed has left no word of how it was.
bool knows_its_cut(const SnapshotRecord &snapshot) {
    if (snapshot.quiesced || snapshot.state == State::begun || snapshot.state == State::failed) {
        return true;
    }
    return std::any_of(snapshot.objects.begin(), snapshot.objects.end(),
                       [](const ObjectRecord &object) { return !object.text.empty(); });
}

std::string quiesced(const SnapshotRecord &snapshot) {
    if (!knows_its_cut(snapshot)) return "unknown";
    return snapshot.quiesced ? "yes, frozen for " + milliseconds(snapshot.frozen_ms) : "no";
}

const char *role(const SnapshotRecord &snapshot) {
    return snapshot.is_target ? "backup" : "primary";
}

// Where it is, when that is not simply here.
std::string travels(const SnapshotRecord &snapshot) {
    if (snapshot.is_target) return "from " + snapshot.origin;
    if (snapshot.is_away()) return "exported";
    return "";
}

Json summary(const SnapshotRecord &snapshot) {
    Json sources = Json::array();
    for (const ObjectRecord &object : snapshot.objects) sources.push_back(object.source);
    Json json;
    json["id"] = snapshot.id;
    json["state"] = name_of(snapshot.state);
    json["created"] = snapshot.created;
    json["copy"] = judgement(snapshot);
    json["sources"] = sources;
    json["uuid"] = snapshot.uuid;
    json["role"] = role(snapshot);
    json["origin"] = snapshot.origin;
    json["exported"] = snapshot.exported;
    json["returned"] = snapshot.returned;
    json["arrays"] = snapshot.arrays();
    return json;
}

Json state_json(long state) {
    if (state == state_unknown) return nullptr;
    return state;
}

Json description_json(const SnapshotRecord &snapshot, const std::vector<long> &now) {
    Json json = summary(snapshot);
    json["host"] = snapshot.host;
    json["exports"] = snapshot.exports;
    json["void_reason"] = snapshot.void_reason;
    json["quiesced"] = knows_its_cut(snapshot) ? Json(snapshot.quiesced) : Json(nullptr);
    json["frozen_ms"] = snapshot.frozen_ms;
    json["config"] = snapshot.config;
    json["note"] = snapshot.note;
    json["objects"] = Json::array();
    size_t next = 0;
    for (const ObjectRecord &object : snapshot.objects) {
        Json one;
        one["source"] = object.source;
        one["kind"] = object.kind;
        one["mounted_on"] = object.mount_dir;
        one["disk_group"] = object.vol_group;
        one["volume"] = object.vol_name;
        one["imported_group"] = object.is_imported_group();
        one["mount_point"] = object.fifs;
        one["copy_path"] = is_over(snapshot.state) ? "" : object.copy;
        one["checkpoint"] = object.latest_text();
        one["pairs"] = Json::array();
        for (const PairRecord &record : object.pairs) {
            const long current = next < now.size() ? now[next] : state_unknown;
            ++next;
            Json pair;
            pair["array"] = record.pair.symid;
            pair["device"] = record.pair.device;
            pair["bcv"] = record.pair.bcv;
            pair["state_before"] = state_json(record.before);
            pair["state_after"] = state_json(record.after);
            pair["state_now"] = state_json(current);
            one["pairs"].push_back(pair);
        }
        json["objects"].push_back(one);
    }
    return json;
}

std::string field(const std::string &name, const std::string &value) {
    if (value.empty()) return "";
    std::string padded = name + ":";
    padded.resize(std::max<size_t>(padded.size() + 1, 14), ' ');
    return padded + value + "\n";
}

std::string object_text(const ObjectRecord &object, bool over, const std::vector<long> &now,
                        size_t &next) {
    std::string text = field("object", object.source + " (" + object.kind + ")");
    if (object.is_volume()) {
        text += field("  volume", object.vol_name + " of disk group " + object.vol_group +
                                      (object.is_imported_group() ? ", imported" : ""));
    }
    text += field("  mount at", object.fifs);
    text += field("  copy", over ? "" : object.copy);
    for (const PairRecord &record : object.pairs) {
        const long current = next < now.size() ? now[next] : state_unknown;
        ++next;
        text +=
            field("  pair", record.pair.symid + " " + record.pair.device + "/" + record.pair.bcv +
                                "  before " + name_of_pair_state(record.before) + ", after " +
                                name_of_pair_state(record.after) + ", now " +
                                name_of_pair_state(current));
    }
    return text;
}

}  // namespace

std::string listing(const std::vector<SnapshotRecord> &snapshots, bool json) {
    if (json) {
        Json all = Json::array();
        for (const SnapshotRecord &snapshot : snapshots) all.push_back(summary(snapshot));
        return dump(all);
    }
    if (snapshots.empty()) return "no snapshots\n";
    std::string text = "  ID  STATE      COPY  CREATED               SOURCES\n";
    for (const SnapshotRecord &snapshot : snapshots) {
        char head[80] = "";
        snprintf(head, sizeof head, "%4lld  %-9s  %-4s  %-20s  ",
                 static_cast<long long>(snapshot.id), name_of(snapshot.state),
                 judgement(snapshot).c_str(), snapshot.created.c_str());
        text += head;
        for (const ObjectRecord &object : snapshot.objects) text += object.source + " ";
        if (!travels(snapshot).empty()) text += "(" + travels(snapshot) + ") ";
        text.back() = '\n';
    }
    return text;
}

std::string description(const SnapshotRecord &snapshot, const std::vector<long> &now, bool json) {
    if (json) return dump(description_json(snapshot, now));
    std::string text = field("snapshot", std::to_string(snapshot.id));
    text += field("state", name_of(snapshot.state));
    text += field("created", snapshot.created);
    text += field("uuid", snapshot.uuid);
    text += field("host", snapshot.host);
    text += field("role", role(snapshot));
    text += field("origin", snapshot.origin);
    text += field("exported", snapshot.exported);
    text += field("returned", snapshot.returned);
    text += field("copy", judgement(snapshot));
    text += field("void because", snapshot.void_reason);
    text += field("quiesced", quiesced(snapshot));
    std::string arrays;
    for (const std::string &array : snapshot.arrays())
        arrays += (arrays.empty() ? "" : " ") + array;
    text += field("arrays", arrays);
    text += field("config", snapshot.config);
    text += field("last failure", snapshot.note);
    size_t next = 0;
    for (const ObjectRecord &object : snapshot.objects) {
        text += object_text(object, is_over(snapshot.state), now, next);
    }
    return text;
}

}  // namespace fimctl
