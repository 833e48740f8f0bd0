#include "fimctl/source.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "fimctl/failure.h"
#include "fimctl/paths.h"

namespace fimctl {
namespace {

namespace fs = std::filesystem;

constexpr size_t method_path_size = 1024;

Failure unusable(const std::string &text) {
    return Failure(Step::check, ExitCode::usage, text);
}

struct Mount {
    dev_t device;
    std::string root, directory, source;
};

// The mount table writes blanks and other separators as octal escapes.
std::string unescape(const std::string &text) {
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            plain += static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8));
            i += 3;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

std::vector<Mount> mount_table() {
    std::vector<Mount> mounts;
    std::ifstream table(path::mount_table);
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        std::string id, parent, device, root, directory, word, type, source;
        words >> id >> parent >> device >> root >> directory;
        while (words >> word && word != "-") {
        }
        words >> type >> source;
        unsigned major_number = 0, minor_number = 0;
        if (sscanf(device.c_str(), "%u:%u", &major_number, &minor_number) != 2) continue;
        mounts.push_back({makedev(major_number, minor_number), unescape(root), unescape(directory),
                          unescape(source)});
    }
    return mounts;
}

bool is_below(const std::string &file, const std::string &directory) {
    if (directory == "/" || file == directory) return true;
    return file.size() > directory.size() && file.compare(0, directory.size(), directory) == 0 &&
           file[directory.size()] == '/';
}

// The mount that holds a path: the longest directory above it, the last one mounted there.
const Mount *mount_of(const std::vector<Mount> &mounts, const std::string &file) {
    const Mount *best = nullptr;
    for (const Mount &mount : mounts) {
        if (!is_below(file, mount.directory)) continue;
        if (best == nullptr || mount.directory.size() >= best->directory.size()) best = &mount;
    }
    return best;
}

std::string join(const std::string &first, const std::string &second) {
    std::string joined =
        (fs::path("/") / fs::path(first).relative_path() / fs::path(second).relative_path())
            .lexically_normal();
    while (!joined.empty() && joined.back() == '/') joined.pop_back();
    return joined;
}

void place_file(Source &source, const std::vector<Mount> &mounts) {
    char real[PATH_MAX] = "";
    if (realpath(source.path.c_str(), real) == nullptr) {
        throw unusable(source.path + ": " + strerror(errno));
    }
    const Mount *mount = mount_of(mounts, real);
    if (mount == nullptr) throw unusable(source.path + ": no mounted file system holds it");
    source.mount_dir = mount->directory;
    source.mounted = mount->source;
    source.inside = join(mount->root, std::string(real).substr(mount->directory.size()));
}

void place_device(Source &source, const std::vector<Mount> &mounts) {
    for (const Mount &mount : mounts) {
        if (mount.device != source.device || mount.root != "/") continue;
        source.mount_dir = mount.directory;
        source.mounted = mount.source;
    }
}

bool starts(const std::string &text, const char *prefix) {
    return text.compare(0, strlen(prefix), prefix) == 0;
}

// The numbers of character devices are not those of block devices. One whose block device is not
// known gets a number that no block device and no file system has.
constexpr dev_t raw_space = dev_t{1} << 62;
constexpr const char *raw_and_block[][2] = {{"/dev/qz/rdmp/", "/dev/qz/dmp/"},
                                            {path::raw_volume_folder, path::volume_folder},
                                            {"/dev/rdsk/", "/dev/dsk/"}};

// The number of the block device behind a raw device, so that what is mounted from it is found.
dev_t block_twin(const std::string &raw, dev_t number) {
    for (const auto &[raw_folder, block_folder] : raw_and_block) {
        if (!starts(raw, raw_folder)) continue;
        struct stat status = {};
        const std::string block = block_folder + raw.substr(strlen(raw_folder));
        if (stat(block.c_str(), &status) == 0 && S_ISBLK(status.st_mode)) return status.st_rdev;
    }
    return number | raw_space;
}

// Disk group and volume are the first two parts of a volume's name, as the method reads it.
void name_volume(Source &source, const std::string &device) {
    for (const char *folder : {path::volume_folder, path::raw_volume_folder}) {
        if (!starts(device, folder)) continue;
        std::istringstream parts(device.substr(strlen(folder)));
        std::string part;
        while (source.vol_name.empty() && std::getline(parts, part, '/')) {
            if (!part.empty())
                (source.vol_group.empty() ? source.vol_group : source.vol_name) = part;
        }
    }
}

