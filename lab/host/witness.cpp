#include "lab/host/witness.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <string>
#include <system_error>

namespace tfwriter {

int64_t now() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

WitnessWriter::WitnessWriter(const std::filesystem::path &file)
    : fd_(open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644)) {
    if (fd_ < 0)
        throw std::system_error(errno, std::generic_category(), "cannot open " + file.string());
}

WitnessWriter::~WitnessWriter() {
    close(fd_);
}

void WitnessWriter::write(char event, uint64_t step) const {
    char line[64];
    const int length =
        snprintf(line, sizeof line, "%c %llu %lld\n", event, static_cast<unsigned long long>(step),
                 static_cast<long long>(now()));
    if (::write(fd_, line, static_cast<size_t>(length)) != length) {
        throw std::system_error(errno, std::generic_category(), "cannot write the witness");
    }
}

Witness Witness::read(const std::filesystem::path &file) {
    Witness witness;
    std::ifstream in(file);
    if (!in) throw std::runtime_error("cannot read " + file.string());
    char event = 0;
    uint64_t step = 0;
    int64_t time = 0;
    while (in >> event >> step >> time) {
        if (event == 'b' && step == witness.steps.size() + 1) {
            witness.steps.push_back({time, std::nullopt});
        } else if (event == 'e' && step == witness.steps.size()) {
            witness.steps.back().ended = time;
        } else {
            throw std::runtime_error(file.string() + " is out of order at step " +
                                     std::to_string(step));
        }
    }
    return witness;
}

uint64_t Witness::begun_at(int64_t time) const {
    const auto after =
        std::upper_bound(steps.begin(), steps.end(), time,
                         [](int64_t wanted, const Times &times) { return wanted < times.begun; });
    return static_cast<uint64_t>(after - steps.begin());
}

uint64_t Witness::ended_at(int64_t time) const {
    const uint64_t begun = begun_at(time);
    if (begun == 0) return 0;
    const Times &last = steps[begun - 1];
    return last.ended && *last.ended <= time ? begun : begun - 1;
}

uint64_t Witness::ended() const {
    return ended_at(std::numeric_limits<int64_t>::max());
}

}  // namespace tfwriter
