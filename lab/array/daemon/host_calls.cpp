#include "lab/array/daemon/host_calls.h"

#include <algorithm>
#include <cstring>

#include "lab/array/model/describe.h"

namespace lab {
namespace {

constexpr int preference_limit = 64;

// One call at work.
struct Work {
    Engine *engine;
    const std::string &host;
    int connection;
    const HostCall &call;
    const Session *session;
    HostAnswer answer;

    World &world() { return engine->world(); }
    const std::string &text(size_t i) const { return call.texts[i]; }
};

int init(Work *work) {
    const int mode = work->call.numbers[0], options = work->call.numbers[1];
    const bool has_database = work->call.numbers[2] != 0;
    const auto version = static_cast<uint32_t>(work->call.numbers[3]);
    if (mode != 0 && mode != 3 && mode != 4) return code::bad_mode;
    if (options != SYM_INIT_OPTIONS_VERSION) return code::bad_options;
    // 0 is the number of a host that could not learn the version.
    if (version != 0 && version != work->world().settings().version) return code::bad_api_version;
    // Only mode 4 makes the database, and discovery fills it.
    if (mode != 4 && !has_database) return code::database_missing;
    work->answer.session =
        work->engine->sessions().open(work->host, work->text(0), work->connection);
    work->world().changes.settings = true;
    return code::ok;
}

int end_session(Work *work) {
    work->engine->sessions().close(work->call.session);
    return code::ok;
}

// What the host's database file holds: the arrays it reaches and the devices it sees.
int discover(Work *work) {
    std::string text = "tfarray 1\n";
    for (const auto &[symid, array] : work->world().arrays()) text += "array " + symid + "\n";
    const auto &views = work->world().views();
    for (auto at = views.lower_bound({work->host, 0});
         at != views.end() && at->first.first == work->host; ++at) {
        const Device &device = work->world().device(at->second.device);
        text += (device.bcv ? "bcv " : "standard ") + device.symid + " " + device.name;
        for (const Path &one : at->second.paths) text += " " + one.path;
        text += "\n";
    }
    work->answer.payload = work->session->database + '\0' + text;
    return code::ok;
}

int version(Work *work) {
    work->answer.number = work->world().settings().version;
    work->answer.payload = version_text(work->answer.number);
    return code::ok;
}

int patch(Work *work) {
    work->answer.payload = work->world().settings().patch;
    return code::ok;
}

int set_preference(Work *work) {
    const int preference = work->call.numbers[0];
    return preference >= 1 && preference <= preference_limit ? code::ok : code::bad_argument;
}

int show(Work *work, const Device *device, int otherwise) {
    if (device == nullptr) return otherwise;
    const SymDevice record = describe(work->world(), *device, work->host);
    work->answer.payload.assign(reinterpret_cast<const char *>(&record), sizeof record);
    return code::ok;
}

int show_path(Work *work) {
    return show(work, work->world().by_path(work->host, work->text(0)), code::path_unknown);
}

int find_device(Work *work, const Device **found) {
    if (work->world().array(work->text(0)) == nullptr) return code::array_unknown;
    *found = work->world().device(work->text(0), work->text(1));
    return *found == nullptr ? code::device_unknown : code::ok;
}

int show_device(Work *work) {
    const Device *found = nullptr;
    if (const int answer = find_device(work, &found)) return answer;
    return show(work, found, code::device_unknown);
}

// A refresh has nothing to fetch: every show call reads the array itself. It fails where it would.
int sync_path(Work *work) {
    return work->world().by_path(work->host, work->text(0)) != nullptr ? code::ok
                                                                       : code::path_unknown;
}

int sync_device(Work *work) {
    const Device *found = nullptr;
    return find_device(work, &found);
}

int control_ldev(Work *work) {
    std::string symid;
    PairNames names;
    if (const int answer =
            pair_of_ldev(work->world(), work->text(0), work->text(1), &symid, &names)) {
        return answer;
    }
    return work->engine->control(symid, {names}, work->call.numbers[0]);
}

int control_device(Work *work) {
    return work->engine->control(work->text(0), {{work->text(1), work->text(2)}},
                                 work->call.numbers[0]);
}

int control_list(Work *work) {
    if (work->call.texts.size() % 2 != 1) return code::bad_request;
    std::vector<PairNames> names;
    for (size_t i = 1; i < work->call.texts.size(); i += 2) {
        names.emplace_back(work->text(i), work->text(i + 1));
    }
    return work->engine->control(work->text(0), names, work->call.numbers[0]);
}

int control_group(Work *work) {
    std::string symid;
    std::vector<PairNames> names;
    if (const int answer = pairs_of_group(work->world(), work->text(0), &symid, &names)) {
        return answer;
    }
    return work->engine->control(symid, names, work->call.numbers[0]);
}

int show_group(Work *work) {
    return work->world().group(work->text(0)).empty() ? code::group_unknown : code::ok;
}

int list_arrays(Work *work) {
    for (const auto &[symid, array] : work->world().arrays()) work->answer.payload += symid + "\n";
    return code::ok;
}

int list_paths(Work *work, bool bcvs_only) {
    const auto &views = work->world().views();
    for (auto at = views.lower_bound({work->host, 0});
         at != views.end() && at->first.first == work->host; ++at) {
        const Device &device = work->world().device(at->second.device);
        if (bcvs_only && !device.bcv) continue;
        for (const Path &one : at->second.paths) {
            work->answer.payload += one.path + " " + device.symid + " " + device.name + "\n";
        }
    }
    return code::ok;
}

int list_all_paths(Work *work) {
    return list_paths(work, false);
}
int list_bcv_paths(Work *work) {
    return list_paths(work, true);
}

int nothing(Work *) {
    return code::ok;
}

int advance_clock(Work *work) {
    if (work->call.numbers[0] < 0) return code::bad_argument;
    work->engine->advance_clock(work->call.numbers[0] * micros_per_second);
    return code::ok;
}

struct Row {
    const char *name;
    int (*execute)(Work *);
    bool needs_session;
    size_t texts;  // at least
};

const Row *row_of(uint32_t function) {
    static const Row rows[] = {
        {"SymInitV", init, false, 1},
        {"SymExit", end_session, true, 0},
        {"SymDiscover", discover, true, 0},
        {"SymApiVersion", version, false, 0},
        {"SymApiPatch", patch, false, 0},
        {"SymPrefsSet", set_preference, true, 0},
        {"SymPdevShow", show_path, true, 1},
        {"SymDevShow", show_device, true, 2},
        {"SymPdevSync", sync_path, true, 1},
        {"SymDevSync", sync_device, true, 2},
        {"SymLdevBcvControl", control_ldev, true, 2},
        {"SymDevBcvControl", control_device, true, 3},
        {"SymDevListBcvControl", control_list, true, 3},
        {"SymDgBcvControl", control_group, true, 1},
        {"SymDgShow", show_group, true, 1},
        {"SymSync", nothing, true, 0},
        {"SymList", list_arrays, true, 0},
        {"SymPdevList", list_all_paths, true, 0},
        {"SymBcvPdevList", list_bcv_paths, true, 0},
        {"SymCommit", nothing, true, 0},
        {"SymInquiry", nothing, true, 0},
        {"SymPing", nothing, true, 0},
        {"SymStat", nothing, true, 0},
        {"ClockAdvance", advance_clock, false, 0},
    };
    static_assert(sizeof rows / sizeof rows[0] == function_count);
    return function < function_count ? &rows[function] : nullptr;
}

// The array names of the devices that a call is about, for faults of one device.
std::vector<std::string> devices_of(Work *work) {
    const std::vector<std::string> &texts = work->call.texts;
    switch (work->call.function) {
    case function_SymPdevShow:
    case function_SymPdevSync: {
        const Device *device = work->world().by_path(work->host, texts[0]);
        return device == nullptr ? std::vector<std::string>{}
                                 : std::vector<std::string>{device->name};
    }
    case function_SymLdevBcvControl: {
        std::string symid;
        PairNames names;
        if (pair_of_ldev(work->world(), texts[0], texts[1], &symid, &names) != 0) return {};
        return {names.first, names.second};
    }
    case function_SymDgBcvControl: {
        std::vector<std::string> all;
        for (const int64_t id : work->world().group(texts[0])) {
            all.push_back(work->world().device(id).name);
        }
        return all;
    }
    case function_SymDevShow:
    case function_SymDevSync:
    case function_SymDevBcvControl:
    case function_SymDevListBcvControl:
        return {texts.begin() + 1, texts.end()};
    default:
        return {};
    }
}

int execute(Work *work, const Row &row) {
    if (row.needs_session) {
        const int answer = work->engine->sessions().use(work->call.session, work->host,
                                                        work->connection, &work->session);
        if (answer != code::ok) return answer;
    }
    return row.execute(work);
}

}  // namespace

const char *name_of_function(uint32_t function) {
    const Row *row = row_of(function);
    return row != nullptr ? row->name : nullptr;
}

HostAnswer answer_host(Engine *engine, const std::string &host, int connection,
                       const HostCall &call) {
    Work work{engine, host, connection, call, nullptr, {}};
    const Row *row = row_of(call.function);
    if (row == nullptr || call.texts.size() < row->texts) {
        work.answer.code = code::bad_request;
        return work.answer;
    }
    engine->settle();
    bool counted = false;
    const Verdict verdict = engine->faults().ask(row->name, host, devices_of(&work), &counted);
    if (counted) engine->world().changes.faults = true;
    work.answer.delay_ms = verdict.delay_ms;
    work.answer.code = verdict.before != 0 ? verdict.before : execute(&work, *row);
    if (work.answer.code == code::ok && verdict.after != 0) work.answer.code = verdict.after;
    const int saved = engine->save();
    if (work.answer.code == code::ok) work.answer.code = saved;
    return work.answer;
}

}  // namespace lab
