// Fifty processes set and clear locks of a few arrays. Some are killed wherever they are, and wait
// as zombies before somebody reaps them; another process goes on in their place. What each process
// does it puts down in memory that all of them share, and every success is judged at once:
//
//   - what the process owns stands in the counter file to the byte, for as long as it owns it;
//   - no other process owned the array from before the call until after it. Who is about to clear
//     his last lock, and who has been reaped, is no owner;
//   - a refusal names a live owner.
#include "proof/locks/race.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <random>
#include <stdexcept>
#include <thread>

#include "method/lock_file.h"
#include "method/text.h"
#include "proof/locks/machine.h"
#include "tests/support/frozen_object.h"

namespace locks {
namespace {

using namespace std::chrono_literals;

constexpr int processes = 50;
constexpr int most_arrays = 16;
constexpr int array_numbers[] = {1, 4, most_arrays};
constexpr auto patience = 300s;
// Locks that one process sets of an array before it clears them again, at most.
constexpr int longest_hold = 12;
// One set of so many goes through the device-information tool, as the method's do.
constexpr int whole_way = 250;

// How many locks a slot's process holds of an array. The generation tells two holds apart.
struct Hold {
    std::atomic<uint64_t> word{0};

    static uint64_t pack(uint64_t generation, uint32_t count) { return generation << 32 | count; }
    static uint32_t count_of(uint64_t word) { return static_cast<uint32_t>(word); }
    static uint64_t generation_of(uint64_t word) { return word >> 32; }
    void begin_new(uint32_t count) { word = pack(generation_of(word) + 1, count); }
    void set_count(uint32_t count) { word = pack(generation_of(word), count); }
};

struct Slot {
    Hold holds[most_arrays];
    std::atomic<long> changes{0}, refused{0};
    std::atomic<int> rounds_done{0};
    std::atomic<bool> finished{false};
    std::atomic<bool> may_be_reaped{false};  // from here on nobody has to believe in its locks
};

struct Shared {
    Slot slots[processes];
    std::atomic<int> wrong{0};
    char what[512] = "";
    pid_t live[processes] = {};
};

// What goes wrong first is told; the others stop at the next look.
void complain(Shared *shared, const std::string &what) {
    if (shared->wrong.fetch_add(1) != 0) return;
    snprintf(shared->what, sizeof shared->what, "%s", what.c_str());
}

// One process of the race.
class Racer {
  public:
    Racer(Shared *shared, int slot, int arrays, int rounds, uint64_t seed)
        : shared_(shared),
          me_(shared->slots[slot]),
          slot_(slot),
          arrays_(arrays),
          rounds_(rounds),
          random_(seed) {}

    void run() {
        while (me_.rounds_done < rounds_ && shared_->wrong == 0) {
            const int array = pick(arrays_);
            int wanted = 1 + pick(longest_hold);
            wanted = std::min(wanted, rounds_ - me_.rounds_done.load());
            int held = 0;
            while (held < wanted && shared_->wrong == 0 && set(array)) ++held;
            if (held == 0) std::this_thread::sleep_for(std::chrono::microseconds(pick(300)));
            for (; held > 0 && shared_->wrong == 0; --held) {
                clear(array);
                ++me_.rounds_done;
            }
        }
        me_.finished = true;
    }

  private:
    int pick(int n) { return static_cast<int>(random_() % static_cast<unsigned>(n)); }

    bool set(int array) {
        uint64_t before[processes];
        for (int i = 0; i < processes; ++i) before[i] = owned_word(i, array);
        prim_mir_info pm = {};
        tf::put(pm.dev_raw_device, ("/dev/" + serial_of(array)).c_str());
        tf::put(pm.lock_file, counter_file(array).c_str());
        forget_log();
        const bool is_whole = pick(whole_way) == 0;
        const int result =
            is_whole ? manage_lock(object_.get(), &pm, TF_LOCK_SET) : change(&pm, TF_LOCK_SET);
        Hold &hold = me_.holds[array];
        const uint32_t held = Hold::count_of(hold.word);
        if (result != 0) {
            ++me_.refused;
            if (held > 0) complain_of(array, "was refused what it owns");
            if (!last_line().starts_with("lock pid(")) complain_of(array, last_line());
            return false;
        }
        ++me_.changes;
        if (pm.issplit != (held > 0 ? 1 : 0)) complain_of(array, "read the wrong is_split flag");
        if (held > 0) {
            hold.set_count(held + 1);
        } else {
            hold.begin_new(1);
            look_for_others(array, before);
        }
        look_at_file(array);
        return true;
    }

    void clear(int array) {
        Hold &hold = me_.holds[array];
        const uint32_t held = Hold::count_of(hold.word);
        look_at_file(array);
        if (held == 1) hold.begin_new(0);
        prim_mir_info pm = {};
        tf::put(pm.lock_file, counter_file(array).c_str());
        const int result = pick(2) == 0 ? manage_lock(object_.get(), &pm, TF_LOCK_CLEAR)
                                        : change(&pm, TF_LOCK_CLEAR);
        ++me_.changes;
        if (result != 0) complain_of(array, "could not clear what it owns: " + last_line());
        if (pm.issplit != 1) complain_of(array, "read the wrong is_split flag when it cleared");
        if (held > 1) {
            hold.set_count(held - 1);
            look_at_file(array);
        }
    }

    // The hold of another process while it counts: 0 when it has none.
    uint64_t owned_word(int slot, int array) const {
        const Slot &other = shared_->slots[slot];
        const uint64_t word = other.holds[array].word;
        return slot != slot_ && !other.may_be_reaped && Hold::count_of(word) > 0 ? word : 0;
    }

