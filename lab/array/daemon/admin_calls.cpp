#include "lab/array/daemon/admin_calls.h"

#include <map>
#include <nlohmann/json.hpp>

#include "lab/array/daemon/host_calls.h"
#include "lab/array/daemon/report.h"

namespace lab {
namespace {

using nlohmann::json;

std::string text(const json &request, const char *key) {
    return request.at(key).get<std::string>();
}

json nothing() {
    return json::object();
}

json create_array(Engine *engine, const json &request) {
    engine->world().add_array(text(request, "symid"), request.value("capacity", uint64_t{0}));
    return nothing();
}

json create_device(Engine *engine, const json &request) {
    const Device &device =
        engine->create_device(text(request, "symid"), text(request, "name"),
                              request.at("size").get<uint64_t>(), request.value("bcv", false));
    return {{"device", engine->media().shown(device)}};
}

int do_control(Engine *engine, const json &request) {
    std::vector<PairNames> names;
    for (const json &one : request.at("pairs")) {
        names.emplace_back(one.at(0).get<std::string>(), one.at(1).get<std::string>());
    }
    return engine->control(text(request, "symid"), names, request.at("action").get<int>());
}

json control(Engine *engine, const json &request) {
    const int answer = do_control(engine, request);
    if (answer != code::ok) {
        throw Refused(answer, name_of(static_cast<BcvAction>(request.at("action").get<int>())));
    }
    return nothing();
}

json pair(Engine *engine, const json &request) {
    const std::string symid = text(request, "symid"), primary = text(request, "primary"),
                      bcv = text(request, "bcv");
    engine->pair(symid, primary, bcv);
    if (request.value("synchronised", false)) {
        const int full = static_cast<int>(BcvAction::full_establish);
        if (const int answer = engine->control(symid, {{primary, bcv}}, full)) {
            throw Refused(answer, "establish " + primary + " " + bcv);
        }
    }
    return nothing();
}

json label(Engine *engine, const json &request) {
    engine->world().set_label(text(request, "symid"), text(request, "name"),
                              text(request, "label"));
    return nothing();
}

json group_add(Engine *engine, const json &request) {
    engine->world().set_group(text(request, "symid"), text(request, "name"), text(request, "group"),
                              request.value("label", ""));
    return nothing();
}

json host_add(Engine *engine, const json &request) {
    engine->add_host({text(request, "name"), text(request, "socket"), text(request, "dev")});
    return nothing();
}

json host_remove(Engine *engine, const json &request) {
    engine->world().remove_host(text(request, "name"));
    return nothing();
}

json mask(Engine *engine, const json &request) {
    std::vector<Path> paths;
    for (const json &one : request.at("paths")) paths.push_back({one.get<std::string>()});
    for (const json &one : request.value("ports", json::array())) {
        paths.push_back({one.get<std::string>(), true});
    }
    for (Path &one : paths) {
        for (const json &down : request.value("down", json::array())) {
            one.down = one.down || down == one.path;
        }
    }
    engine->mask(text(request, "symid"), text(request, "name"), text(request, "host"), paths);
    return nothing();
}

json unmask(Engine *engine, const json &request) {
    engine->unmask(text(request, "symid"), text(request, "name"), text(request, "host"));
    return nothing();
}

json set_path(Engine *engine, const json &request) {
    engine->set_path(text(request, "host"), text(request, "path"), request.at("down").get<bool>());
    return nothing();
}

void check_function(const std::string &name) {
    for (uint32_t i = 0; i < function_count; ++i) {
        if (name == name_of_function(i)) return;
    }
    throw Refused("fault: there is no function " + name);
}

json fault_add(Engine *engine, const json &request) {
    Fault fault;
    fault.function = text(request, "function");
    check_function(fault.function);
    fault.device = request.value("device", "");
    fault.host = request.value("host", "");
    fault.at = request.value("at", int64_t{1});
    fault.for_good = request.value("for_good", false);
    fault.after = request.value("after", false);
    fault.delay_ms = request.value("delay_ms", 0);
    fault.code = request.value("code", fault.delay_ms > 0 ? 0 : int{code::scripted_fault});
    const int64_t id = engine->faults().add(fault);
    engine->world().changes.faults = true;
    return {{"id", id}};
}

json fault_clear(Engine *engine, const json &request) {
    if (!engine->faults().clear(request.value("id", int64_t{0}))) {
        throw Refused("there is no such fault");
    }
    engine->world().changes.faults = true;
    return nothing();
}

json set_settings(Engine *engine, const json &request) {
    Settings changed = engine->world().settings();
    changed.version = request.value("version", changed.version);
    changed.patch = request.value("patch", changed.patch);
    changed.rate = request.value("rate", changed.rate);
    changed.split_time = request.value("split_ms", changed.split_time / 1000) * 1000;
    changed.background_time = request.value("background_ms", changed.background_time / 1000) * 1000;
    if (changed.split_time < 0 || changed.background_time < 0) {
        throw Refused("a time cannot be negative");
    }
    engine->world().change_settings() = changed;
    return nothing();
}

json clock(Engine *engine, const json &request) {
    const int64_t ms = request.value("advance_ms", int64_t{0});
    if (ms < 0) throw Refused("the clock does not go back");
    if (request.contains("running")) engine->run_clock(request.at("running").get<bool>());
    if (ms != 0) engine->advance_clock(ms * 1000);
    return {{"seconds", static_cast<double>(engine->now()) / micros_per_second},
            {"running", engine->clock().running()}};
}

json show(Engine *engine, const json &) {
    return report(*engine);
}

json check(Engine *engine, const json &) {
    return {{"broken", engine->check()}};
}

using Handler = json (*)(Engine *, const json &);

const std::map<std::string, Handler> &handlers() {
    static const std::map<std::string, Handler> all = {
        {"array create", create_array},
        {"device create", create_device},
        {"pair", pair},
        {"control", control},
        {"label", label},
        {"group add", group_add},
        {"host add", host_add},
        {"host remove", host_remove},
        {"mask", mask},
        {"unmask", unmask},
        {"path", set_path},
        {"fault add", fault_add},
        {"fault clear", fault_clear},
        {"settings", set_settings},
        {"clock", clock},
        {"show", show},
        {"check", check},
    };
    return all;
}

json execute(Engine *engine, const std::string &line) {
    const json request = json::parse(line);
    const auto found = handlers().find(text(request, "command"));
    if (found == handlers().end()) throw Refused("there is no such command");
    engine->settle();
    json answer = found->second(engine, request);
    if (const int saved = engine->save()) throw Refused(saved, "save");
    answer["ok"] = true;
    return answer;
}

json failure(int number, const std::string &what) {
    return {{"ok", false}, {"code", number}, {"error", what}};
}

json answer_or_failure(Engine *engine, const std::string &line) {
    try {
        return execute(engine, line);
    } catch (const Refused &refused) {
        return failure(refused.number, refused.what());
    } catch (const MediaError &error) {
        return failure(error.number, error.what());
    } catch (const std::exception &error) {
        // A request of the wrong shape, or one that there is no memory for: nothing to die of.
        return failure(code::bad_request, error.what());
    }
}

}  // namespace

std::string answer_admin(Engine *engine, const std::string &line) {
    return answer_or_failure(engine, line).dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace lab