Source look_at(const std::string &path, const std::vector<Mount> &mounts) {
    if (path.empty()) throw unusable("an empty path cannot be frozen");
    Source source;
    source.path = fs::path(absolute_path(path)).lexically_normal();
    // The working directory may hold one as well.
    if (source.path.find('\n') != std::string::npos) {
        throw unusable("a path with a newline cannot be frozen: its checkpoint could not be kept");
    }
    if (source.path.size() > 1 && source.path.back() == '/') source.path.pop_back();
    if (source.path.size() >= method_path_size) {
        throw unusable(path + ": longer than " + std::to_string(method_path_size - 1) +
                       " characters");
    }
    struct stat status = {};
    if (stat(source.path.c_str(), &status) != 0) {
        throw unusable(source.path + ": " + strerror(errno));
    }
    if (S_ISBLK(status.st_mode) || S_ISCHR(status.st_mode)) {
        source.kind = S_ISBLK(status.st_mode) ? SourceKind::block_device : SourceKind::raw_device;
        source.device =
            S_ISBLK(status.st_mode) ? status.st_rdev : block_twin(source.path, status.st_rdev);
        place_device(source, mounts);
        name_volume(source, source.path);
    } else {
        source.device = status.st_dev;
        place_file(source, mounts);
        name_volume(source, source.mounted);
    }
    return source;
}

void refuse_doubles(const std::vector<Source> &sources) {
    for (size_t i = 0; i < sources.size(); ++i) {
        for (size_t k = 0; k < i; ++k) {
            if (sources[i].kind != sources[k].kind || sources[i].device != sources[k].device) {
                continue;
            }
            Failure failure =
                unusable(sources[k].path + " and " + sources[i].path +
                         (sources[i].kind == SourceKind::file_system ? " lie on one file system"
                                                                     : " are one device"));
            failure.next = "name it once, then try again";
            throw failure;
        }
    }
}

// The device of a path that may not exist yet: that of the nearest folder above it which does.
dev_t device_of(const std::string &path) {
    struct stat status = {};
    for (fs::path at = absolute_path(path);; at = at.parent_path()) {
        if (stat(at.c_str(), &status) == 0) return status.st_dev;
        if (at == at.root_path()) return 0;
    }
}

}  // namespace

const char *name_of(SourceKind kind) {
    switch (kind) {
    case SourceKind::file_system:
        return "file system";
    case SourceKind::block_device:
        return "block device";
    case SourceKind::raw_device:
        return "raw device";
    }
    return "unknown";
}

std::string absolute_path(const std::string &path) {
    std::error_code error;
    const fs::path absolute = fs::absolute(path, error);
    if (error) throw unusable(path + ": the working directory: " + error.message());
    return absolute;
}

std::vector<Source> look_at_sources(const std::vector<std::string> &paths) {
    const auto mounts = mount_table();
    std::vector<Source> sources;
    for (const std::string &path : paths) sources.push_back(look_at(path, mounts));
    refuse_doubles(sources);
    return sources;
}

std::vector<std::string> file_systems_of(const std::vector<Source> &sources) {
    std::set<dev_t> seen;
    std::vector<std::string> directories;
    for (const Source &source : sources) {
        if (source.mount_dir.empty() || !seen.insert(source.device).second) continue;
        directories.push_back(source.mount_dir);
    }
    return directories;
}

void refuse_writing_to_frozen(const std::vector<Source> &sources,
                              const std::vector<WrittenPlace> &places) {
    const auto refuse = [&sources](const std::string &what, dev_t device) {
        for (const Source &source : sources) {
            if (source.mount_dir.empty() || source.device != device) continue;
            Failure failure = unusable(what + " lies on the file system on " + source.mount_dir +
                                       ", which would be frozen while it is written");
            failure.next =
                "put it on another file system, or accept a copy of a busy one with --no-quiesce";
            throw failure;
        }
    };
    for (const WrittenPlace &place : places) {
        refuse(place.what + " (" + place.path + ")", device_of(place.path));
    }
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
        struct stat status = {};
        if (fstat(stream, &status) != 0 || !S_ISREG(status.st_mode)) continue;
        refuse(stream == STDOUT_FILENO ? "standard output" : "standard error", status.st_dev);
    }
}

std::vector<std::string> mount_points_below(const std::string &directory) {
    std::vector<std::string> found;
    for (const Mount &mount : mount_table()) {
        if (is_below(mount.directory, directory)) found.push_back(mount.directory);
    }
    return found;
}

std::string mount_point_of(dev_t device) {
    for (const Mount &mount : mount_table()) {
        if (mount.device == device) return mount.directory;
    }
    return "";
}

bool is_mount_point(const std::string &directory) {
    for (const Mount &mount : mount_table()) {
        if (mount.directory == directory) return true;
    }
    return false;
}

}  // namespace fimctl
