// What `fimctl config` prints.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "fimctl/config/configuration.h"

namespace fimctl {
namespace {

using Json = nlohmann::ordered_json;

Json json_value(const Setting &setting, Common &common) {
    if (const auto *text = std::get_if<Text>(&setting.kind)) return text->of(common);
    if (const auto *seconds = std::get_if<Seconds>(&setting.kind)) return seconds->of(common);
    if (const auto *flag = std::get_if<Flag>(&setting.kind)) return flag->of(common);
    return std::get<Level>(setting.kind).of(common);
}

std::string as_json(const Configuration &configuration, Common &common) {
    Json document;
    document["file"] = configuration.file().empty() ? Json(nullptr) : Json(configuration.file());
    document["settings"] = Json::array();
    for (const Setting &setting : all_settings()) {
        const Origin origin = configuration.origin_of(setting);
        Common standard;
        set_standard(setting, standard);
        Json one;
        one["key"] = setting.key;
        one["value"] = json_value(setting, common);
        one["from"] = name_of(origin.source);
        one["where"] = origin.where;
        one["built_in"] = json_value(setting, standard);
        one["environment"] = environment_name_of(setting);
        one["help"] = setting.help;
        document["settings"].push_back(one);
    }
    return document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string padded(std::string text, size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text + "  ";
}

}  // namespace

std::string configuration_listing(const Configuration &configuration, Common &common, bool json) {
    if (json) return as_json(configuration, common);
    size_t keys = 0;
    size_t values = 0;
    const auto shown = [&common](const Setting &setting) {
        const std::string value = value_of(setting, common);
        return std::holds_alternative<Text>(setting.kind) ? "\"" + value + "\"" : value;
    };
    for (const Setting &setting : all_settings()) {
        keys = std::max(keys, std::string(setting.key).size());
        values = std::max(values, shown(setting).size());
    }
    std::string text = padded("SETTING", keys) + padded("VALUE", values) + "FROM\n";
    for (const Setting &setting : all_settings()) {
        const Origin origin = configuration.origin_of(setting);
        text += padded(setting.key, keys) + padded(shown(setting), values) +
                name_of(origin.source) + (origin.where.empty() ? "" : " (" + origin.where + ")") +
                "\n";
    }
    return text;
}

}  // namespace fimctl
