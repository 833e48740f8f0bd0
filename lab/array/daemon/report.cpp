#include "lab/array/daemon/report.h"

#include <nlohmann/json.hpp>

#include "lab/array/model/describe.h"

namespace lab {
namespace {

using nlohmann::json;

json seconds(Micros time) {
    return static_cast<double>(time) / micros_per_second;
}

json settings(const Settings &of) {
    return {{"version", of.version},
            {"version_text", version_text(of.version)},
            {"patch", of.patch},
            {"rate", of.rate},
            {"split_seconds", seconds(of.split_time)},
            {"background_seconds", seconds(of.background_time)}};
}

json device(Engine &engine, const Device &of) {
    return {{"name", of.name},
            {"size", of.size},
            {"bcv", of.bcv},
            {"group", of.group},
            {"label", of.ldev},
            {"device", engine.media().shown(of)},
            {"ready", engine.media().ready(of)}};
}

json pair(const World &world, const Pair &of, Micros now) {
    return {
        {"primary", world.device(of.primary).name}, {"bcv", world.device(of.bcv).name},
        {"state", static_cast<int>(of.state)},      {"state_name", name_of(of.state)},
        {"percent", percent_done(of, now)},         {"tracks", of.tracks},
        {"background", of.background_until > now},  {"established_before", of.established_before}};
}

json arrays(Engine &engine) {
    const World &world = engine.world();
    json all = json::array();
    std::map<std::string, json> devices, pairs;
    for (const auto &[id, one] : world.devices()) {
        devices[one.symid].push_back(device(engine, one));
    }
    for (const auto &[id, one] : world.pairs()) {
        pairs[world.device(one.primary).symid].push_back(pair(world, one, engine.now()));
    }
    for (const auto &[symid, array] : world.arrays()) {
        json &of_devices = devices[symid], &of_pairs = pairs[symid];
        all.push_back({{"symid", symid},
                       {"capacity", array.capacity},
                       {"used", array.used},
                       {"devices", of_devices.is_null() ? json::array() : of_devices},
                       {"pairs", of_pairs.is_null() ? json::array() : of_pairs}});
    }
    return all;
}

json hosts(const World &world) {
    json all = json::array();
    for (const auto &[name, host] : world.hosts()) {
        all.push_back({{"name", name}, {"socket", host.socket}, {"dev", host.dev}});
    }
    return all;
}

json masks(const World &world) {
    json all = json::array();
    for (const auto &[at, view] : world.views()) {
        const Device &device = world.device(view.device);
        json paths = json::array();
        for (const Path &one : view.paths) {
            paths.push_back({{"path", one.path}, {"port", one.port}, {"down", one.down}});
        }
        all.push_back({{"host", view.host},
                       {"symid", device.symid},
                       {"device", device.name},
                       {"paths", paths}});
    }
    return all;
}

json faults(const std::vector<Fault> &of) {
    json all = json::array();
    for (const Fault &one : of) {
        all.push_back({{"id", one.id},
                       {"function", one.function},
                       {"device", one.device},
                       {"host", one.host},
                       {"at", one.at},
                       {"for_good", one.for_good},
                       {"after", one.after},
                       {"code", one.code},
                       {"delay_ms", one.delay_ms},
                       {"seen", one.seen}});
    }
    return all;
}

}  // namespace

json report(Engine &engine) {
    return {{"clock", {{"seconds", seconds(engine.now())}, {"running", engine.clock().running()}}},
            {"last_cut",
             {{"begun_ns", engine.last_cut().begun_ns}, {"ended_ns", engine.last_cut().ended_ns}}},
            {"media", engine.media().kind()},
            {"limits", engine.media().limits()},
            {"settings", settings(engine.world().settings())},
            {"arrays", arrays(engine)},
            {"hosts", hosts(engine.world())},
            {"masks", masks(engine.world())},
            {"faults", faults(engine.faults().all())},
            {"sessions", engine.sessions().all().size()}};
}

}  // namespace lab
