// Real block devices. All standard devices of an array are windows of one pool file: one inode is
// one domain of consistency, so that cloning it is one instant for all of them. A BCV is a file of
// its own.
//
//   SYMID.pool        the standard devices, one window after the other
//   SYMID.snapshot    the pool as of the last split: cloned over, never cut, since giving back the
//                     blocks first made the worst case twelve times slower
//   SYMID-NAME.bcv    a BCV
//   nodes/            this medium's own device nodes
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <exception>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>

#include "lab/array/media/extents.h"
#include "lab/array/media/loop_device.h"

namespace lab {
namespace {

// A major number that no driver has: opening a node of it answers ENXIO, as a dead path does.
constexpr unsigned dead_major = 120;

constexpr size_t most_threads = 256;

struct ClaimedLoop : Claim {
    explicit ClaimedLoop(Fd held) : fd(std::move(held)) {}
    Fd fd;
};

class LoopMedia : public Media {
  public:
    explicit LoopMedia(const std::string &store) : store_(store), nodes_(store + "/nodes") {
        make_folder(nodes_);
        check_clones();
        // Those of an earlier daemon that a host still has mounted.
        known_ = attached_loops(nodes_);
        // Every device is a descriptor or two.
        struct rlimit limit = {};
        if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
            limit.rlim_cur = limit.rlim_max;
            setrlimit(RLIMIT_NOFILE, &limit);
        }
    }

    std::string kind() const override { return "loop"; }
    std::string limits() const override { return ""; }

    void attach(const Device &device, bool ready) override {
        if (device.bcv) {
            attach_bcv(device, ready);
        } else {
            const std::string path = store_ + "/" + device.symid + ".pool";
            Pool &pool = pool_of(device.symid);
            grow(pool.data, device.offset + device.size);
            places_.emplace(device.id,
                            Place{loop_over(pool.data, path, device.offset, device.size), Fd()});
        }
    }

    std::string shown(const Device &device) const override {
        return "/dev/loop" + std::to_string(places_.at(device.id).loop.minor());
    }
    bool ready(const Device &device) const override {
        return places_.at(device.id).loop.capacity() == device.size;
    }

    std::unique_ptr<Claim> claim(const Device &device) override {
        Fd held = places_.at(device.id).loop.open_exclusively();
        if (held.get() >= 0) return std::make_unique<ClaimedLoop>(std::move(held));
        if (errno != EBUSY) media_fails("claim device " + device.name);
        throw MediaError(
            device.bcv ? code::bcv_held : code::standard_held,
            "device " + device.symid + " " + device.name + " is held or mounted by a host");
    }

    // The kernel takes up to 20 ms to change one loop device, nearly all of it waiting; many at a
    // time wait together, so as many wait as there may be, whatever the number of processors.
    void set_ready(const std::vector<const Device *> &bcvs, bool ready) override {
        std::atomic<size_t> next = 0;
        std::mutex lock;
        std::exception_ptr failure;
        const auto work = [&] {
            for (size_t i = next++; i < bcvs.size(); i = next++) {
                try {
                    set_one_ready(*bcvs[i], ready);
                } catch (...) {
                    const std::lock_guard guard(lock);
                    failure = std::current_exception();
                }
            }
        };
        {
            std::vector<std::jthread> others;
            try {
                for (size_t i = 1; i < std::min(bcvs.size(), most_threads); ++i) {
                    others.emplace_back(work);
                }
            } catch (const std::system_error &) {
                // Fewer do it as well, and be it this one alone.
            }
            work();
        }
        if (failure != nullptr) std::rethrow_exception(failure);
    }

    uint64_t changed_tracks(const DataPair &pair) override {
        places_.at(pair.bcv->id).loop.flush();
        const Pool &pool = pool_of(pair.primary->symid);
        return differing_tracks(extents_of(pool.data, pair.primary->offset, pair.primary->size),
                                extents_of(places_.at(pair.bcv->id).file, 0, pair.bcv->size),
                                pair.bcv->size);
    }

