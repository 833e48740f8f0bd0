#include "proof/kill_points/recovery.h"

#include <algorithm>

namespace proof {
namespace {

struct Step {
    std::string name;
    Words arguments;
};

std::vector<Step> parsed(const Words &steps) {
    static const std::map<std::string, size_t> counts = {
        {"freeze", 3}, {"freeze_no_wait", 3}, {"object", 1}, {"ctl", 1},
        {"ckpt", 1},   {"rebuild", 1},        {"run", 1}};
    std::vector<Step> found;
    for (size_t i = 0; i < steps.size();) {
        Step step = {steps[i++], {}};
        const auto count = counts.find(step.name);
        const size_t end = count == counts.end() ? i : std::min(steps.size(), i + count->second);
        for (; i < end; ++i) step.arguments.push_back(steps[i]);
        found.push_back(std::move(step));
    }
    return found;
}

void add(Words &steps, std::initializer_list<std::string> more) {
    steps.insert(steps.end(), more);
}

// Of two values for one keyword the later one holds.
std::string resynchronised(const std::string &config) {
    return (config == "-" ? "" : config + ",") + "sync_at_start=1";
}

Process undo(const Process &killed) {
    Process process = {"undo", killed.host, {}, {}, {}, {}};
    const auto objects = objects_of(killed.steps);
    for (const auto &[number, object] : objects) {
        add(process.steps, {"object", std::to_string(number), "freeze",
                            resynchronised(object.config), object.source, object.fifs});
    }
    add(process.steps, {"ctl", "4"});
    for (const char *step : {"thaw", "thaw_commit"}) {
        for (const auto &object : objects)
            add(process.steps, {"object", std::to_string(object.first), step});
    }
    return process;
}

// From texts that say "mounted"; commit: the snapshot ends with it.
Process take_down(const Process &killed, bool commit) {
    Process process = {"take_down", killed.host, {}, {}, {}, {}};
    const auto objects = objects_of(killed.steps);
    for (const auto &[number, object] : objects) {
        add(process.steps, {"object", std::to_string(number), "rebuild", taken_down(object.text)});
    }
    for (const char *step : {"thaw", "thaw_commit"}) {
        for (const auto &object : objects)
            add(process.steps, {"object", std::to_string(object.first), step});
        if (!commit) break;
    }
    return process;
}

Recovery recovery_of_mount(const Scenario &scenario, size_t killed, const Left &left) {
    const Process &process = scenario.processes.at(killed);
    if (!left.shown_once) return {{}, {take_down(process, false)}, killed, true};
    if (left.gives_up) return {{}, {take_down(process, true)}, scenario.processes.size(), true};
    // Its volumes are checked first, which a mounted one refuses.
    return {{"umount /copy/* 2>/dev/null || true"}, {}, killed, true};
}

}  // namespace

std::map<int, ObjectSteps> objects_of(const Words &steps) {
    std::map<int, ObjectSteps> objects;
    int number = 0;
    for (const Step &step : parsed(steps)) {
        if (step.name == "object") number = std::stoi(step.arguments.at(0));
        if (step.name == "freeze") {
            ObjectSteps &object = objects[number];
            object.config = step.arguments.at(0);
            object.source = step.arguments.at(1);
            object.fifs = step.arguments.at(2);
        }
        // A process that brings a copy up rebuilds from one text and leaves another one.
        if (step.name == "rebuild") objects[number].text = step.arguments.at(0);
        if (step.name == "ckpt" && objects[number].text.empty())
            objects[number].text = step.arguments.at(0);
    }
    return objects;
}

bool has_step(const Words &steps, const std::string &name) {
    const auto all = parsed(steps);
    return std::any_of(all.begin(), all.end(),
                       [&name](const Step &step) { return step.name == name; });
}

std::string taken_down(const std::string &text) {
    return text + ".taken_down";
}

Recovery recovery_of(const Scenario &scenario, size_t killed, const Left &left) {
    const Process &process = scenario.processes.at(killed);
    if (has_step(process.steps, "freeze")) {
        if (left.texts_kept) return {{}, {}, killed + 1, false};
        return {{}, {undo(process)}, 0, false};
    }
    if (has_step(process.steps, "volumes")) return recovery_of_mount(scenario, killed, left);
    return {process.repair, {}, killed, true};
}

}  // namespace proof
