#include "fimctl/travel_document.h"

#include <nlohmann/json.hpp>

#include "fimctl/digest.h"
#include "fimctl/failure.h"

namespace fimctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr char format_name[] = "fimctl snapshot";
constexpr int64_t format_version = 1;
constexpr char out_name[] = "to the backup host";
constexpr char back_name[] = "back to the primary host";

Failure refused(const std::string &text, const std::string &next) {
    Failure failure(Step::carry, ExitCode::usage, text);
    failure.next = next;
    return failure;
}

Failure damaged(const std::string &text) {
    return refused("the document is damaged: " + text,
                   "carry it again, as one file and unchanged, then: fimctl import FILE");
}

bool is_utf8(const std::string &text) {
    return Json(text).dump(-1, ' ', false, Json::error_handler_t::ignore) ==
           Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

// A path may hold any byte, JSON only UTF-8: what is not goes as hexadecimal digits.
Json packed(const std::string &text) {
    if (is_utf8(text)) return text;
    std::string digits;
    for (const char byte : text) {
        char piece[3] = "";
        snprintf(piece, sizeof piece, "%02x", static_cast<unsigned char>(byte));
        digits += piece;
    }
    Json json;
    json["hex"] = digits;
    return json;
}

std::string unpacked(const Json &json) {
    if (json.is_string()) return json.get<std::string>();
    const std::string digits = json.at("hex");
    std::string text;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        text += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    return text;
}

State state_named(const std::string &name) {
    for (int i = 0; i <= static_cast<int>(State::restored); ++i) {
        if (name == name_of(static_cast<State>(i))) return static_cast<State>(i);
    }
    throw damaged("there is no state \"" + name + "\"");
}

Json object_json(const ObjectRecord &object) {
    Json json;
    json["source"] = packed(object.source);
    json["kind"] = object.kind;
    json["inside"] = packed(object.inside);
    json["mounted_on"] = packed(object.mount_dir);
    json["mount_point"] = packed(object.fifs);
    json["disk_group"] = packed(object.vol_group);
    json["volume"] = packed(object.vol_name);
    json["pairs"] = Json::array();
    for (const PairRecord &record : object.pairs) {
        Json pair;
        pair["array"] = record.pair.symid;
        pair["device"] = record.pair.device;
        pair["bcv"] = record.pair.bcv;
        pair["state_before"] = record.before;
        pair["state_after"] = record.after;
        json["pairs"].push_back(pair);
    }
    json["checkpoint"] = packed(object.latest_text());
    return json;
}

ObjectRecord object_of(const Json &json) {
    ObjectRecord object;
    object.source = unpacked(json.at("source"));
    object.kind = json.at("kind");
    object.inside = unpacked(json.at("inside"));
    object.mount_dir = unpacked(json.at("mounted_on"));
    object.fifs = unpacked(json.at("mount_point"));
    object.vol_group = unpacked(json.at("disk_group"));
    object.vol_name = unpacked(json.at("volume"));
    for (const Json &pair : json.at("pairs")) {
        object.pairs.push_back({{pair.at("array"), pair.at("device"), pair.at("bcv")},
                                pair.at("state_before"),
                                pair.at("state_after")});
    }
    object.text = unpacked(json.at("checkpoint"));
    return object;
}

TravelDocument document_of(const Json &json) {
    TravelDocument document;
    const std::string direction = json.at("direction");
    if (direction != out_name && direction != back_name) {
        throw damaged("there is no direction \"" + direction + "\"");
    }
    document.direction = direction == out_name ? Direction::out : Direction::back;
    document.origin_host = json.at("origin").at("host");
    document.origin_id = json.at("origin").at("id");
    document.writer = json.at("written_on");
    SnapshotRecord &snapshot = document.snapshot;
    snapshot.uuid = json.at("uuid");
    snapshot.exports = json.at("export");
    snapshot.state = state_named(json.at("state"));
    snapshot.created = json.at("created");
    snapshot.config = unpacked(json.at("config"));
    snapshot.quiesced = json.at("quiesced");
    snapshot.frozen_ms = json.at("frozen_ms");
    for (const Json &object : json.at("objects")) snapshot.objects.push_back(object_of(object));
    if (snapshot.objects.empty()) throw damaged("it holds no object");
    return document;
}

// Of everything else in the document, in its order.
std::string checksum_of(Json json) {
    json.erase("checksum");
    return "sha256:" + sha256(json.dump());
}

}  // namespace

std::string write_document(const TravelDocument &document) {
    const SnapshotRecord &snapshot = document.snapshot;
    Json json;
    json["format"] = format_name;
    json["version"] = format_version;
    json["direction"] = document.direction == Direction::out ? out_name : back_name;
    json["uuid"] = snapshot.uuid;
    json["export"] = snapshot.exports;
    json["origin"]["host"] = document.origin_host;
    json["origin"]["id"] = document.origin_id;
    json["written_on"] = document.writer;
    json["state"] = name_of(snapshot.state);
    json["created"] = snapshot.created;
    json["config"] = packed(snapshot.config);
    json["quiesced"] = snapshot.quiesced;
    json["frozen_ms"] = snapshot.frozen_ms;
    json["objects"] = Json::array();
    for (const ObjectRecord &object : snapshot.objects) {
        json["objects"].push_back(object_json(object));
    }
    json["checksum"] = checksum_of(json);
    return json.dump(2) + "\n";
}

TravelDocument read_document(const std::string &text) {
    if (text.empty()) throw damaged("it is empty");
    const Json json = Json::parse(text, nullptr, false);
    if (json.is_discarded()) throw damaged("it is cut short, or no JSON at all");
    if (!json.is_object() || json.value("format", Json()) != format_name) {
        throw refused("this is no snapshot that fimctl has exported",
                      "name the file that \"fimctl export\" has written");
    }
    // Before the checksum: another version may make it in another way.
    const Json version = json.value("version", Json());
    if (version != format_version) {
        throw refused("the document has version " + version.dump() +
                          "; this fimctl reads version " + std::to_string(format_version),
                      "use the same version of fimctl on both hosts");
    }
    if (json.value("checksum", Json()) != checksum_of(json)) {
        throw damaged("its checksum is that of another text");
    }
    try {
        return document_of(json);
    } catch (const Json::exception &error) {
        throw damaged(error.what());
    } catch (const std::logic_error &error) {
        throw damaged(error.what());
    }
}

}  // namespace fimctl
