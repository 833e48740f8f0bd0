#include "bench/freeze_window/probe.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "lab/host/system.h"

namespace bench {

using namespace std::chrono_literals;

struct Probes::Longest {
    std::atomic<bool> stop, failed;
    std::atomic<uint64_t> writes;
    double begin, end;  // of the longest time between two writes
};

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

Probes::Probes(const std::vector<std::string> &directories) : count_(directories.size()) {
    void *shared = mmap(nullptr, count_ * sizeof(Longest), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) tflab::fails("share memory with the probes");
    longest_ = static_cast<Longest *>(shared);
    for (size_t i = 0; i < count_; ++i) {
        processes_.push_back(tflab::fork_into(0, [this, i, &directories] {
            Longest &own = longest_[i];
            const std::string name = directories[i] + "/probe";
            const int file = open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
            const char block[512] = "";
            double last = now();
            while (!own.stop && pwrite(file, block, sizeof block, 0) == sizeof block) {
                const double written = now();
                if (own.writes++ > 0 && written - last > own.end - own.begin) {
                    own.begin = last;
                    own.end = written;
                }
                last = written;
                std::this_thread::sleep_for(100us);
            }
            own.failed = !own.stop;
            return 0;
        }));
    }
    for (size_t i = 0; i < count_; ++i) {
        while (longest_[i].writes < 2 && !longest_[i].failed) std::this_thread::sleep_for(100us);
        if (longest_[i].failed) throw std::runtime_error("cannot write to " + directories[i]);
    }
}

void Probes::end() {
    for (size_t i = 0; i < count_; ++i) longest_[i].stop = true;
    for (const pid_t process : processes_) tflab::wait_for(process);
    processes_.clear();
}

double Probes::window() {
    end();
    double begin = longest_[0].begin, end = longest_[0].end;
    for (size_t i = 0; i < count_; ++i) {
        if (longest_[i].failed) throw std::runtime_error("a probe could not go on writing");
        begin = std::min(begin, longest_[i].begin);
        end = std::max(end, longest_[i].end);
    }
    return end - begin;
}

Probes::~Probes() {
    end();
    munmap(longest_, count_ * sizeof(Longest));
}

}  // namespace bench
