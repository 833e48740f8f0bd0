// A method whose every call is recorded and can be made to fail. It keeps the rules of the real one
// that a framework can break: one owner of the locks, code 4 before the commit, flags for a
// process, the array work with the last thaw commit.
#include <fcntl.h>
#include <linux/fs.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>

#include "include/timefinder.h"
#include "tests/fimctl/fake_method/script.h"

struct FakePair {
    std::string symid, device, bcv;
    bool sync_at_end = false;
};

struct hdef {
    std::string source, fifs;
    int type = 3;
    bool is_mount = false, is_target = false, rebuilt = false;
    std::vector<FakePair> pairs;
    // Of a volume.
    std::string group, volume, clone, host, information;
    bool dgimport = false;
};

namespace {

int32_t *error_slot = nullptr;
char *log_buffer = nullptr;
char *message_buffer = nullptr;
tf_log_function sink = nullptr;
std::map<std::string, int> counts;
std::vector<hdef *> records;
std::vector<fake::ArrayPair> queue;
bool committed = false;
int total = 0;
int thaw_commits = 0;

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

void record_frozen(const std::string &directory) {
    const int file = open(directory.c_str(), O_RDONLY | O_DIRECTORY);
    if (ioctl(file, FIFREEZE, 0) == 0) {
        ioctl(file, FITHAW, 0);
        record("note", "not frozen " + directory);
    } else {
        record("note", (errno == EBUSY ? "frozen " : "error ") + directory);
    }
    close(file);
}

struct Play {
    int status = 0;
    bool with_handle = false;
    std::string spared_array;
};

void act(const std::string &action, std::istringstream &rest, Play &play) {
    std::string word;
    if (action == "fail" || action == "fail-with-handle") {
        int number = 0;
        rest >> number >> std::ws;
        std::getline(rest, word);
        play.status = fail(number, word);
        play.with_handle = action == "fail-with-handle";
    } else if (action == "sleep") {
        int milliseconds = 0;
        rest >> milliseconds;
        // Like the real one's sleeps, a signal does not end the call.
        for (int i = 0; i < milliseconds / 10; ++i) usleep(10000);
    } else if (action == "die") {
        kill(getpid(), SIGKILL);
    } else if (action == "log") {
        rest >> std::ws;
        std::getline(rest, word);
        if (sink != nullptr) sink(word.c_str());
    } else if (action == "copy") {
        std::string to;
        rest >> word >> to;
        // A disk may fill up under the copy: as much of it as there is room for is what is wanted.
        std::error_code error;
        std::filesystem::copy(word, to,
                              std::filesystem::copy_options::recursive |
                                  std::filesystem::copy_options::overwrite_existing,
                              error);
    } else if (action == "temporary") {
        const std::string temporary = getenv("TMPDIR");
        record("note", "TMPDIR=" + temporary);
        std::ofstream(temporary + "/QfMSleft") << "left";
    } else if (action == "frozen?") {
        rest >> word;
        record_frozen(word);
    } else if (action == "fithaw") {
        rest >> word;
        const int file = open(word.c_str(), O_RDONLY | O_DIRECTORY);
        ioctl(file, FITHAW, 0);
        close(file);
    } else if (action == "keep-split-from") {
        rest >> play.spared_array;
    }
}

// Records the call and plays what the script says for it.
Play play(const std::string &call, const std::string &detail) {
    record(call, detail);
    const int number = ++counts[call];
    Play played;
    for (const std::string &line : fake::lines_of("script")) {
        std::istringstream words(line);
        std::string name, when, action;
        words >> name >> when >> action;
        if (name != call || (when != "*" && when != std::to_string(number))) continue;
        act(action, words, played);
    }
    return played;
}

// One process owns the locks for as long as it exists, reaped or not.
bool take_lock() {
    std::ifstream in(fake::folder + "/owner");
    int owner = 0;
    if (in >> owner && owner != getpid() && getpgid(owner) != -1) {
        char line[100] = "";
        snprintf(line, sizeof line, "lock pid(%d) != pid(%d): /lock", owner, getpid());
        if (sink != nullptr) sink(line);
        return false;
    }
    std::ofstream(fake::folder + "/owner", std::ios::trunc) << getpid();
    return true;
}

void set_state(const FakePair &wanted, long state) {
    auto pairs = fake::read_array();
    for (fake::ArrayPair &pair : pairs) {
        if (pair.symid == wanted.symid && pair.device == wanted.device && pair.bcv == wanted.bcv) {
            pair.state = state;
        }
    }
    fake::write_array(pairs);
}

long state_of(const FakePair &wanted) {
    for (const fake::ArrayPair &pair : fake::read_array()) {
        if (pair.symid == wanted.symid && pair.device == wanted.device && pair.bcv == wanted.bcv) {
            return pair.state;
        }
    }
    return 0;
}

void find_pairs(hdef &object) {
    for (const std::string &line : fake::lines_of("objects")) {
        std::istringstream words(line);
        std::string source;
        int type = 0;
        FakePair pair;
        words >> source >> type >> pair.symid >> pair.device >> pair.bcv;
        if (source != object.source) continue;
        object.type = type;
        if (state_of(pair) == 5) {
            queue.push_back({pair.symid, pair.device, pair.bcv, 5});
            pair.sync_at_end = true;
        }
        object.pairs.push_back(pair);
    }
}

#include "tests/fimctl/fake_method/volumes.h"

std::string value_of(const std::string &line) {
    return line.substr(line.find('=') + 1);
}

bool begins(const std::string &line, const char *key) {
    return line.compare(0, strlen(key), key) == 0;
}

std::string mark_of(const hdef &object) {
    return object.fifs + "/copied";
}

}  // namespace

