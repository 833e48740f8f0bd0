// The witness of the busy program: when each step began and ended, kept outside the file system
// that the steps change. All times are of the machine's monotonic clock, in nanoseconds.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <vector>

namespace tfwriter {

int64_t now();

// Writes the witness, one line an event.
class WitnessWriter {
  public:
    explicit WitnessWriter(const std::filesystem::path &file);
    ~WitnessWriter();
    WitnessWriter(const WitnessWriter &) = delete;
    WitnessWriter &operator=(const WitnessWriter &) = delete;
    void begins(uint64_t step) { write('b', step); }
    void ended(uint64_t step) { write('e', step); }

  private:
    void write(char event, uint64_t step) const;
    int fd_;
};

// What the witness says. Step n is at index n - 1.
struct Witness {
    struct Times {
        int64_t begun = 0;
        std::optional<int64_t> ended;
    };
    std::vector<Times> steps;

    static Witness read(const std::filesystem::path &file);
    // How many steps had ended at that time, and how many had begun.
    uint64_t ended_at(int64_t time) const;
    uint64_t begun_at(int64_t time) const;
    uint64_t ended() const;
};

}  // namespace tfwriter
