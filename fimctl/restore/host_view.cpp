#include "fimctl/restore/host_view.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

#include "fimctl/paths.h"

namespace fimctl {
namespace {

// The mount table writes blanks and other separators as octal escapes.
std::string unescape(const std::string &text) {
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            plain += static_cast<char>(strtol(text.substr(i + 1, 3).c_str(), nullptr, 8));
            i += 3;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

std::vector<std::string> names_in(const std::string &folder) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(opendir(folder.c_str()), closedir);
    if (directory == nullptr) return names;
    while (const dirent *entry = readdir(directory.get())) {
        if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
    }
    return names;
}

// What one process keeps busy.
struct Uses {
    std::set<dev_t> file_systems, devices;

    void add(const std::string &path) {
        struct stat status = {};
        if (stat(path.c_str(), &status) != 0) return;
        file_systems.insert(status.st_dev);
        if (S_ISBLK(status.st_mode)) devices.insert(status.st_rdev);
    }
    // A file that is only mapped is not among the open ones.
    void add_mapped(const std::string &process) {
        std::ifstream maps(process + "/maps");
        for (std::string line; std::getline(maps, line);) {
            unsigned major_number = 0, minor_number = 0;
            if (sscanf(line.c_str(), "%*s %*s %*s %x:%x", &major_number, &minor_number) == 2) {
                file_systems.insert(makedev(major_number, minor_number));
            }
        }
    }
};

Uses uses_of(const std::string &process) {
    Uses uses;
    for (const char *link : {"/cwd", "/root", "/exe"}) uses.add(process + link);
    for (const std::string &name : names_in(process + "/fd")) uses.add(process + "/fd/" + name);
    uses.add_mapped(process);
    return uses;
}

User user_of(const std::string &process, pid_t pid) {
    User user;
    user.pid = pid;
    std::ifstream comm(process + "/comm");
    std::getline(comm, user.command);
    if (pid == getpid()) user.command += ", this command itself";
    return user;
}

bool meet(const std::set<dev_t> &some, const std::set<dev_t> &others) {
    return std::any_of(some.begin(), some.end(),
                       [&others](dev_t device) { return others.contains(device); });
}

}  // namespace

std::vector<MountLine> read_mounts() {
    std::vector<MountLine> mounts;
    std::ifstream table(path::mount_table);
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        std::string id, parent, device, root, directory, options, word, type, source;
        words >> id >> parent >> device >> root >> directory >> options;
        while (words >> word && word != "-") {
        }
        words >> type >> source;
        unsigned major_number = 0, minor_number = 0;
        if (sscanf(device.c_str(), "%u:%u", &major_number, &minor_number) != 2) continue;
        mounts.push_back({makedev(major_number, minor_number), unescape(root), unescape(directory),
                          unescape(source), options});
    }
    return mounts;
}

std::map<dev_t, std::vector<User>> users_of(const Busy &asked) {
    std::map<dev_t, std::vector<User>> users;
    for (const std::string &name : names_in("/proc")) {
        if (isdigit(static_cast<unsigned char>(name[0])) == 0) continue;
        const std::string process = "/proc/" + name;
        const Uses uses = uses_of(process);
        std::set<dev_t> found;
        for (const dev_t device : asked.file_systems) {
            if (uses.file_systems.contains(device)) found.insert(device);
        }
        const bool manager = meet(asked.disks, uses.devices);
        for (const dev_t device : asked.devices) {
            if (!manager && uses.devices.contains(device)) found.insert(device);
        }
        const auto pid = static_cast<pid_t>(strtol(name.c_str(), nullptr, 10));
        for (const dev_t device : found) users[device].push_back(user_of(process, pid));
    }
    return users;
}

std::string names_of(const std::vector<User> &users) {
    std::string text;
    for (const User &user : users) {
        text += (text.empty() ? "process " : ", ") + std::to_string(user.pid) + " (" +
                user.command + ")";
    }
    return text;
}

std::optional<dev_t> block_number(const std::string &path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) return std::nullopt;
    return status.st_rdev;
}

std::string readable_disk(const std::string &raw) {
    if (block_number(raw)) return raw;
    constexpr const char *twins[][2] = {{"/dev/qz/rdmp/", "/dev/qz/dmp/"},
                                        {"/dev/rdsk/", "/dev/dsk/"}};
    for (const auto &[raw_folder, block_folder] : twins) {
        const std::string folder = raw_folder;
        if (raw.compare(0, folder.size(), folder) != 0) continue;
        std::string block = block_folder + raw.substr(folder.size());
        if (block_number(block)) return block;
    }
    return "";
}

std::optional<uint64_t> size_of_disk(const std::string &device) {
    const int file = open(device.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0) return std::nullopt;
    uint64_t size = 0;
    const bool asked = ioctl(file, BLKGETSIZE64, &size) == 0;
    close(file);
    if (!asked) return std::nullopt;
    return size;
}

bool is_held(const std::string &device) {
    const int file = open(device.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC | O_NONBLOCK);
    if (file < 0) return errno == EBUSY;
    close(file);
    return false;
}

bool lies_below(const std::string &path, const std::string &directory) {
    if (directory == "/" || path == directory) return true;
    return path.size() > directory.size() && path.compare(0, directory.size(), directory) == 0 &&
           path[directory.size()] == '/';
}

}  // namespace fimctl