    void look_for_others(int array, const uint64_t *before) {
        for (int i = 0; i < processes; ++i) {
            if (before[i] == 0) continue;
            const uint64_t now = owned_word(i, array);
            if (now != 0 && Hold::generation_of(now) == Hold::generation_of(before[i])) {
                complain_of(array, "became owner beside slot " + std::to_string(i));
            }
        }
    }

    void look_at_file(int array) {
        const uint32_t held = Hold::count_of(me_.holds[array].word);
        const std::string bytes = read_all(counter_file(array));
        if (bytes == bytes_of(getpid(), static_cast<int32_t>(held), 1)) return;
        int32_t fields[3] = {};
        memcpy(fields, bytes.data(), std::min(bytes.size(), sizeof fields));
        complain_of(array, "holds " + std::to_string(held) + ", but the file says " +
                               std::to_string(fields[0]) + " " + std::to_string(fields[1]) + " " +
                               std::to_string(fields[2]));
    }

    void complain_of(int array, const std::string &what) {
        complain(shared_, "process " + std::to_string(getpid()) + " in slot " +
                              std::to_string(slot_) + ", array " + std::to_string(array) + ": " +
                              what);
    }

    Shared *shared_;
    Slot &me_;
    int slot_, arrays_, rounds_;
    std::mt19937_64 random_;
    test::FrozenObject object_;
};

// Starts the processes, kills some, and reaps them a while later.
class Race {
  public:
    Race(int arrays, int rounds, uint64_t seed) : arrays_(arrays), rounds_(rounds), random_(seed) {
        void *const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                                  MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
        shared_ = new (memory) Shared;
    }
    ~Race() { munmap(shared_, sizeof(Shared)); }
    Race(const Race &) = delete;
    Race &operator=(const Race &) = delete;

    RaceResult run() {
        const auto deadline = std::chrono::steady_clock::now() + patience;
        for (int i = 0; i < processes; ++i) start(i);
        while (!all_finished() && shared_->wrong == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(500 + random_() % 8000));
            kill_and_replace(static_cast<int>(random_() % processes));
            if (std::chrono::steady_clock::now() > deadline) complain(shared_, "it does not end");
        }
        for (int i = 0; i < processes; ++i) reap(i, shared_->wrong != 0);
        if (shared_->wrong == 0) look_at_the_rest();
        RaceResult result;
        result.wrong = shared_->wrong != 0 ? shared_->what : "";
        result.killed = killed_;
        for (const Slot &slot : shared_->slots) {
            result.changes += slot.changes;
            result.refused += slot.refused;
        }
        return result;
    }

  private:
    void start(int i) {
        Slot &slot = shared_->slots[i];
        for (Hold &hold : slot.holds) hold.begin_new(0);
        slot.may_be_reaped = false;
        const uint64_t seed = random_();
        const pid_t pid = fork();
        if (pid < 0) throw std::runtime_error("cannot fork");
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            Racer(shared_, i, arrays_, rounds_, seed).run();
            _exit(0);
        }
        shared_->live[i] = pid;
    }

    bool all_finished() const {
        for (const Slot &slot : shared_->slots) {
            if (!slot.finished) return false;
        }
        return true;
    }

    // A process that is dead and not reaped still owns what it owned.
    void kill_and_replace(int i) {
        Slot &slot = shared_->slots[i];
        if (slot.finished) return;
        kill(shared_->live[i], SIGKILL);
        ++killed_;
        siginfo_t ended = {};
        waitid(P_PID, static_cast<id_t>(shared_->live[i]), &ended, WEXITED | WNOWAIT);
        std::this_thread::sleep_for(std::chrono::microseconds(random_() % 3000));
        reap(i, false);
        if (!slot.finished) start(i);
    }

    void reap(int i, bool by_force) {
        if (shared_->live[i] == 0) return;
        shared_->slots[i].may_be_reaped = true;
        if (by_force) kill(shared_->live[i], SIGKILL);
        int status = 0;
        waitpid(shared_->live[i], &status, 0);
        shared_->live[i] = 0;
        const bool was_killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
        if (status != 0 && !was_killed) {
            complain(shared_, "a process ended with " + std::to_string(status));
        }
    }

    // Every process is gone: what is left belongs to the dead, and the next one takes it over.
    void look_at_the_rest() {
        for (int array = 0; array < arrays_; ++array) {
            prim_mir_info pm = {};
            tf::put(pm.lock_file, counter_file(array).c_str());
            if (change(&pm, TF_LOCK_SET) != 0 || pm.issplit != 0 ||
                read_all(pm.lock_file) != bytes_of(getpid(), 1, 1) ||
                change(&pm, TF_LOCK_CLEAR) != 0 || exists(pm.lock_file)) {
                complain(shared_, "what the dead left of array " + std::to_string(array) +
                                      " was not taken over: " + last_line());
            }
        }
        if (!exists(host_lock)) complain(shared_, "the host-wide lock file is gone");
    }

    Shared *shared_;
    int arrays_, rounds_;
    std::mt19937_64 random_;
    long killed_ = 0;
};

std::string race_name(int arrays) {
    return "race/" + std::to_string(processes) + " processes/" + std::to_string(arrays) +
           (arrays == 1 ? " array" : " arrays");
}

}  // namespace

std::vector<std::string> race_points() {
    std::vector<std::string> names;
    for (const int arrays : array_numbers) names.push_back(race_name(arrays));
    return names;
}

RaceResult try_race_point(const std::string &point, int rounds, uint64_t seed) {
    for (const int arrays : array_numbers) {
        if (race_name(arrays) == point) return Race(arrays, rounds, seed).run();
    }
    throw std::runtime_error("there is no point " + point);
}

}  // namespace locks
