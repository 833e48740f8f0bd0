// Data on real block devices: what a split freezes, what a restore brings back, what hosts can and
// cannot do meanwhile, and that nothing is left of a killed daemon. Needs root.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <system_error>
#include <thread>

#include "lab/array/media/media.h"
#include "lab/array/model/codes.h"
#include "tests/lab_array/array_daemon.h"
#include "tests/support/private_root.h"

namespace {

using nlohmann::json;
using test::ArrayDaemon;
using test::number_at;
using test::put_number;
namespace code = lab::code;

class RealDevicesNeedRoot : public test::WithArray {
  protected:
    uint64_t tracks_moved() {
        return daemon->ask({{"command", "show"}}).at("arrays")[0].at("pairs")[0].at("tracks");
    }
    static off_t capacity(const std::string &device) {
        const lab::Fd fd(open(device.c_str(), O_RDONLY | O_CLOEXEC));
        return lseek(fd.get(), 0, SEEK_END);
    }
};

class LoopMediaNeedsRoot : public test::NeedsRoot {
  protected:
    static rlim_t address_space() {
        rlim_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
    }
};

TEST_F(RealDevicesNeedRoot, a_split_freezes_what_was_written_before_and_nothing_after) {
    ASSERT_TRUE(put_number(primary, 0, 1));
    ASSERT_EQ(control("00A1", "01A1", 3), 0);
    ASSERT_TRUE(put_number(primary, 0, 2));  // while established it goes to the BCV too
    ASSERT_EQ(control("00A1", "01A1", 2), 0);
    ASSERT_TRUE(put_number(primary, 0, 3));
    EXPECT_EQ(number_at(bcv, 0), 2u);
    EXPECT_EQ(number_at(primary, 0), 3u);
}

TEST_F(RealDevicesNeedRoot, a_bcv_can_be_written_and_the_standard_device_does_not_see_it) {
    ASSERT_EQ(control("00A1", "01A1", 3), 0);
    ASSERT_EQ(control("00A1", "01A1", 2), 0);
    ASSERT_TRUE(put_number(bcv, 4096, 7));
    EXPECT_EQ(number_at(primary, 4096), 0u);
    // The next copy is of the standard device again.
    ASSERT_EQ(control("00A1", "01A1", 3), 0);
    ASSERT_EQ(control("00A1", "01A1", 2), 0);
    EXPECT_EQ(number_at(bcv, 4096), 0u);
}

TEST_F(RealDevicesNeedRoot, a_reader_with_a_descriptor_of_before_sees_the_new_copy) {
    ASSERT_TRUE(put_number(primary, 0, 1));
    ASSERT_EQ(control("00A1", "01A1", 3), 0);
    ASSERT_EQ(control("00A1", "01A1", 2), 0);
    const lab::Fd held(open(bcv.c_str(), O_RDONLY | O_CLOEXEC));  // cached, and kept open
    uint64_t seen = 0;
    ASSERT_EQ(pread(held.get(), &seen, sizeof seen, 0), 8);
    EXPECT_EQ(seen, 1u);
    ASSERT_TRUE(put_number(primary, 0, 2));
    ASSERT_EQ(control("00A1", "01A1", 3), 0);
    ASSERT_EQ(control("00A1", "01A1", 2), 0);
    ASSERT_EQ(pread(held.get(), &seen, sizeof seen, 0), 8);
    EXPECT_EQ(seen, 2u);
}

TEST_F(RealDevicesNeedRoot, an_established_bcv_has_no_capacity_and_a_split_one_its_own) {
    EXPECT_EQ(capacity(bcv), static_cast<off_t>(ArrayDaemon::size));
    ASSERT_EQ(control("00A1", "01A1", 3), 0);
    EXPECT_EQ(capacity(bcv), 0);
    ASSERT_EQ(control("00A1", "01A1", 2), 0);
    EXPECT_EQ(capacity(bcv), static_cast<off_t>(ArrayDaemon::size));
}

TEST_F(RealDevicesNeedRoot, a_bcv_is_ready_only_when_the_split_is_over) {
    daemon->ask({{"command", "clock"}, {"running", false}});
    settings({{"split_ms", 3000}});
    ASSERT_EQ(control("00A1", "01A1", 3), 0);
    ASSERT_TRUE(put_number(primary, 0, 1));
    ASSERT_EQ(control("00A1", "01A1", 2), 0);
    ASSERT_TRUE(put_number(primary, 0, 2));  // after the instant, before the end
    EXPECT_EQ(state(), 3);
    EXPECT_EQ(capacity(bcv), 0);
    advance(3);
    EXPECT_EQ(state(), 5);
    EXPECT_EQ(number_at(bcv, 0), 1u);
}

TEST_F(RealDevicesNeedRoot, a_split_with_time_ends_by_itself_while_the_clock_runs) {
    settings({{"split_ms", 50}});
    ASSERT_EQ(control("00A1", "01A1", 3), 0);
    ASSERT_EQ(control("00A1", "01A1", 2), 0);
    EXPECT_TRUE(test::soon([this] { return capacity(bcv) != 0; }));  // nobody asked the array
    EXPECT_EQ(state(), 5);
}

TEST_F(RealDevicesNeedRoot, a_restore_brings_the_copy_back) {
    ASSERT_TRUE(put_number(primary, 0, 1));
    ASSERT_EQ(control("00A1", "01A1", 3), 0);
    ASSERT_EQ(control("00A1", "01A1", 2), 0);
    ASSERT_TRUE(put_number(primary, 0, 2));
    const lab::Fd held(open(primary.c_str(), O_RDONLY | O_CLOEXEC));
    uint64_t seen = 0;
    ASSERT_EQ(pread(held.get(), &seen, sizeof seen, 0), 8);
    EXPECT_EQ(seen, 2u);
    ASSERT_EQ(control("00A1", "01A1", 5), 0);
    EXPECT_EQ(state(), 8);
    EXPECT_EQ(number_at(primary, 0), 1u);
    ASSERT_EQ(pread(held.get(), &seen, sizeof seen, 0), 8);
    EXPECT_EQ(seen, 1u);  // no stale cache either
    EXPECT_EQ(capacity(bcv), 0);
}

TEST_F(RealDevicesNeedRoot, a_restore_takes_what_is_still_in_the_cache_of_the_bcv) {
    ASSERT_EQ(control("00A1", "01A1", 3), 0);
    ASSERT_EQ(control("00A1", "01A1", 2), 0);
    const uint64_t value = 9;
    {
        const lab::Fd fd(open(bcv.c_str(), O_WRONLY | O_CLOEXEC));  // written, not flushed
        ASSERT_EQ(pwrite(fd.get(), &value, sizeof value, 0), 8);
        ASSERT_EQ(control("00A1", "01A1", 5), 0);
    }
    EXPECT_EQ(number_at(primary, 0), 9u);
}

TEST_F(RealDevicesNeedRoot, a_bcv_that_a_host_holds_is_refused) {
    const lab::Fd held(open(bcv.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC));
    EXPECT_EQ(control("00A1", "01A1", 3), code::bcv_held);
    EXPECT_EQ(control("00A1", "01A1", 1), code::bcv_held);
    EXPECT_EQ(control("00A1", "01A1", 5), code::bcv_held);
    EXPECT_EQ(state(), 5);
    EXPECT_EQ(capacity(bcv), static_cast<off_t>(ArrayDaemon::size));
}

TEST_F(RealDevicesNeedRoot, one_held_bcv_of_a_list_leaves_all_of_them_alone) {
    const lab::Fd held(open(ArrayDaemon::node("/dev/sdr").c_str(), O_RDONLY | O_EXCL | O_CLOEXEC));
    const char *names[] = {"00A1", "00A2", nullptr}, *bcvs[] = {"01A1", "01A2", nullptr};
    EXPECT_EQ(library->SymDevListBcvControl(session, ArrayDaemon::symid, 2, names, bcvs, 3, 0, 0),
              code::bcv_held);
    EXPECT_EQ(state("00A1", "01A1"), 5);
    EXPECT_EQ(capacity(bcv), static_cast<off_t>(ArrayDaemon::size));
}

TEST_F(RealDevicesNeedRoot, a_restore_over_a_standard_device_that_a_host_holds_is_refused) {
    ASSERT_TRUE(put_number(primary, 0, 2));
    const lab::Fd held(open(primary.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC));
    EXPECT_EQ(control("00A1", "01A1", 5), code::standard_held);
    EXPECT_EQ(number_at(primary, 0), 2u);
}

TEST_F(RealDevicesNeedRoot, a_mounted_copy_is_a_held_one) {
    ASSERT_EQ(test::run_program("/usr/sbin/mkfs.ext4 -q " + primary), 0);
    ASSERT_EQ(control("00A1", "01A1", 3), 0);
    ASSERT_EQ(control("00A1", "01A1", 2), 0);
    test::make_folders("/tmp/copy");
    ASSERT_EQ(mount(bcv.c_str(), "/tmp/copy", "ext4", MS_RDONLY, nullptr), 0);
    EXPECT_EQ(control("00A1", "01A1", 3), code::bcv_held);
    ASSERT_EQ(umount("/tmp/copy"), 0);
    EXPECT_EQ(control("00A1", "01A1", 3), 0);
    rmdir("/tmp/copy");
}

TEST_F(RealDevicesNeedRoot, an_incremental_establish_moves_the_changed_tracks_only) {
    ASSERT_EQ(control("00A1", "01A1", 1), 0);
    EXPECT_EQ(tracks_moved(), ArrayDaemon::size / lab::track_size);
    ASSERT_EQ(control("00A1", "01A1", 2), 0);
    ASSERT_EQ(control("00A1", "01A1", 3), 0);
    EXPECT_EQ(tracks_moved(), 0u);
    ASSERT_EQ(control("00A1", "01A1", 2), 0);
    ASSERT_TRUE(put_number(primary, 0, 1));
    ASSERT_TRUE(put_number(primary, 5 * lab::track_size, 1));
    ASSERT_TRUE(put_number(primary, 5 * lab::track_size + 8192, 1));
    ASSERT_TRUE(put_number(bcv, 9 * lab::track_size, 1));
    ASSERT_EQ(control("00A1", "01A1", 3), 0);
    EXPECT_EQ(tracks_moved(), 3u);
}

TEST_F(RealDevicesNeedRoot, several_bcvs_of_one_device_each_keep_their_own_instant) {
    daemon->ask({{"command", "mask"},
                 {"symid", ArrayDaemon::symid},
                 {"name", "01B1"},
                 {"host", "client1"},
                 {"paths", {"/dev/sds"}}});
    for (const auto &[name, value] : {std::pair("01A1", 1), std::pair("01B1", 2)}) {
        ASSERT_EQ(control("00A1", name, 3), 0);
        ASSERT_TRUE(put_number(primary, 0, static_cast<uint64_t>(value)));
        ASSERT_EQ(control("00A1", name, 2), 0);
    }
    ASSERT_TRUE(put_number(primary, 0, 3));
    EXPECT_EQ(number_at(bcv, 0), 1u);
    EXPECT_EQ(number_at(ArrayDaemon::node("/dev/sds"), 0), 2u);
}

TEST_F(RealDevicesNeedRoot, both_names_of_a_device_lead_to_it) {
    ASSERT_TRUE(put_number(ArrayDaemon::node("/dev/qz/rdmp/p0"), 0, 4));
    EXPECT_EQ(number_at(primary, 0), 4u);
    daemon->ask({{"command", "unmask"},
                 {"symid", ArrayDaemon::symid},
                 {"name", "00A1"},
                 {"host", "client1"}});
    EXPECT_FALSE(test::exists(primary));
}

TEST_F(RealDevicesNeedRoot, a_killed_daemon_leaves_no_loop_device) {
    EXPECT_EQ(test::loops_over_store(), 5);
    daemon->kill();
    EXPECT_TRUE(test::soon([] { return test::loops_over_store() == 0; }));
}

TEST_F(RealDevicesNeedRoot, a_daemon_started_again_takes_over_what_a_host_still_holds) {
    const lab::Fd held(open(primary.c_str(), O_RDWR | O_DIRECT | O_CLOEXEC));
    daemon->kill();
    EXPECT_TRUE(test::soon([] { return test::loops_over_store() == 1; }));
    daemon->start();
    EXPECT_EQ(test::loops_over_store(), 5);  // not a second one over the same window
    test::Block block;
    block.set_number(6);
    ASSERT_EQ(pwrite(held.get(), block.bytes, sizeof block.bytes, 0), 4096);
    EXPECT_EQ(number_at(primary, 0), 6u);
}

// Changing many devices at a time only saves time.
TEST_F(LoopMediaNeedsRoot, changes_many_devices_where_no_thread_can_be_started) {
    if (address_space() >> 40 != 0) GTEST_SKIP() << "a sanitizer has taken all address space";
    const test::RealStore store;
    const std::unique_ptr<lab::Media> media = lab::make_loop_media(store.path);
    std::vector<lab::Device> devices(4);
    std::vector<const lab::Device *> bcvs;
    for (lab::Device &device : devices) {
        device.id = static_cast<int64_t>(bcvs.size()) + 1;
        device.symid = ArrayDaemon::symid;
        device.name = "01A" + std::to_string(device.id);
        device.size = lab::size_unit;
        device.bcv = true;
        media->attach(device, true);
        bcvs.push_back(&device);
    }
    struct rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
    // What the process has, and some memory, but no room for another stack.
    const rlim_t room = address_space() + (rlim_t{4} << 20);
    const struct rlimit little = {room, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &little), 0);
    EXPECT_THROW(std::thread([] {}).join(), std::system_error);
    media->set_ready(bcvs, false);
    ASSERT_EQ(setrlimit(RLIMIT_AS, &before), 0);
    for (const lab::Device *device : bcvs) EXPECT_FALSE(media->ready(*device)) << device->name;
}

