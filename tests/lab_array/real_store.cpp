#include "tests/lab_array/real_store.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "tests/support/private_root.h"

namespace test {
namespace {

constexpr char image[] = "/tmp/store.img";
constexpr char nodes[] = "/tmp/store-nodes";
constexpr uint64_t image_size = uint64_t{1} << 30;

}  // namespace

RealStore::RealStore() {
    {
        const lab::Fd file = lab::open_file(image);
        lab::grow(file, image_size);
        EXPECT_EQ(run_program(std::string("/usr/sbin/mkfs.xfs -q -m reflink=1 ") + image), 0);
        loop_ = lab::LoopDevice::attach(nodes, file, image, 0, 0);
    }
    make_folders(path);
    EXPECT_EQ(mount(loop_->node().c_str(), path.c_str(), "xfs", 0, nullptr), 0) << strerror(errno);
}

RealStore::~RealStore() {
    // The devices of a daemon that was just killed let go of their files a moment later.
    EXPECT_TRUE(soon([this] { return umount(path.c_str()) == 0; })) << "the store is still in use";
    loop_.reset();
    std::filesystem::remove_all(nodes);
    std::filesystem::remove_all(path);
    std::filesystem::remove(image);
}

void NeedsRoot::SetUp() {
    if (is_real_root()) return;
    printf("skipped: loop devices need the machine's root\n");
    GTEST_SKIP() << "loop devices need the machine's root";
}

int loops_over_store() {
    struct stat store = {};
    EXPECT_EQ(stat("/tmp/store", &store), 0);
    int found = 0;
    for (const auto &[file, loops] : lab::attached_loops(nodes)) {
        if (file.first == store.st_dev) found += static_cast<int>(loops.size());
    }
    return found;
}

void pause_ms(int milliseconds) {
    const struct timespec time = {milliseconds / 1000, milliseconds % 1000 * 1'000'000L};
    nanosleep(&time, nullptr);
}

int run_program(const std::string &command) {
    const int status = system((command + " >/dev/null 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

uint64_t Block::number() const {
    uint64_t value = 0;
    memcpy(&value, bytes, sizeof value);
    return value;
}

void Block::set_number(uint64_t value) {
    memcpy(bytes, &value, sizeof value);
}

bool read_block(const std::string &device, uint64_t at, Block *block) {
    const lab::Fd fd(open(device.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC));
    return pread(fd.get(), block->bytes, sizeof block->bytes, static_cast<off_t>(at)) ==
           sizeof block->bytes;
}

bool write_block(const std::string &device, uint64_t at, const Block &block) {
    const lab::Fd fd(open(device.c_str(), O_WRONLY | O_DIRECT | O_CLOEXEC));
    return pwrite(fd.get(), block.bytes, sizeof block.bytes, static_cast<off_t>(at)) ==
           sizeof block.bytes;
}

uint64_t number_at(const std::string &device, uint64_t at) {
    Block block;
    return read_block(device, at, &block) ? block.number() : 0;
}

bool put_number(const std::string &device, uint64_t at, uint64_t value) {
    Block block;
    block.set_number(value);
    return write_block(device, at, block);
}

}  // namespace test