extern "C" {
#pragma GCC visibility push(default)

int32_t TimeFinder_init(int32_t *errnop, char *logmsg_buffer, char *errmsg_buffer) {
    error_slot = errnop;
    log_buffer = logmsg_buffer;
    message_buffer = errmsg_buffer;
    record("init", "");
    return 0;
}

int32_t TimeFinder_query(void *) {
    record("query", "");
    return 0;
}

int32_t TimeFinder_set_locale(const char *, const char *) {
    record("set_locale", "");
    return 0;
}

int32_t TimeFinder_set_logf(tf_log_function function, int32_t level) {
    sink = function;
    record("set_logf", std::to_string(level));
    return 0;
}

int32_t TimeFinder_freeze(const char *config, const char *source, const char *fifs, void *,
                          int32_t *, int32_t flag, hdef **handle) {
    *handle = nullptr;
    const Play played =
        play("freeze", std::string(source) + " fifs=" + fifs + " flag=" + std::to_string(flag) +
                           " config=" + (config == nullptr ? "(null)" : config));
    if (played.status != 0 && !played.with_handle) return played.status;
    auto *object = new hdef;
    object->source = source;
    object->fifs = fifs;
    *handle = object;
    records.push_back(object);
    ++total;
    if (!take_lock()) return fail(3, "find_bcv_pair: Cannot get lock on device: /dev/p0");
    find_volume(*object, config);
    if (!object->dgimport || !listed_before(*object)) find_pairs(*object);
    return played.status;
}

int32_t TimeFinder_ctl(hdef *, int32_t cmd) {
    const Play played = play("ctl", std::to_string(cmd));
    if (played.status != 0) return played.status;
    if (cmd != TF_CTL_RESYNC_AT_START) return 0;
    for (const fake::ArrayPair &pair : queue) set_state({pair.symid, pair.device, pair.bcv}, 2);
    if (committed) {
        // The table holds the pairs that were just split.
        for (hdef *object : records) {
            for (const FakePair &pair : object->pairs) set_state(pair, 2);
        }
    }
    queue.clear();
    return 0;
}

int32_t TimeFinder_freeze_commit(hdef *fih) {
    const Play played = play("freeze_commit", fih->source);
    if (played.status != 0) return played.status;
    if (committed) return 0;
    std::vector<std::string> done;
    for (hdef *object : records) {
        for (FakePair &pair : object->pairs) {
            if (state_of(pair) == 5) return fail(11, "emc_tf_split_prepare: cannot be split");
            bool seen = false;
            for (const std::string &device : done) seen = seen || device == pair.device;
            if (seen || pair.symid == played.spared_array) continue;
            done.push_back(pair.device);
            set_state(pair, 5);
            pair.sync_at_end = true;
            const std::string line = "Adding <" + pair.device + ", " + pair.bcv + "> to split list";
            if (sink != nullptr) sink(line.c_str());
        }
    }
    committed = true;
    return 0;
}

int32_t TimeFinder_ckpt(hdef *fih, char **text) {
    const Play played = play("ckpt", fih->source);
    if (played.status != 0) return played.status;
    std::ostringstream out;
    out << volume_lines(*fih) << "HDEF-is_mount=" << (fih->is_mount ? 1 : 0)
        << "\nHDEF-object_type=" << fih->type << "\nHDEF-mount_point=" << fih->fifs
        << "\nHDEF-fs_path=" << fih->source << "\nPRIM_MIR_INFO=START\n";
    for (const FakePair &pair : fih->pairs) {
        out << "PMINFO-symid=" << pair.symid << "\nPMINFO-dev_sym_devname=" << pair.device
            << "\nPMINFO-bcvdev_sym_devname=" << pair.bcv
            << "\nPMINFO-sync_at_end=" << (pair.sync_at_end ? 1 : 0) << "\nPRIM_MIR_INFO=NEXT\n";
    }
    out << "PRIM_MIR_INFO=END\n";
    *text = strdup(out.str().c_str());
    return 0;
}

int32_t TimeFinder_rebuild(hdef **fih, char *text) {
    auto *object = new hdef;
    object->rebuilt = true;
    *fih = object;
    FakePair pair;
    bool in_clone = false;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line == "HDEF-CLONE_INFO_FILE=START") in_clone = true;
        if (line == "HDEF-CLONE_INFO_FILE=END") in_clone = false;
        if (in_clone && begins(line, "clone information")) object->information += line;
        if (line == "HDEF-is_vol=1") object->group = "?";
        if (begins(line, "HDEF-vol_group=") && !object->group.empty()) {
            object->group = value_of(line);
        }
        if (begins(line, "HDEF-vol_name=")) object->volume = value_of(line);
        if (begins(line, "HDEF-clone_group=")) object->clone = value_of(line);
        if (begins(line, "HDEF-primary_host=")) object->host = value_of(line);
        if (begins(line, "HDEF-dgimport=")) object->dgimport = value_of(line) == "1";
        if (begins(line, "HDEF-is_mount=")) object->is_mount = value_of(line) == "1";
        if (begins(line, "HDEF-is_tgt=")) object->is_target = value_of(line) == "1";
        if (begins(line, "HDEF-object_type=")) object->type = atoi(value_of(line).c_str());
        if (begins(line, "HDEF-mount_point=")) object->fifs = value_of(line);
        if (begins(line, "HDEF-fs_path=")) object->source = value_of(line);
        if (begins(line, "PMINFO-symid=")) pair.symid = value_of(line);
        if (begins(line, "PMINFO-dev_sym_devname=")) pair.device = value_of(line);
        if (begins(line, "PMINFO-bcvdev_sym_devname=")) pair.bcv = value_of(line);
        if (begins(line, "PMINFO-sync_at_end=")) pair.sync_at_end = value_of(line) == "1";
        if (line == "PRIM_MIR_INFO=NEXT") object->pairs.push_back(pair);
    }
    const Play played =
        play("rebuild", object->source + " is_mount=" + (object->is_mount ? "1" : "0") +
                            (object->is_target ? " target" : ""));
    for (char *at = text; *at != '\0'; ++at) *at = *at == '\n' ? ' ' : *at;
    if (played.status != 0) return played.status;
    if (!object->is_target && !take_lock()) {
        return fail(3, "TimeFinder_rebuild: Cannot get lock on device: /dev/p0");
    }
    records.push_back(object);
    ++total;
    return 0;
}

