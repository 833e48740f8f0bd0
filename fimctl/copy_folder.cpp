#include "fimctl/copy_folder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "fimctl/cycle.h"
#include "fimctl/failure.h"
#include "fimctl/tool.h"

namespace fimctl {
namespace {

namespace fs = std::filesystem;

constexpr char another[] = "name a directory that is missing or empty";

Failure unusable(const std::string &text) {
    return Failure(Step::check, ExitCode::usage, text);
}

Failure unusable(const std::string &text, const std::string &next) {
    Failure failure = unusable(text);
    failure.next = next;
    return failure;
}

// From the folder upwards.
void remove_folders_up(const fs::path &folder, int64_t count) {
    fs::path at = folder;
    for (; count > 0 && rmdir(at.c_str()) == 0; --count) at = at.parent_path();
}

int64_t make_with_parents(const std::string &folder, mode_t mode) {
    struct stat status = {};
    if (stat(folder.c_str(), &status) == 0) {
        if (!S_ISDIR(status.st_mode)) throw unusable(folder + ": not a directory", another);
        return 0;
    }
    const fs::path above = fs::path(folder).parent_path();
    const int64_t made = above == folder ? 0 : make_with_parents(above, 0777);
    if (mkdir(folder.c_str(), mode) == 0) return made + 1;
    const int reason = errno;
    remove_folders_up(above, made);
    throw unusable(folder + ": " + strerror(reason));
}

bool is_at_or_below(const std::string &path, const std::string &folder) {
    return path == folder || path.starts_with(folder == "/" ? folder : folder + "/");
}

// A copy there would hide the catalogue, or would be taken for what fimctl has made itself.
void refuse_near_state(const std::string &what, const std::string &real, const std::string &state) {
    const std::string own = fs::weakly_canonical(state);
    if (!is_at_or_below(real, own) && !is_at_or_below(own, real)) return;
    throw unusable(what +
                       (real == own                 ? " is"
                        : is_at_or_below(real, own) ? " lies in"
                                                    : " lies above") +
                       " the state folder " + own + ", which is fimctl's own",
                   "name a directory elsewhere, or leave --mount-at out");
}

}  // namespace

int64_t make_folder(const std::string &folder) {
    // What lies above is made as mkdir -p would make it.
    return make_with_parents(folder, 0700);
}

void remove_made_folders(const std::vector<ObjectRecord> &objects) {
    // The first one may have made what lies above all of them.
    for (auto object = objects.rbegin(); object != objects.rend(); ++object) {
        remove_folders_up(object->fifs, object->made_fifs);
    }
}

std::string mount_folder(const std::string &mount_at, size_t number, size_t count) {
    const std::string folder = absolute_path(mount_at);
    return count > 1 ? folder + "/" + std::to_string(number + 1) : folder;
}

void refuse_in_use(const std::string &what, const std::string &real, const std::string &next) {
    if (is_mount_point(real)) throw unusable(what + " is a mount point already", next);
    struct stat status = {};
    if (lstat(real.c_str(), &status) != 0) return;
    if (!S_ISDIR(status.st_mode)) throw unusable(what + ": not a directory", next);
    std::error_code error;
    if (!fs::is_empty(real, error) && !error) {
        throw unusable(what + " is not empty: the copy would hide what is there", next);
    }
}

void refuse_mount_at(const Settings &settings, const std::vector<Source> &sources) {
    if (settings.mount_at.empty()) return;
    for (size_t i = 0; i < sources.size(); ++i) {
        const std::string folder = mount_folder(settings.mount_at, i, sources.size());
        if (folder.find('\n') != std::string::npos) {
            throw unusable("--mount-at: a newline in the path");
        }
        std::error_code error;
        const std::string real = fs::weakly_canonical(folder, error);
        if (error) throw unusable(folder + ": " + error.message());
        const std::string what = "--mount-at: " + folder;
        for (const Source &source : sources) {
            if (source.mount_dir != real) continue;
            throw unusable(
                what + " is where the original is mounted; the copy needs a directory of its own");
        }
        refuse_near_state(what, real, settings.state);
        refuse_in_use(what, real, another);
    }
}

void refuse_promised(const std::string &what, const std::string &real,
                     const std::vector<SnapshotRecord> &others) {
    for (const SnapshotRecord &snapshot : others) {
        if (is_over(snapshot.state)) continue;
        for (const ObjectRecord &object : snapshot.objects) {
            if (object.fifs != real) continue;
            const std::string id = std::to_string(snapshot.id);
            Failure failure = unusable(what + " is for the copy of snapshot " + id);
            failure.next = "name another directory, or end that one first: fimctl release " + id;
            throw failure;
        }
    }
}

}  // namespace fimctl