TEST_F(RealDevicesNeedRoot, check_is_content_at_every_step) {
    const auto broken = [this] { return daemon->ask({{"command", "check"}}).at("broken"); };
    EXPECT_EQ(broken(), json::array());
    for (const int action : {1, 2, 3, 2, 5, 2}) {
        ASSERT_EQ(control("00A1", "01A1", action), 0) << action;
        EXPECT_EQ(broken(), json::array()) << action;
    }
}

// ---- write order ----

// Three writers that know nothing of each other go over eight devices again and again, each with a
// growing number of its own. At any one instant the numbers of one writer can only fall from device
// to device, and by one at most. A copy in which they do not is a copy of no instant.
class WriteOrderNeedsRoot : public test::NeedsRoot {
  protected:
    static constexpr int devices = 8, writers = 3, splits = 250;

    static std::string name(const char *kind, int i) { return kind + std::to_string(i); }
    static std::string path(const char *kind, int i) {
        return ArrayDaemon::node(std::string("/dev/qz/") + kind + std::to_string(i));
    }
    void build(ArrayDaemon *daemon) {
        const std::string symid = ArrayDaemon::symid;
        daemon->ask({{"command", "array create"}, {"symid", symid}});
        daemon->ask({{"command", "settings"}, {"rate", 0}});
        daemon->ask({{"command", "host add"},
                     {"name", "h"},
                     {"socket", "/tmp/h.sock"},
                     {"dev", ArrayDaemon::dev}});
        for (int i = 0; i < devices; ++i) {
            for (const bool bcv : {false, true}) {
                const std::string device = name(bcv ? "01A" : "00A", i);
                daemon->ask({{"command", "device create"},
                             {"symid", symid},
                             {"name", device},
                             {"size", ArrayDaemon::size},
                             {"bcv", bcv}});
                daemon->ask(
                    {{"command", "mask"},
                     {"symid", symid},
                     {"name", device},
                     {"host", "h"},
                     {"paths", {std::string("/dev/qz/") + (bcv ? "b" : "p") + std::to_string(i)}}});
            }
            daemon->ask({{"command", "pair"},
                         {"symid", symid},
                         {"primary", name("00A", i)},
                         {"bcv", name("01A", i)}});
        }
    }
    static void control_all(ArrayDaemon *daemon, int action) {
        json pairs = json::array();
        for (int i = 0; i < devices; ++i) pairs.push_back({name("00A", i), name("01A", i)});
        daemon->ask({{"command", "control"},
                     {"symid", ArrayDaemon::symid},
                     {"action", action},
                     {"pairs", pairs}});
    }
    static void write(int writer, const std::atomic<bool> *stop) {
        std::vector<lab::Fd> fds;
        for (int i = 0; i < devices; ++i) {
            fds.emplace_back(open(path("p", i).c_str(), O_WRONLY | O_DIRECT | O_CLOEXEC));
        }
        test::Block block;
        for (uint64_t number = 1; !*stop; ++number) {
            block.set_number(number);
            for (const lab::Fd &fd : fds) {
                if (pwrite(fd.get(), block.bytes, sizeof block.bytes, writer * 4096) != 4096)
                    return;
            }
        }
    }
    // Violations in the copy; *last gets the first writer's number.
    static int violations(uint64_t *last) {
        int found = 0;
        for (int writer = 0; writer < writers; ++writer) {
            const auto at = static_cast<uint64_t>(writer) * 4096;
            const uint64_t first = number_at(path("b", 0), at);
            uint64_t before = first;
            if (writer == 0) *last = first;
            for (int i = 1; i < devices; ++i) {
                const uint64_t now = number_at(path("b", i), at);
                found += now > before || now + 1 < first ? 1 : 0;
                before = now;
            }
        }
        return found;
    }
};

TEST_F(WriteOrderNeedsRoot, holds_across_eight_devices_in_250_splits_under_three_direct_writers) {
    test::RealStore store;
    ArrayDaemon daemon(store.path);
    ASSERT_TRUE(daemon.running());
    build(&daemon);
    std::atomic<bool> stop = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < writers; ++i) threads.emplace_back(write, i, &stop);
    int broken = 0, moved = 0;
    uint64_t last = 0;
    for (int i = 0; i < splits; ++i) {
        control_all(&daemon, 3);
        control_all(&daemon, 2);
        uint64_t seen = 0;
        broken += violations(&seen);
        moved += seen > last ? 1 : 0;
        last = seen;
    }
    stop = true;
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(broken, 0);
    // The writers were at work in between, or nothing was tried.
    EXPECT_GT(moved, splits / 2);
    printf("%d splits, %d violations, the first writer wrote %lu rounds\n", splits, broken,
           static_cast<unsigned long>(last));
    std::filesystem::remove("/tmp/h.sock");
}

}  // namespace
