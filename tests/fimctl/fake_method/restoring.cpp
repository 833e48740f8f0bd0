// A method that restores: the order of unmounts, deport, control, import, checks and mounts is that
// of the real one, and so are its traps. It works on real file systems; the array is the scripted
// one, and every step of it can be played on (see script.h): rebuild, thaw, thaw_commit, unmounted,
// deported, control, controlled, imported, mounted.
//
// Actions beside those of the other one: state DEVICE N (the pair's state on the array),
// kill-command (the command that started this process dies), lie (nothing is controlled),
// refuse ARRAY (the array refuses the call), hold FILE (a process of its own opens it and stays).
#include <fcntl.h>
#include <mntent.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "include/timefinder.h"
#include "tests/fimctl/fake_method/script.h"

struct FakePair {
    std::string symid, device, bcv;
    bool sync_at_end = false;
};

struct hdef {
    std::string source, directory, group, volume, block, fstype;
    int type = 0;
    bool restore = false, is_mount = false, dgimport = false;
    std::vector<FakePair> pairs;
};

namespace {

int32_t *error_slot = nullptr;
char *log_buffer = nullptr;
char *message_buffer = nullptr;
tf_log_function sink = nullptr;
std::map<std::string, int> counts;
// Newest first, as the method walks them.
std::vector<std::pair<std::string, std::vector<hdef *>>> groups;
std::map<std::string, size_t> ended;
int total = 0;
int thaw_commits = 0;
bool lying = false;
std::string refusing;

void record(const std::string &call, const std::string &detail) {
    const std::string line = std::to_string(getpid()) + " " + call + " " + detail + "\n";
    const int file = open((fake::folder + "/calls").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (write(file, line.data(), line.size()) < 0) abort();
    close(file);
}

int fail(int number, const std::string &text) {
    *error_slot = number;
    snprintf(message_buffer, TF_MESSAGE_SIZE, "%s", text.c_str());
    snprintf(log_buffer, TF_MESSAGE_SIZE, "%s", text.c_str());
    if (sink != nullptr) sink(text.c_str());
    return 11;
}

long state_of(const FakePair &wanted) {
    for (const fake::ArrayPair &pair : fake::read_array()) {
        if (pair.symid == wanted.symid && pair.device == wanted.device && pair.bcv == wanted.bcv) {
            return pair.state;
        }
    }
    return 0;
}

void set_state(const std::string &device, long state) {
    auto pairs = fake::read_array();
    for (fake::ArrayPair &pair : pairs) {
        if (pair.device == device) pair.state = state;
    }
    fake::write_array(pairs);
}

int act(const std::string &action, std::istringstream &rest) {
    std::string word;
    int number = 0;
    if (action == "fail") {
        rest >> number >> std::ws;
        std::getline(rest, word);
        return fail(number, word);
    }
    if (action == "die") kill(getpid(), SIGKILL);
    if (action == "kill-command") {
        kill(getppid(), SIGKILL);
        pause();
    }
    if (action == "sleep") {
        rest >> number;
        for (int i = 0; i < number / 10; ++i) usleep(10000);
    }
    if (action == "state") {
        rest >> word >> number;
        set_state(word, number);
    }
    if (action == "hold") {
        // Somebody opens a file just now.
        rest >> word;
        const int file = open(word.c_str(), O_RDONLY);
        if (fork() == 0) {
            setsid();
            execl("/bin/sleep", "sleep", "50", static_cast<char *>(nullptr));
            _exit(1);
        }
        close(file);
    }
    if (action == "lie") lying = true;
    if (action == "refuse") rest >> refusing;
    return 0;
}

int play(const std::string &call, const std::string &detail) {
    record(call, detail);
    const int number = ++counts[call];
    int status = 0;
    for (const std::string &line : fake::lines_of("script")) {
        std::istringstream words(line);
        std::string name, when, action;
        words >> name >> when >> action;
        if (name != call || (when != "*" && when != std::to_string(number))) continue;
        const int played = act(action, words);
        if (played != 0) status = played;
    }
    return status;
}

int run(const std::string &line) {
    record("run", line);
    return system((line + " >/dev/null 2>&1").c_str()) == 0 ? 0 : 1;
}

// Where a block device is mounted, by its number.
bool is_mounted(const std::string &block, const std::string &directory) {
    struct stat device = {};
    if (stat(block.c_str(), &device) != 0) return false;
    FILE *table = setmntent("/proc/self/mounts", "r");
    bool found = false;
    while (const mntent *entry = getmntent(table)) {
        struct stat status = {};
        if (stat(entry->mnt_dir, &status) != 0 || status.st_dev != device.st_rdev) continue;
        found = found || directory.empty() || directory == entry->mnt_dir;
    }
    endmntent(table);
    return found;
}

// The checker of the extended file systems refuses any other; that of xfs takes everything.
int check(const std::string &block, const std::string &type) {
    record("check", block + " " + type);
    if (type == "xfs") return 0;
    if (is_mounted(block, "")) return 1;
    return system(("fsck.ext4 -p " + block + " >/dev/null 2>&1").c_str()) == 0 ? 0 : 1;
}

std::string value_of(const std::string &line) {
    return line.substr(line.find('=') + 1);
}

bool begins(const std::string &line, const char *key) {
    return line.compare(0, strlen(key), key) == 0;
}

void list(hdef *object) {
    for (auto &[name, members] : groups) {
        if (name != object->group) continue;
        members.insert(members.begin(), object);
        return;
    }
    groups.insert(groups.begin(), {object->group, {object}});
}

int control(const std::vector<FakePair> &pairs) {
    if (play("control", "") != 0) return 11;
    if (lying) return 0;
    for (const FakePair &pair : pairs) {
        if (pair.symid == refusing || state_of(pair) == 8) return 11;
    }
    for (const FakePair &pair : pairs) set_state(pair.device, 8);
    return 0;
}

int restore_pairs() {
    std::vector<FakePair> pairs;
    for (const auto &[name, members] : groups) {
        for (const hdef *object : members) {
            for (const FakePair &pair : object->pairs) {
                const long state = state_of(pair);
                if (pair.sync_at_end && state != 1 && state != 2) pairs.push_back(pair);
            }
        }
    }
    if (lying || pairs.empty()) return 0;
    record("restore", std::to_string(pairs.size()));
    control(pairs);
    for (const FakePair &pair : pairs) {
        const long state = state_of(pair);
        if (state != 2 && state != 8) return fail(3, "device " + pair.device + " not established");
    }
    return play("controlled", "");
}

int bring_back(const hdef *last) {
    for (const auto &[name, members] : groups) {
        if (run("/usr/sbin/qzdg -C import " + name) != 0 ||
            run("/usr/sbin/qzvol -g " + name + " startall") != 0) {
            return fail(3, "import failed");
        }
    }
    if (play("imported", "") != 0) return 11;
    for (const auto &[name, members] : groups) {
        for (const hdef *object : members) {
            if (object->type != 3) continue;
            if (check(object->block, last->fstype) != 0) return fail(3, "Q_fsck failed");
            if (is_mounted(last->block, last->directory)) continue;
            if (run("mount -t " + last->fstype + " " + last->block + " " + last->directory) != 0) {
                return fail(3, "Q_mount() failed");
            }
        }
    }
    return play("mounted", "");
}

}  // namespace

extern "C" {
#pragma GCC visibility push(default)

int32_t TimeFinder_init(int32_t *errnop, char *logmsg_buffer, char *errmsg_buffer) {
    error_slot = errnop;
    log_buffer = logmsg_buffer;
    message_buffer = errmsg_buffer;
    return 0;
}

int32_t TimeFinder_query(void *) {
    return 0;
}

int32_t TimeFinder_set_locale(const char *, const char *) {
    return 0;
}

int32_t TimeFinder_set_logf(tf_log_function function, int32_t) {
    sink = function;
    return 0;
}

int32_t TimeFinder_freeze(const char *, const char *, const char *, void *, int32_t *, int32_t,
                          hdef **) {
    return 11;
}

int32_t TimeFinder_ctl(hdef *, int32_t) {
    return 11;
}

int32_t TimeFinder_freeze_commit(hdef *) {
    return 11;
}

int32_t TimeFinder_ckpt(hdef *, char **) {
    return 11;
}

int32_t TimeFinder_volumes(hdef *, char *, int32_t *) {
    return 11;
}

int32_t TimeFinder_rebuild(hdef **fih, char *text) {
    auto *object = new hdef;
    *fih = object;
    FakePair pair;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (begins(line, "HDEF-object_type=")) object->type = atoi(value_of(line).c_str());
        if (begins(line, "HDEF-mount_point=")) object->directory = value_of(line);
        if (begins(line, "HDEF-is_mount=")) object->is_mount = value_of(line) == "1";
        if (begins(line, "HDEF-restore=")) object->restore = value_of(line) == "1";
        if (begins(line, "HDEF-dgimport=")) object->dgimport = value_of(line) == "1";
        if (begins(line, "HDEF-vol_group=")) object->group = value_of(line);
        if (begins(line, "HDEF-vol_name=")) object->volume = value_of(line);
        if (begins(line, "HDEF-dev_block_device=")) object->block = value_of(line);
        if (begins(line, "HDEF-fstype=")) object->fstype = value_of(line);
        if (begins(line, "PMINFO-symid=")) pair.symid = value_of(line);
        if (begins(line, "PMINFO-dev_sym_devname=")) pair.device = value_of(line);
        if (begins(line, "PMINFO-bcvdev_sym_devname=")) pair.bcv = value_of(line);
        if (begins(line, "PMINFO-sync_at_end=")) pair.sync_at_end = value_of(line) == "1";
        if (line != "PRIM_MIR_INFO=NEXT") continue;
        object->pairs.push_back(pair);
        pair = {};
    }
    const int status = play(
        "rebuild", object->volume + " restore=" + (object->restore ? "1" : "0") +
                       " is_mount=" + (object->is_mount ? "1" : "0") + " at " + object->directory);
    if (status != 0) return status;
    list(object);
    ++total;
    return 0;
}

int32_t TimeFinder_thaw(hdef *fih) {
    return play("thaw", fih->volume);
}

int32_t TimeFinder_thaw_commit(hdef *fih) {
    const int status = play("thaw_commit", fih->volume);
    if (status != 0) return status;
    ++thaw_commits;
    if (!fih->restore) {
        if (thaw_commits < total) return 0;
        for (const auto &[name, members] : groups) {
            for (const hdef *object : members) {
                for (const FakePair &pair : object->pairs) set_state(pair.device, 2);
            }
        }
        return 0;
    }
    if (fih->type == 3 && is_mounted(fih->block, "")) {
        // Without a message, as the real one.
        if (run("umount " + fih->directory) != 0) return 11;
        if (play("unmounted", fih->volume) != 0) return 11;
    }
    size_t members = 0;
    for (const auto &[name, objects] : groups) {
        if (name == fih->group) members = objects.size();
    }
    if (++ended[fih->group] != members) return 0;
    if (run("/usr/sbin/qzdg deport " + fih->group) != 0) return 1;
    if (play("deported", fih->group) != 0) return 11;
    if (thaw_commits < total) return 0;
    const int restored = restore_pairs();
    return restored != 0 ? restored : bring_back(fih);
}

#pragma GCC visibility pop
}
