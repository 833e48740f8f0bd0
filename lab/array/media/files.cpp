#include "lab/array/media/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace lab {

Fd::~Fd() {
    if (fd_ >= 0) close(fd_);
}

void media_fails(const std::string &what) {
    throw MediaError(code::media_failed, "cannot " + what + ": " + strerror(errno));
}

Fd open_file(const std::string &path) {
    Fd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (file.get() < 0) media_fails("open " + path);
    return file;
}

void grow(const Fd &file, uint64_t size) {
    struct stat status = {};
    if (fstat(file.get(), &status) != 0) media_fails("look at a file of the store");
    if (static_cast<uint64_t>(status.st_size) >= size) return;
    if (ftruncate(file.get(), static_cast<off_t>(size)) != 0) media_fails("grow a file");
}

void make_folder(const std::string &path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error) {
        errno = error.value();
        media_fails("make folder " + path);
    }
}

void make_folders_above(const std::string &path) {
    make_folder(std::filesystem::path(path).parent_path());
}

void Media::hide(const std::string &path) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) media_fails("remove " + path);
}

}  // namespace lab
