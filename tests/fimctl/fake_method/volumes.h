// What the scripted method does for volumes; a part of method.cpp, in its anonymous namespace.
#pragma once

void find_volume(hdef &object, const char *config) {
    for (const std::string &line : fake::lines_of("volumes")) {
        std::istringstream words(line);
        std::string source, group, volume;
        words >> source >> group >> volume;
        if (source != object.source) continue;
        object.group = group;
        object.volume = volume;
        object.dgimport =
            config != nullptr && strstr(config, "alternate_backup_client=") != nullptr;
        char name[256] = "";
        gethostname(name, sizeof name - 1);
        object.host = std::string(name).substr(0, std::string(name).find('.'));
    }
}

// Whether an object of this process listed the group before this one.
bool listed_before(const hdef &object) {
    for (const hdef *other : records) {
        if (other == &object) return false;
        if (!object.group.empty() && other->group == object.group) return true;
    }
    return false;
}

bool is_up(const std::string &clone, const std::string &volume) {
    for (const std::string &line : fake::lines_of("groups")) {
        if (line == clone + " " + volume) return true;
    }
    return false;
}

void take_down(const std::string &clone, const std::string &volume) {
    const auto lines = fake::lines_of("groups");
    std::ofstream out(fake::folder + "/groups", std::ios::trunc);
    for (const std::string &line : lines) {
        if (line != clone + " " + volume) out << line << "\n";
    }
    record("note", "down " + clone + " " + volume);
}

// Brings the copy of a volume's group up, once a group.
int bring_up(hdef &object) {
    object.clone = (object.host + "_" + object.group).substr(0, 25) + "_clone";
    const std::string volume = object.dgimport ? "*" : object.volume;
    if (object.dgimport && listed_before(object)) return 0;
    if (!object.dgimport && !listed_before(object) && object.information.empty()) {
        object.clone.clear();
        return fail(11, "TimeFinder_volumes: no clone information");
    }
    if (is_up(object.clone, volume)) {
        object.clone.clear();
        return fail(11, "TimeFinder_volumes: the group is imported already");
    }
    std::ofstream(fake::folder + "/groups", std::ios::app) << object.clone << " " << volume << "\n";
    record("note", "up " + object.clone + " " + volume);
    return 0;
}

void let_go(const hdef &object) {
    if (object.clone.empty()) return;
    if (!object.dgimport) {
        take_down(object.clone, object.volume);
        return;
    }
    static std::map<std::string, int> thawed;
    int members = 0;
    for (const hdef *other : records) members += other->group == object.group ? 1 : 0;
    if (++thawed[object.group] == members && is_up(object.clone, "*")) take_down(object.clone, "*");
}

std::string volume_lines(const hdef &object) {
    std::ostringstream out;
    out << "HDEF-is_vol=" << (object.group.empty() ? 0 : 1)
        << "\nHDEF-vol_group=" << (object.group.empty() ? "__NOT_VOL__GRP__" : object.group)
        << "\nHDEF-vol_name=" << object.volume << "\nHDEF-clone_group=" << object.clone
        << "\nHDEF-primary_host=" << object.host << "\nHDEF-dgimport=" << object.dgimport << "\n";
    if (object.group.empty() || object.dgimport || object.rebuilt || listed_before(object)) {
        return out.str();
    }
    const std::string transfer = std::string(getenv("TMPDIR")) + "/EMCTX" + object.group;
    std::ofstream(transfer) << "clone information of " << object.group << "\n";
    record("note", "clone tool " + object.group);
    out << "HDEF-CLONE_INFO_FILE=START\nTRANSFER_FILE=" << transfer
        << "\nHDEF-CLONE_INFO_FILE=END\n";
    return out.str();
}
