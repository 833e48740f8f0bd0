// nlohmann-json: an object with an array of devices.
#include <nlohmann/json.hpp>

#include "bench/checkpoint_text/records.h"
#include "method/text.h"

namespace bench {
namespace {

using Json = nlohmann::json;

struct Out {
    Json &json;
    template <class Value>
    void operator()(const char *key, const Value &value) const {
        json[key] = value;
    }
};

struct In {
    const Json &json;
    void operator()(const char *key, int32_t &value) const { value = json.at(key).get<int32_t>(); }
    template <size_t N>
    void operator()(const char *key, char (&value)[N]) const {
        tf::put(value, json.at(key).get_ref<const std::string &>().c_str());
    }
};

}  // namespace

std::string json_out(const Records &records) {
    Json json;
    for_object(records.h, Out{json});
    Json &devices = json["devices"] = Json::array();
    for (const prim_mir_info *pm = records.h.pminfo_list; pm != nullptr; pm = pm->next) {
        Json device;
        if (devices.empty()) for_owners(*pm, Out{device});
        for_device(*pm, Out{device});
        devices.push_back(std::move(device));
    }
    return json.dump();
}

void json_in(const std::string &text, Records &records) {
    const Json json = Json::parse(text);
    for_object(records.h, In{json});
    bool first = true;
    for (const Json &device : json.at("devices")) {
        prim_mir_info *pm = records.next_device();
        if (first) for_owners(*pm, In{device});
        first = false;
        for_device(*pm, In{device});
    }
}

}  // namespace bench
