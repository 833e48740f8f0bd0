// A real block device for a test: a sparse file behind a loop device. Only the machine's root can
// make one, and only the private /dev of the test gets its node.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "tests/support/private_root.h"

namespace test {

class LoopDevice {
  public:
    explicit LoopDevice(uint64_t size) {
        char image[] = "/tmp/image.XXXXXX";
        const int file = mkostemp(image, O_CLOEXEC);
        image_ = image;
        EXPECT_EQ(ftruncate(file, static_cast<off_t>(size)), 0);
        mknod("/dev/loop-control", S_IFCHR | 0600, makedev(10, 237));
        const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
        EXPECT_GE(control, 0) << "loop-control";
        loop_config config = {};
        config.fd = static_cast<uint32_t>(file);
        // The kernel takes the device back when its last user is gone, also a killed one.
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
        // Another process may take the free device first; then the next one is asked for.
        do {
            if (fd_ >= 0) close(fd_);
            const int number = ioctl(control, LOOP_CTL_GET_FREE);
            path_ = "/dev/loop" + std::to_string(number);
            mknod(path_.c_str(), S_IFBLK | 0600, makedev(7, static_cast<unsigned>(number)));
            fd_ = open(path_.c_str(), O_RDWR | O_CLOEXEC);
        } while (fd_ >= 0 && ioctl(fd_, LOOP_CONFIGURE, &config) != 0 && errno == EBUSY);
        EXPECT_GE(fd_, 0) << path_;
        close(control);
        close(file);
    }
    ~LoopDevice() {
        close(fd_);
        unlink(image_.c_str());
        unlink(path_.c_str());
    }
    LoopDevice(const LoopDevice &) = delete;
    LoopDevice &operator=(const LoopDevice &) = delete;

    const std::string &path() const { return path_; }
    const std::string &image() const { return image_; }

  private:
    std::string image_, path_;
    int fd_ = -1;
};

// Ends a case that needs the machine's root, with the reason.
#define SKIP_WITHOUT_ROOT() \
    if (!test::is_real_root()) GTEST_SKIP() << "loop devices and mounts need root"

}  // namespace test