    void cut(const std::vector<DataPair> &pairs) override {
        if (pairs.empty()) return;
        for (const DataPair &pair : pairs) places_.at(pair.bcv->id).loop.flush();
        Pool &pool = pool_of(pairs.front().primary->symid);
        // The instant: writers wait while this one call runs, and no write is half inside it.
        if (ioctl(pool.snapshot.get(), FICLONE, pool.data.get()) != 0) {
            media_fails("clone the pool");
        }
        for (const DataPair &pair : pairs) {
            clone(pool.snapshot, pair.primary->offset, places_.at(pair.bcv->id).file, 0,
                  pair.bcv->size);
            places_.at(pair.bcv->id).loop.flush();
        }
    }

    void copy_back(const std::vector<DataPair> &pairs) override {
        for (const DataPair &pair : pairs) {
            places_.at(pair.bcv->id).loop.flush();
            places_.at(pair.primary->id).loop.flush();
            clone(places_.at(pair.bcv->id).file, 0, pool_of(pair.primary->symid).data,
                  pair.primary->offset, pair.primary->size);
            // What the machine still has in its cache of the standard device is of before.
            places_.at(pair.primary->id).loop.flush();
        }
    }

    // The new node takes the old one's place in one step: a host never misses its path.
    void expose(const Device &device, const std::string &path, bool down) override {
        make_folders_above(path);
        const std::string fresh = path + ".new";
        unlink(fresh.c_str());
        const auto minor = static_cast<unsigned>(places_.at(device.id).loop.minor());
        if (mknod(fresh.c_str(), S_IFBLK | 0600,
                  down ? makedev(dead_major, minor & 0xff) : makedev(loop_major, minor)) != 0) {
            media_fails("make node " + fresh);
        }
        if (rename(fresh.c_str(), path.c_str()) != 0) media_fails("make node " + path);
    }

  private:
    struct Pool {
        Fd data, snapshot;
    };
    struct Place {
        LoopDevice loop;
        Fd file;  // of a BCV
    };

    void set_one_ready(const Device &bcv, bool ready) {
        LoopDevice &loop = places_.at(bcv.id).loop;
        loop.move_window(ready ? 0 : bcv.size);
        loop.flush();
    }

    LoopDevice loop_over(const Fd &file, const std::string &path, uint64_t offset, uint64_t size) {
        LoopDevice loop;
        if (LoopDevice::take_over(nodes_, known_, file, offset, size, &loop)) return loop;
        return LoopDevice::attach(nodes_, file, path, offset, size);
    }

    void attach_bcv(const Device &device, bool ready) {
        const std::string path = store_ + "/" + device.symid + "-" + device.name + ".bcv";
        Fd file = open_file(path);
        grow(file, device.size);
        LoopDevice loop = loop_over(file, path, 0, 0);
        loop.move_window(ready ? 0 : device.size);
        places_.emplace(device.id, Place{std::move(loop), std::move(file)});
    }

    Pool &pool_of(const std::string &symid) {
        const auto found = pools_.find(symid);
        if (found != pools_.end()) return found->second;
        return pools_[symid] = {open_file(store_ + "/" + symid + ".pool"),
                                open_file(store_ + "/" + symid + ".snapshot")};
    }

    static void clone(const Fd &from, uint64_t from_offset, const Fd &to, uint64_t to_offset,
                      uint64_t size) {
        struct file_clone_range range = {};
        range.src_fd = from.get();
        range.src_offset = from_offset;
        range.src_length = size;
        range.dest_offset = to_offset;
        if (ioctl(to.get(), FICLONERANGE, &range) != 0) media_fails("clone a device");
    }

    void check_clones() const {
        const std::string one = store_ + "/clone-test-1", other = store_ + "/clone-test-2";
        const Fd from = open_file(one), to = open_file(other);
        const bool clones = ioctl(to.get(), FICLONE, from.get()) == 0;
        unlink(one.c_str());
        unlink(other.c_str());
        if (!clones) {
            throw MediaError(code::media_failed,
                             "the file system of " + store_ + " cannot clone files; " +
                                 "make it with mkfs.xfs -m reflink=1, or use --media files");
        }
    }

    std::string store_, nodes_;
    AttachedLoops known_;
    std::map<std::string, Pool> pools_;
    std::map<int64_t, Place> places_;
};

}  // namespace

std::unique_ptr<Media> make_loop_media(const std::string &store) {
    return std::make_unique<LoopMedia>(store);
}

}  // namespace lab
