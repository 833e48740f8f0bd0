#include "tests/fimctl/loop_file_system.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tests/support/private_root.h"

namespace test {
namespace {

constexpr char control_node[] = "/dev/loop-control";
constexpr unsigned misc_major = 10;
constexpr unsigned loop_control_minor = 237;
constexpr unsigned loop_major = 7;
constexpr off_t image_size = 16 << 20;
constexpr int attempts = 20;

class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) close(fd_);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

}  // namespace

LoopFileSystem::LoopFileSystem(const std::string &directory, const std::string &folder)
    : directory_(directory),
      image_(folder + "/img-" + std::to_string(getpid()) + "-" + directory.substr(1)) {
    if (!is_real_root()) {
        trouble_ = "not root";
        return;
    }
    make();
}

void LoopFileSystem::make() {
    const auto fails = [this](const char *what) {
        trouble_ = std::string(what) + ": " + strerror(errno);
    };
    mknod(control_node, S_IFCHR | 0600, makedev(misc_major, loop_control_minor));
    const Descriptor image(open(image_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (image.get() < 0 || ftruncate(image.get(), image_size) != 0) return fails("image");
    if (system(("mkfs.ext4 -q -F " + image_).c_str()) != 0) return fails("mkfs.ext4");
    const Descriptor control(open(control_node, O_RDWR | O_CLOEXEC));
    if (control.get() < 0) return fails(control_node);
    // Somebody else may take the free loop between the two calls.
    for (int i = 0; i < attempts; ++i) {
        const int number = ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number < 0) return fails("LOOP_CTL_GET_FREE");
        device_ = "/dev/loop" + std::to_string(number);
        mknod(device_.c_str(), S_IFBLK | 0600, makedev(loop_major, static_cast<unsigned>(number)));
        const Descriptor loop(open(device_.c_str(), O_RDWR | O_CLOEXEC));
        if (loop.get() < 0) return fails("loop");
        loop_config config = {};
        config.fd = static_cast<__u32>(image.get());
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
        if (ioctl(loop.get(), LOOP_CONFIGURE, &config) != 0) {
            if (errno == EBUSY) continue;
            return fails("LOOP_CONFIGURE");
        }
        make_folders(directory_);
        if (mount(device_.c_str(), directory_.c_str(), "ext4", 0, nullptr) != 0)
            return fails("mount");
        mounted_ = true;
        return;
    }
    trouble_ = "no free loop device";
}

LoopFileSystem::~LoopFileSystem() {
    if (mounted_) {
        {
            const Descriptor file(open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            ioctl(file.get(), FITHAW, 0);
        }
        // A guardian whose parent was killed holds it for a moment longer.
        for (int i = 0; i < attempts * 10 && umount2(directory_.c_str(), 0) != 0; ++i)
            usleep(10000);
    }
    unlink(image_.c_str());
}

bool LoopFileSystem::is_frozen() const {
    const Descriptor file(open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (ioctl(file.get(), FIFREEZE, 0) == 0) {
        ioctl(file.get(), FITHAW, 0);
        return false;
    }
    return errno == EBUSY;
}

}  // namespace test
