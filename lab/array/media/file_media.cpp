// Regular files in place of block devices, for a machine where nobody is root. They are copied, one
// after the other: a copy is not one instant over several devices. A BCV that is not ready is an
// empty file. A host that uses a device holds a lock (flock) on its file.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <vector>

#include "lab/array/media/files.h"

namespace lab {
namespace {

constexpr size_t copy_unit = track_size;

struct LockedFile : Claim {
    explicit LockedFile(Fd held) : fd(std::move(held)) {}
    Fd fd;
};

// The next track of a file; short at its end.
size_t read_track(const Fd &file, uint64_t at, std::vector<char> *into) {
    into->resize(copy_unit);
    const ssize_t got = pread(file.get(), into->data(), copy_unit, static_cast<off_t>(at));
    if (got < 0) media_fails("read a device");
    into->resize(static_cast<size_t>(got));
    return into->size();
}

void set_size(const Fd &file, uint64_t size) {
    if (ftruncate(file.get(), static_cast<off_t>(size)) != 0) media_fails("set a device's size");
}

class FileMedia : public Media {
  public:
    explicit FileMedia(const std::string &store) : store_(store) {}

    std::string kind() const override { return "files"; }
    std::string limits() const override {
        return "regular files instead of block devices; a split copies one device after the other "
               "and is not one instant";
    }

    void attach(const Device &device, bool ready) override {
        Place place{path_of(device), open_file(path_of(device))};
        if (device.bcv) {
            set_size(place.file, ready ? device.size : 0);
        } else {
            grow(place.file, device.size);
        }
        places_.insert_or_assign(device.id, std::move(place));
    }

    std::string shown(const Device &device) const override { return places_.at(device.id).path; }
    bool ready(const Device &device) const override {
        struct stat status = {};
        return stat(places_.at(device.id).path.c_str(), &status) == 0 &&
               static_cast<uint64_t>(status.st_size) == device.size;
    }

    std::unique_ptr<Claim> claim(const Device &device) override {
        Fd held = open_file(places_.at(device.id).path);
        if (flock(held.get(), LOCK_EX | LOCK_NB) == 0) {
            return std::make_unique<LockedFile>(std::move(held));
        }
        if (errno != EWOULDBLOCK) media_fails("claim device " + device.name);
        throw MediaError(device.bcv ? code::bcv_held : code::standard_held,
                         "device " + device.symid + " " + device.name + " is held by a host");
    }

    void set_ready(const std::vector<const Device *> &bcvs, bool ready) override {
        for (const Device *bcv : bcvs) set_one_ready(*bcv, ready);
    }

    uint64_t changed_tracks(const DataPair &pair) override {
        const Fd &one = places_.at(pair.primary->id).file, &other = places_.at(pair.bcv->id).file;
        std::vector<char> left, right;
        uint64_t tracks = 0;
        for (uint64_t at = 0; at < pair.primary->size; at += copy_unit) {
            read_track(one, at, &left);
            read_track(other, at, &right);
            tracks += left == right ? 0 : 1;
        }
        return tracks;
    }

    void cut(const std::vector<DataPair> &pairs) override {
        for (const DataPair &pair : pairs) copy(*pair.primary, *pair.bcv);
    }
    void copy_back(const std::vector<DataPair> &pairs) override {
        for (const DataPair &pair : pairs) copy(*pair.bcv, *pair.primary);
    }

    // A link, so that a path that is down can be one that leads nowhere.
    void expose(const Device &device, const std::string &path, bool down) override {
        make_folders_above(path);
        const std::string fresh = path + ".new";
        unlink(fresh.c_str());
        const std::string target = down ? "/nonexistent/path-is-down" : places_.at(device.id).path;
        if (symlink(target.c_str(), fresh.c_str()) != 0) media_fails("make link " + fresh);
        if (rename(fresh.c_str(), path.c_str()) != 0) media_fails("make link " + path);
    }

  private:
    struct Place {
        std::string path;
        Fd file;
    };

    std::string path_of(const Device &device) const {
        return store_ + "/" + device.symid + "-" + device.name + (device.bcv ? ".bcv" : ".std");
    }

    void set_one_ready(const Device &bcv, bool ready) {
        struct stat status = {};
        const Fd &file = places_.at(bcv.id).file;
        if (fstat(file.get(), &status) != 0) media_fails("look at device " + bcv.name);
        // A cut has filled the file already; what it holds stays.
        if (!ready || static_cast<uint64_t>(status.st_size) != bcv.size) {
            set_size(file, ready ? bcv.size : 0);
        }
    }

    void copy(const Device &from, const Device &to) {
        const Fd &source = places_.at(from.id).file, &target = places_.at(to.id).file;
        std::vector<char> track;
        for (uint64_t at = 0; at < from.size; at += copy_unit) {
            if (read_track(source, at, &track) == 0) break;
            if (pwrite(target.get(), track.data(), track.size(), static_cast<off_t>(at)) !=
                static_cast<ssize_t>(track.size())) {
                media_fails("copy a device");
            }
        }
        set_size(target, to.size);
    }

    std::string store_;
    std::map<int64_t, Place> places_;
};

}  // namespace

std::unique_ptr<Media> make_file_media(const std::string &store) {
    return std::make_unique<FileMedia>(store);
}

}  // namespace lab
