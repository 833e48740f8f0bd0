// A run that is killed with everything that it has started, at every step, on a real file system:
// orphans names what is left, cleanup ends it, and the next run finds the host as the first one
// did.
#include <chrono>
#include <fstream>
#include <iterator>
#include <ostream>
#include <thread>

#include "tests/support/world.h"

namespace {

using test::World;
using namespace std::chrono_literals;

constexpr char without_waits[] = "LD_PRELOAD=/usr/lib/tflab/libtflabsleep.so fimctl -q ";

// Stops the processes first, so that none sees another one die.
constexpr char kill_all[] = R"(#!/bin/bash
below() { local one; for one in $(pgrep -P "$1"); do echo "$one"; below "$one"; done; }
kill -STOP "$1"
all=$(below "$1")
kill -STOP $all 2>/dev/null
kill -KILL "$1" $all $(below "$1") 2>/dev/null
for i in $(seq 500); do
    left=
    for one in "$1" $all; do [ ! -e "/proc/$one" ] || left=1; done
    [ -n "$left" ] || exit 0
    sleep 0.01
done
exit 1
)";

// Where the run is when it is killed, and what is expected of it then.
struct Stop {
    const char *name;
    const char *fault;    // of the array, that makes it stop there; "" for none
    const char *program;  // a program of the host that stops it there; "" for none
    const char *step;     // the line of the log, or the file that says that it is there
    const char *state;    // of the snapshot
    bool frozen = false;  // whether the file system is
};

void PrintTo(const Stop &stop, std::ostream *out) {
    *out << stop.name;
}

class KilledRun : public World, public testing::WithParamInterface<Stop> {
  protected:
    KilledRun() : World("small") {}

    void SetUp() override {
        World::SetUp();
        if (IsSkipped()) return;
        std::ofstream(exchange() / "kill_all") << kill_all;
        std::ofstream(exchange() / "command") << "#!/bin/sh\ntouch /exchange/reads\nsleep 100\n";
        host("chmod 755 /exchange/kill_all /exchange/command");
        mount_source("ext4");
        host("echo original >/data/file; sync -f /data");
    }

    // A program that tells that it was called, and never ends; behind_it: it does its work first.
    void hang(const std::string &program, bool behind_it) {
        host("set -e; real=$(readlink -f $(command -v " + program + ")); cp $real /exchange/real." +
             program + "; rm $real; printf '#!/bin/sh\\n" +
             (behind_it ? "/exchange/real." + program + " \"$@\"\\n" : "") +
             "touch /exchange/hangs\\nsleep 100\\n' >$real; chmod 755 $real");
    }
    void mend(const std::string &program) {
        host("real=$(readlink -f $(command -v " + program + ")); cp /exchange/real." + program +
             " $real.new; mv $real.new $real");
    }

    void start_run() {
        host(
            "fimctl --log /exchange/log -q run --freeze-deadline 300 /data -- /exchange/command "
            ">/exchange/output 2>&1 & echo $! >/exchange/pid");
    }
    bool wait_for(const std::string &step) {
        for (int i = 0; i < 3000; ++i) {
            std::ifstream log(exchange() / "log");
            const std::string text(std::istreambuf_iterator<char>(log), {});
            if (text.find(step + "\n") != std::string::npos) return true;
            if (std::filesystem::exists(exchange() / step)) return true;
            std::this_thread::sleep_for(5ms);
        }
        ADD_FAILURE() << "it never came to \"" << step << "\": " << host("cat /exchange/output");
        return false;
    }
    // Starts a run and kills all of it when it is there; what stopped it is taken away again.
    void kill_in(const Stop &stop) {
        const std::string program = stop.program, name = program.substr(0, program.find(' '));
        if (*stop.fault != '\0')
            array("fault add " + std::string(stop.fault) + " --delay-ms 100000");
        if (!name.empty()) hang(name, program.ends_with("behind"));
        start_run();
        ASSERT_TRUE(wait_for(stop.step));
        // The step has been told; what stops it is the call behind it.
        if (*stop.fault != '\0') std::this_thread::sleep_for(1s);
        host("/exchange/kill_all $(cat /exchange/pid)");
        array("fault clear");
        if (!name.empty()) mend(name);
    }
    std::string fim(const std::string &arguments, int expected = 0) {
        int status = -1;
        const std::string text = host(without_waits + arguments, &status);
        EXPECT_EQ(status, expected) << "fimctl " << arguments << ":\n" << text;
        return text;
    }
    bool is_frozen() {
        int status = 0;
        host("fsfreeze -f /data && fsfreeze -u /data", &status);
        return status != 0;
    }
    void expect_clean() {
        EXPECT_EQ(fim("orphans"), "");
        EXPECT_EQ(host("grep -c /dev/sd /proc/self/mounts || true"), "0\n");
        EXPECT_EQ(
            host("ls -A /var/lib/fimctl/mnt /var/lib/fimctl/tmp | grep -v : | grep . || true"), "");
        EXPECT_EQ(host("find /run/fimctl /tmp -type f"), "");
        EXPECT_EQ(counter_files(), "");
        array("check");
    }
};

