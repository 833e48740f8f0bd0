#include "lab/array/admin/scenario.h"

#include <toml++/toml.h>

#include <charconv>
#include <initializer_list>
#include <sstream>
#include <string_view>

namespace lab {
namespace {

using nlohmann::json;
using Keys = std::initializer_list<std::string_view>;

[[noreturn]] void wrong(const toml::node &node, const std::string &what) {
    std::ostringstream text;
    text << node.source() << ": " << what;
    throw ScenarioError(text.str());
}

// A misspelt key must not pass as one that was left out.
void check_keys(const toml::table &table, Keys known) {
    for (const auto &[key, value] : table) {
        if (std::find(known.begin(), known.end(), key.str()) == known.end()) {
            wrong(value, "unknown key \"" + std::string(key.str()) + "\"");
        }
    }
}

std::string text(const toml::table &table, const char *key) {
    const auto found = table[key].value_exact<std::string>();
    if (!found) wrong(table, std::string("a text \"") + key + "\" is missing");
    return *found;
}

std::string text_or(const toml::table &table, const char *key, const std::string &otherwise) {
    return table.contains(key) ? text(table, key) : otherwise;
}

template <typename Type>
void copy_if_given(const toml::table &table, const char *key, json *command,
                   const char *as = nullptr) {
    if (!table.contains(key)) return;
    const auto found = table[key].value_exact<Type>();
    if (!found) wrong(table, std::string("\"") + key + "\" has the wrong type");
    (*command)[as != nullptr ? as : key] = *found;
}

void copy_seconds(const toml::table &table, const char *key, const char *as, json *command) {
    if (!table.contains(key)) return;
    const auto found = table[key].value<double>();
    if (!found) wrong(table, std::string("\"") + key + "\" has to be a number of seconds");
    (*command)[as] = static_cast<int64_t>(*found * 1000);
}

json texts(const toml::table &table, const char *key) {
    json all = json::array();
    const toml::array *given = table[key].as_array();
    if (given == nullptr && table.contains(key)) {
        wrong(table, std::string("\"") + key + "\" has to be a list of texts");
    }
    for (size_t i = 0; given != nullptr && i < given->size(); ++i) {
        const auto one = (*given)[i].value_exact<std::string>();
        if (!one) wrong((*given)[i], "a text is needed here");
        all.push_back(*one);
    }
    return all;
}

// The tables of a list of tables; none when the key is missing.
std::vector<const toml::table *> tables(const toml::table &table, const char *key) {
    std::vector<const toml::table *> all;
    const toml::array *given = table[key].as_array();
    if (given == nullptr && table.contains(key)) {
        wrong(table, std::string("\"") + key + "\" has to be a list of tables");
    }
    for (size_t i = 0; given != nullptr && i < given->size(); ++i) {
        const toml::table *one = (*given)[i].as_table();
        if (one == nullptr) wrong((*given)[i], "a table is needed here");
        all.push_back(one);
    }
    return all;
}

void add_names(const toml::table &table, const std::string &symid, const std::string &name,
               const std::string &group, std::vector<json> *commands) {
    if (!group.empty()) {
        commands->push_back(
            {{"command", "group add"}, {"symid", symid}, {"name", name}, {"group", group}});
    }
    if (table.contains("label")) {
        commands->push_back({{"command", "label"},
                             {"symid", symid},
                             {"name", name},
                             {"label", text(table, "label")}});
    }
}

void add_bcv(const toml::table &table, const std::string &symid, const toml::table &primary,
             std::vector<json> *commands) {
    check_keys(table, {"name", "group", "label", "state"});
    const std::string name = text(table, "name"), state = text_or(table, "state", "split");
    if (state != "split" && state != "synchronised") {
        wrong(table, "\"state\" is \"split\" or \"synchronised\"");
    }
    commands->push_back({{"command", "device create"},
                         {"symid", symid},
                         {"name", name},
                         {"size", bytes_of(text(primary, "size"))},
                         {"bcv", true}});
    const std::string group = text_or(table, "group", text_or(primary, "group", ""));
    add_names(table, symid, name, group, commands);
    commands->push_back({{"command", "pair"},
                         {"symid", symid},
                         {"primary", text(primary, "name")},
                         {"bcv", name},
                         {"synchronised", state == "synchronised"}});
}

void add_device(const toml::table &table, const std::string &symid, std::vector<json> *commands) {
    check_keys(table, {"name", "size", "group", "label", "bcv"});
    const std::string name = text(table, "name");
    commands->push_back({{"command", "device create"},
                         {"symid", symid},
                         {"name", name},
                         {"size", bytes_of(text(table, "size"))}});
    add_names(table, symid, name, text_or(table, "group", ""), commands);
    for (const toml::table *bcv : tables(table, "bcv")) add_bcv(*bcv, symid, table, commands);
}

void add_array(const toml::table &table, std::vector<json> *commands) {
    check_keys(table, {"symid", "size", "device"});
    const std::string symid = text(table, "symid");
    json command = {{"command", "array create"}, {"symid", symid}};
    if (table.contains("size")) command["capacity"] = bytes_of(text(table, "size"));
    commands->push_back(command);
    for (const toml::table *device : tables(table, "device")) {
        add_device(*device, symid, commands);
    }
}

void add_mask(const toml::table &table, std::vector<json> *commands) {
    check_keys(table, {"symid", "device", "host", "paths", "ports", "down"});
    commands->push_back({{"command", "mask"},
                         {"symid", text(table, "symid")},
                         {"name", text(table, "device")},
                         {"host", text(table, "host")},
                         {"paths", texts(table, "paths")},
                         {"ports", texts(table, "ports")},
                         {"down", texts(table, "down")}});
}

void add_fault(const toml::table &table, std::vector<json> *commands) {
    check_keys(table,
               {"function", "device", "host", "at", "for_good", "after", "code", "delay_ms"});
    json command = {{"command", "fault add"}, {"function", text(table, "function")}};
    copy_if_given<std::string>(table, "device", &command);
    copy_if_given<std::string>(table, "host", &command);
    copy_if_given<int64_t>(table, "at", &command);
    copy_if_given<bool>(table, "for_good", &command);
    copy_if_given<bool>(table, "after", &command);
    copy_if_given<int64_t>(table, "code", &command);
    copy_if_given<int64_t>(table, "delay_ms", &command);
    commands->push_back(command);
}

void add_settings(const toml::table &table, std::vector<json> *commands) {
    check_keys(table, {"version", "patch", "rate", "split_seconds", "background_seconds"});
    json command = {{"command", "settings"}};
    copy_if_given<int64_t>(table, "version", &command);
    copy_if_given<std::string>(table, "patch", &command);
    copy_if_given<int64_t>(table, "rate", &command);
    copy_seconds(table, "split_seconds", "split_ms", &command);
    copy_seconds(table, "background_seconds", "background_ms", &command);
    commands->push_back(command);
}

std::vector<json> commands_of(const toml::table &scenario) {
    check_keys(scenario, {"settings", "array", "mask", "fault"});
    std::vector<json> commands;
    if (const toml::table *settings = scenario["settings"].as_table()) {
        add_settings(*settings, &commands);
    }
    for (const toml::table *array : tables(scenario, "array")) add_array(*array, &commands);
    for (const toml::table *mask : tables(scenario, "mask")) add_mask(*mask, &commands);
    for (const toml::table *fault : tables(scenario, "fault")) add_fault(*fault, &commands);
    return commands;
}

ScenarioError of_parser(const toml::parse_error &error) {
    std::ostringstream text;
    text << error.source() << ": " << error.description();
    return ScenarioError(text.str());
}

}  // namespace

uint64_t bytes_of(const std::string &text) {
    uint64_t number = 0;
    const char *const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    const std::string_view unit(rest, static_cast<size_t>(end - rest));
    unsigned shift = 0;
    if (unit == "K") shift = 10;
    if (unit == "M") shift = 20;
    if (unit == "G") shift = 30;
    if (error != std::errc() || (shift == 0 && !unit.empty()) || number > UINT64_MAX >> shift) {
        throw ScenarioError("size \"" + text + "\": a number, or one with K, M or G");
    }
    return number << shift;
}

std::vector<json> commands_of_text(const std::string &toml, const std::string &name) {
    try {
        return commands_of(toml::parse(toml, name));
    } catch (const toml::parse_error &error) {
        throw of_parser(error);
    }
}

std::vector<json> commands_of_file(const std::string &path) {
    try {
        return commands_of(toml::parse_file(path));
    } catch (const toml::parse_error &error) {
        throw of_parser(error);
    }
}

}  // namespace lab
