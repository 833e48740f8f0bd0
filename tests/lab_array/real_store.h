// A store as a world has it: an xfs that can clone files, on an image under /tmp. Needs root.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "lab/array/media/loop_device.h"

namespace test {

// The file system of one test, mounted at `path`. Everything is gone with it.
class RealStore {
  public:
    RealStore();
    RealStore(const RealStore &) = delete;
    RealStore &operator=(const RealStore &) = delete;
    ~RealStore();
    const std::string path = "/tmp/store";

  private:
    std::optional<lab::LoopDevice> loop_;
};

// A test that needs the machine's root. Without it, it is skipped and says so.
class NeedsRoot : public testing::Test {
  protected:
    void SetUp() override;
};

// Loop devices of the machine whose file lies in the test's store.
int loops_over_store();
// Waits up to two seconds for `happens`.
template <typename Condition>
bool soon(Condition happens);
void pause_ms(int milliseconds);

template <typename Condition>
bool soon(Condition happens) {
    for (int i = 0; i < 200; ++i) {
        if (happens()) return true;
        pause_ms(10);
    }
    return happens();
}

// Runs a program and answers its exit status; its output goes nowhere.
int run_program(const std::string &command);

// A buffer that O_DIRECT takes.
struct alignas(4096) Block {
    char bytes[4096] = {};
    uint64_t number() const;
    void set_number(uint64_t value);
};
// Reads or writes one block of a device past every cache; false when it cannot.
bool read_block(const std::string &device, uint64_t at, Block *block);
bool write_block(const std::string &device, uint64_t at, const Block &block);
// The first number of a block, or of zeros when it cannot be read.
uint64_t number_at(const std::string &device, uint64_t at);
bool put_number(const std::string &device, uint64_t at, uint64_t value);

}  // namespace test
