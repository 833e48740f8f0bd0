#include "fimctl/frozen_mark.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "fimctl/inspect/process.h"
#include "fimctl/paths.h"
#include "fimctl/write_all.h"

namespace fimctl {
namespace {

// A directory's name may hold any other byte.
constexpr char separator = '\0';

}  // namespace

std::string frozen_mark_of(const std::string &state_directory, int64_t id) {
    return state_directory + "/" + path::scratch_folder + "/" + std::to_string(id) + "/" +
           path::frozen_mark;
}

void write_frozen_mark(const std::string &file, const std::vector<std::string> &directories) {
    if (file.empty()) return;
    std::string text = std::to_string(getpid()) + separator;
    for (const std::string &directory : directories) text += directory + separator;
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return;
    write_all(fd, text);
    close(fd);
}

void remove_frozen_mark(const std::string &file) {
    if (!file.empty()) unlink(file.c_str());
}

FrozenMark read_frozen_mark(const std::string &file) {
    FrozenMark mark;
    struct stat status = {};
    if (file.empty() || stat(file.c_str(), &status) != 0) return mark;
    if (status.st_mtime < boot_time()) return mark;
    std::ifstream in(file);
    const std::string text(std::istreambuf_iterator<char>(in), {});
    std::vector<std::string> parts;
    std::string part;
    for (const char c : text) {
        if (c != separator) {
            part += c;
        } else {
            parts.push_back(part);
            part.clear();
        }
    }
    if (parts.empty()) return mark;
    mark.guardian = static_cast<pid_t>(strtol(parts[0].c_str(), nullptr, 10));
    mark.written = status.st_mtime;
    mark.directories.assign(parts.begin() + 1, parts.end());
    return mark;
}

bool thaw_file_system(const std::string &directory) {
    const int file = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (file < 0) return false;
    const bool thawed = ioctl(file, FITHAW, 0) == 0;
    close(file);
    return thawed;
}

std::vector<std::string> thaw_marked(const std::string &file) {
    std::vector<std::string> thawed;
    for (const std::string &directory : read_frozen_mark(file).directories) {
        if (thaw_file_system(directory)) thawed.push_back(directory);
    }
    remove_frozen_mark(file);
    return thawed;
}

}  // namespace fimctl
