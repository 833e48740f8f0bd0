#include "lab/qzvm/state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>

#include "lab/common/descriptor.h"

namespace qz {
namespace {

using lab::common::Descriptor;

constexpr const char *daemon_words[] = {"enabled", "disabled", "stalled"};

[[noreturn]] void is_damaged(const std::string &line) {
    throw Error(std::string(place::state) + " is damaged: " + line);
}

Daemon daemon_of(const std::string &word) {
    for (size_t i = 0; i < std::size(daemon_words); ++i) {
        if (word == daemon_words[i]) return static_cast<Daemon>(i);
    }
    is_damaged("daemon " + word);
}

void read_line(const std::string &text, State *state) {
    std::istringstream line(text);
    std::string key, name;
    line >> key;
    if (key == "order") {
        line >> state->order;
    } else if (line >> name; key == "daemon") {
        state->daemon = daemon_of(name);
    } else if (key == "disk") {
        KnownDisk &disk = state->disks[name];
        line >> disk.online >> disk.order;
    } else if (key == "group") {
        ImportedGroup &group = state->groups[name];
        line >> group.id;
        if (!line) is_damaged(text);
        for (std::string path; line >> path;) group.disks.push_back(path);
        return;
    } else {
        is_damaged(text);
    }
    if (!line) is_damaged(text);
}

int lock_depth = 0;
Descriptor lock_file;

}  // namespace

std::string State::text() const {
    std::ostringstream out;
    out << "daemon " << daemon_words[static_cast<size_t>(daemon)] << "\norder " << order << '\n';
    for (const auto &[path, disk] : disks) {
        out << "disk " << path << ' ' << disk.online << ' ' << disk.order << '\n';
    }
    for (const auto &[name, group] : groups) {
        out << "group " << name << ' ' << group.id;
        for (const std::string &path : group.disks) out << ' ' << path;
        out << '\n';
    }
    return out.str();
}

State State::of_text(const std::string &text) {
    State state;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) read_line(line, &state);
    return state;
}

Exclusive::Exclusive() {
    if (lock_depth++ > 0) return;
    for (const char *folder : {place::base, place::nodes, place::holders}) mkdir(folder, 0700);
    lock_file = Descriptor(open(place::lock, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!lock_file.good() || flock(lock_file.get(), LOCK_EX) != 0) {
        lock_depth = 0;
        fails(std::string("lock ") + place::lock);
    }
}

Exclusive::~Exclusive() {
    if (--lock_depth == 0) lock_file.reset();
}

State load_state() {
    std::ifstream in(place::state);
    return State::of_text({std::istreambuf_iterator<char>(in), {}});
}

void save_state(const State &state) {
    // Whoever is killed here leaves the state as it was before.
    const std::string fresh = std::string(place::state) + ".new";
    std::ofstream out(fresh, std::ios::trunc);
    out << state.text();
    out.close();
    if (!out || rename(fresh.c_str(), place::state) != 0) {
        fails(std::string("write ") + place::state);
    }
}

std::string this_host() {
    char name[256] = "";
    if (gethostname(name, sizeof name - 1) != 0) fails("ask for the host's name");
    return name;
}

}  // namespace qz
