#include "fimctl/inspect/lock_report.h"

#include "fimctl/inspect/report.h"

namespace fimctl {
namespace {

Json process_json(pid_t pid, const ProcessInfo &process) {
    if (pid == 0) return nullptr;
    Json json;
    json["pid"] = pid;
    json["command"] = process.command;
    json["started"] = instant(process.started);
    return json;
}

std::string advice_of(const HostLock &lock) {
    if (!lock.trouble.empty()) return "look at the file: ls -l " + lock.path;
    if (lock.holder == 0) return "nothing to do: it is free";
    return "wait: it is held for an instant at a time";
}

Json counter_json(const CounterFile &counter) {
    Json json;
    json["group"] = counter.group;
    json["path"] = counter.path;
    json["trouble"] = counter.trouble;
    json["size"] = counter.size;
    json["owner"] = name_of(counter.owner);
    json["pid"] = counter.pid;
    json["command"] = counter.process.command;
    json["since"] = instant(counter.since());
    json["written"] = instant(counter.written);
    json["count"] = counter.has_count ? Json(counter.count) : Json(nullptr);
    json["is_split"] = counter.is_split;
    json["advice"] = counter.advice();
    return json;
}

std::string as_json(const HostLock &host, const std::vector<CounterFile> &counters) {
    Json json;
    json["host_lock"]["path"] = host.path;
    json["host_lock"]["exists"] = host.exists;
    json["host_lock"]["trouble"] = host.trouble;
    json["host_lock"]["holder"] = process_json(host.holder, host.process);
    json["host_lock"]["advice"] = advice_of(host);
    json["counters"] = Json::array();
    for (const CounterFile &counter : counters) json["counters"].push_back(counter_json(counter));
    return document(json);
}

std::string host_line(const HostLock &lock) {
    std::string text = "host lock: ";
    if (!lock.trouble.empty()) {
        text += lock.trouble;
    } else if (!lock.exists) {
        text += "free (no snapshot has been taken on this host yet)";
    } else if (lock.holder == 0) {
        text += "free";
    } else {
        text += "held by process " + std::to_string(lock.holder) + " (" + lock.process.command +
                "), started " + utc(lock.process.started) + "\n    " + advice_of(lock);
    }
    return text + "\n";
}

std::string owner_of(const CounterFile &counter) {
    if (!counter.trouble.empty()) return "?";
    if (counter.owner == Owner::nobody) return "nobody";
    return std::to_string(counter.pid) + " (" + name_of(counter.owner) + ")";
}

// Of a file that cannot be read nothing is known.
std::string since_of(const CounterFile &counter) {
    if (!counter.trouble.empty()) return "?";
    return utc(counter.since()) + " (" + age_of(counter.since()) + ")";
}

std::string program_of(const CounterFile &counter) {
    return counter.owner == Owner::alive ? counter.process.command : "";
}

}  // namespace

std::string lock_report(const HostLock &host, const std::vector<CounterFile> &counters, bool json) {
    if (json) return as_json(host, counters);
    std::string text = host_line(host);
    if (counters.empty()) return text + "no counter file: no array is owned by anybody\n";
    Table table({"GROUP", "OWNER", "SINCE", "COUNT", "SPLIT", "PROGRAM"});
    for (const CounterFile &counter : counters) {
        table.row({counter.group, owner_of(counter), since_of(counter),
                   counter.has_count ? std::to_string(counter.count) : "-",
                   counter.has_count ? (counter.is_split ? "yes" : "no") : "-",
                   program_of(counter)});
        if (!counter.trouble.empty()) table.below(counter.path + ": " + counter.trouble);
        table.below(counter.advice());
    }
    return text + table.text();
}

}  // namespace fimctl