TEST_P(KilledRun, is_named_cleaned_up_and_repeated_needs_root) {
    const Stop stop = GetParam();
    ASSERT_NO_FATAL_FAILURE(kill_in(stop));
    const std::string named = fim("orphans");
    EXPECT_NE(named.find(std::string(stop.state) + ", its fimctl was killed"), std::string::npos)
        << named;
    EXPECT_EQ(named.find("file system  /data") != std::string::npos, stop.frozen) << named;
    EXPECT_EQ(is_frozen(), stop.frozen);

    fim("cleanup");
    expect_clean();
    EXPECT_FALSE(is_frozen());
    host("timeout 20 sh -c 'echo more >>/data/file; sync -f /data'");
    if (std::string(stop.state) != "begun") {
        EXPECT_EQ(pair_state(), 2);
    }

    fim("run /data -- cmp /data/file {}/file");
    EXPECT_EQ(pair_state(), 2);
    expect_clean();
}

INSTANTIATE_TEST_SUITE_P(
    in, KilledRun,
    testing::Values(Stop{"the_question_for_the_serial", "SymPdevShow", "",
                         "snapshot 1: freeze (object 1)", "begun"},
                    Stop{"the_look_at_the_device", "SymPdevSync", "",
                         "snapshot 1: freeze (object 1)", "begun"},
                    Stop{"the_call_that_establishes", "SymDevListBcvControl", "",
                         "snapshot 1: control code 4", "begun"},
                    Stop{"the_answer_that_it_establishes", "SymDevListBcvControl --after", "",
                         "snapshot 1: control code 4", "begun"},
                    Stop{"the_look_at_the_pairs", "SymDevShow --device 00A1", "",
                         "snapshot 1: read the pair states", "begun"},
                    Stop{"the_call_that_splits", "SymDevListBcvControl --at 2", "",
                         "snapshot 1: freeze commit", "cutting", true},
                    Stop{"the_answer_that_it_has_split", "SymDevListBcvControl --at 2 --after", "",
                         "snapshot 1: freeze commit", "cutting", true},
                    Stop{"the_judgement", "SymDevShow --device 00A1 --at 2", "",
                         "snapshot 1: judge the copy", "cutting"},
                    Stop{"the_check_of_the_copy", "", "fsck", "hangs", "mounting"},
                    Stop{"the_mount_of_the_copy", "", "mount behind", "hangs", "mounting"},
                    Stop{"the_command", "", "", "reads", "mounted"}),
    [](const auto &stop) { return stop.param.name; });

// The release comes after the command, which here ends at once.
class KilledRelease : public KilledRun {
  protected:
    void SetUp() override {
        KilledRun::SetUp();
        if (IsSkipped()) return;
        host("cp /bin/true /exchange/command");
    }
};

TEST_P(KilledRelease, is_named_cleaned_up_and_repeated_needs_root) {
    const Stop stop = GetParam();
    ASSERT_NO_FATAL_FAILURE(kill_in(stop));
    const std::string named = fim("orphans");
    EXPECT_NE(named.find("releasing, its fimctl was killed"), std::string::npos) << named;
    fim("cleanup");
    expect_clean();
    EXPECT_EQ(pair_state(), 2);
    fim("run /data -- cmp /data/file {}/file");
    expect_clean();
}

INSTANTIATE_TEST_SUITE_P(
    in, KilledRelease,
    testing::Values(Stop{"the_unmount", "", "umount", "hangs", "releasing"},
                    Stop{"what_follows_the_unmount", "", "umount behind", "hangs", "releasing"},
                    Stop{"the_call_that_establishes_again", "SymDevListBcvControl --at 3", "",
                         "snapshot 1: thaw commit (object 1)", "releasing"},
                    Stop{"the_answer_that_it_establishes_again",
                         "SymDevListBcvControl --at 3 --after", "",
                         "snapshot 1: thaw commit (object 1)", "releasing"}),
    [](const auto &stop) { return stop.param.name; });

}  // namespace