int32_t TimeFinder_volumes(hdef *fih, char *volpath, int32_t *nvols) {
    const Play played = play("volumes", fih->source);
    *nvols = 0;
    snprintf(volpath, TF_VOLPATH_SIZE, "/dev/sd-of%s", fih->source.c_str());
    if (!fih->group.empty()) {
        const int status = bring_up(*fih);
        if (status != 0) return status;
        snprintf(volpath, TF_VOLPATH_SIZE, "/dev/qz/dsk/%s/%s", fih->clone.c_str(),
                 fih->volume.c_str());
    }
    if (played.status != 0) {
        // As when the volumes of a group that was imported cannot be started.
        fih->clone.clear();
        return played.status;
    }
    if (fih->type == 3) {
        std::ofstream(mark_of(*fih)) << "copy of " << fih->source << "\n";
        fih->is_mount = true;
    }
    return 0;
}

int32_t TimeFinder_thaw(hdef *fih) {
    const Play played = play("thaw", fih->source);
    if (played.status != 0) return played.status;
    if (fih->is_mount) unlink(mark_of(*fih).c_str());
    let_go(*fih);
    return 0;
}

int32_t TimeFinder_thaw_commit(hdef *fih) {
    const Play played = play("thaw_commit", fih->source);
    if (played.status != 0) return played.status;
    if (++thaw_commits < total) return 0;
    for (hdef *object : records) {
        for (const FakePair &pair : object->pairs) {
            if (pair.sync_at_end) set_state(pair, 2);
        }
    }
    unlink((fake::folder + "/owner").c_str());
    return 0;
}

#pragma GCC visibility pop
}
