// Whatever a name holds, every tool gets it as one argument, byte for byte, and nothing else is
// run.
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <set>
#include <sstream>

#include "method/command.h"
#include "method/device_information.h"
#include "method/freeze.h"
#include "tests/method/rebuild_fixture.h"

namespace {

constexpr char hostile[] = "x;touch /tmp/ran $(touch /tmp/ran) `touch /tmp/ran` 'q\"\\ *?\t\x01&|";

class HostileNames : public test::RebuildTest {
  protected:
    HostileNames() {
        for (const char *tool :
             {"/usr/sbin/qzdg", "/usr/sbin/qzdisk", "/usr/sbin/qzvol", tf::path::clone_tool,
              tf::path::clone_script, tf::path::device_information_tool}) {
            test::write_script(tool,
                               "printf '[%s]' \"${0##*/}\" \"$@\" >>/tmp/words\n"
                               "echo >>/tmp/words");
        }
    }
    ~HostileNames() override {
        EXPECT_FALSE(test::exists("/tmp/ran")) << "a name was run";
        unlink("/tmp/ran");
        unlink("/tmp/words");
        unlink(tf::path::clone_script);
    }

    // The tools that ran, a line each, every argument in brackets.
    static std::string words() { return test::read_file("/tmp/words"); }
    static std::string line(const test::Lines &arguments) {
        std::string text;
        for (const std::string &argument : arguments) text += "[" + argument + "]";
        return text + "\n";
    }
    hdef *new_hostile_volume() {
        hdef *object = new_volume(name.c_str(), name.c_str());
        add_record(object, test::symid, "00A1", "01A1", name.c_str());
        tf::put(object->pminfo_list->bcv_pdevname, name.c_str());
        return object;
    }

    const std::string name = hostile;
    const std::string pair = name + "," + name;
    char path[TF_VOLPATH_SIZE] = {};
    int32_t count = 0;
};

TEST_F(HostileNames, reach_the_clone_tool_and_the_site_script_whole) {
    hdef *object = new_hostile_volume();
    object->is_rebuilt = 1;
    tf::put(object->primary_host, name.c_str());
    tf::put(object->transfer_file, name.c_str());
    ASSERT_EQ(TimeFinder_volumes(object, path, &count), 0) << errmsg;
    const std::string clone = std::string(name + "_" + name).substr(0, 25) + "_clone";
    EXPECT_EQ(words(),
              line({"tqdgclone", "-g", name, "-n", name, "-d", pair, "-i", name, "-r", name}) +
                  line({"tqdgclone_script", "QzVM", name, clone, name}));
}

TEST_F(HostileNames, reach_the_clone_tool_of_the_same_process_whole) {
    hdef *object = new_hostile_volume();
    ASSERT_EQ(TimeFinder_volumes(object, path, &count), 0) << errmsg;
    EXPECT_EQ(words().substr(0, words().find('\n') + 1),
              line({"tqdgclone", "-g", name, "-n", name, "-d", pair, "-p", "DEFAULT"}));
}

TEST_F(HostileNames, reach_the_site_script_of_a_plain_device_whole) {
    hdef *object = new_device();
    prim_mir_info *pm = add_record(object, test::symid, "00A1", "01A1", "/dev/p0");
    tf::put(pm->bcv_raw_device, name.c_str());
    tf::put(pm->bcv_block_device, name.c_str());
    TimeFinder_volumes(object, path, &count);
    EXPECT_EQ(words(), line({"tqdgclone_script", "RAW", name, name}));
}

TEST_F(HostileNames, reach_the_import_and_the_start_of_volumes_whole) {
    hdef *object = new_hostile_volume();
    object->dgimport = 1;
    ASSERT_EQ(TimeFinder_volumes(object, path, &count), 0) << errmsg;
    const std::string clone = name.substr(0, 25) + "_clone";
    EXPECT_EQ(words(), line({"qzdg", "-C", "-n", clone, "import", name}) +
                           line({"qzvol", "-g", clone, "startall"}) +
                           line({"tqdgclone_script", "QzVM", name, clone, name}));
}

TEST_F(HostileNames, reach_the_clean_up_and_the_deport_whole) {
    hdef *object = new_hostile_volume();
    tf::put(object->clone_group, name.c_str());
    ASSERT_EQ(TimeFinder_thaw(object), 0) << errmsg;
    object->dgimport = 1;
    ASSERT_EQ(TimeFinder_thaw(object), 0) << errmsg;
    EXPECT_EQ(words(), line({"tqdgclone", "-g", name, "-n", name, "-c", name}) +
                           line({"qzdg", "list", name}) +
                           line({"qzdg", "-n", name, "deport", name}));
}

TEST_F(HostileNames, reach_the_deport_and_the_import_of_a_restore_whole) {
    hdef *object = new_hostile_volume();
    object->dgimport = 1;
    object->restore = 1;
    total_freeze_volumes = 1;
    ASSERT_EQ(TimeFinder_thaw_commit(object), 0) << errmsg;
    EXPECT_EQ(words(), line({"qzdg", "deport", name}) + line({"qzdg", "-C", "import", name}) +
                           line({"qzvol", "-g", name, "startall"}));
}

TEST_F(HostileNames, reach_the_clone_step_of_a_checkpoint_whole) {
    hdef *object = new_hostile_volume();
    tf::put(object->transfer_file, "/tmp/EMCTX a 'file'");
    char *text = nullptr;
    ASSERT_EQ(TimeFinder_ckpt(object, &text), 0) << errmsg;
    free(text);
    EXPECT_EQ(words(), line({"tqdgclone", "-g", name, "-n", name, "-d", pair, "-i",
                             "/tmp/EMCTX a 'file'", "-p", "DEFAULT"}));
}

TEST_F(HostileNames, reach_the_disk_tool_of_a_rebuild_whole) {
    const std::string disk = "c1 t'0;touch /tmp/ran";
    ASSERT_EQ(
        rebuild(imported_target() + known_pair("00A1", "01A1", ("/dev/rdsk/" + disk).c_str())), 0)
        << errmsg;
    EXPECT_EQ(words(), line({"qzdisk", "list", disk}) + line({"qzdisk", "online", disk}));
}

TEST_F(HostileNames, reach_the_device_information_tool_whole) {
    hdef *object = new_object(TF_OBJECT_RAW_DEVICE);
    tf::HeapOwner<device_info>(find_device(object, hostile)).reset();
    EXPECT_EQ(words(), line({"tqtpcinfo", "-f", "-p", name, "-o", "-"}));
}

TEST_F(HostileNames, of_the_temporary_folder_are_no_commands_either) {
    const std::string folder = "/tmp/'; touch ran; '$(touch ran)";
    test::make_folders(folder);
    setenv("TMPDIR", folder.c_str(), 1);
    hdef *object = new_object(TF_OBJECT_RAW_DEVICE);
    unsetenv("TMPDIR");
    ASSERT_TRUE(std::string(object->out_file).starts_with(folder)) << object->out_file;
    EXPECT_EQ(do_cmd(object, "echo out"), 0);
    EXPECT_EQ(test::read_file(object->out_file), "out\n");
    EXPECT_FALSE(test::exists("ran"));
    remove_files(object);
    rmdir(folder.c_str());
}

TEST_F(HostileNames, without_memory_for_the_quotes_nothing_is_run) {
    hdef *object = new_hostile_volume();
    tf::put(object->clone_group, name.c_str());
    test::fail_allocation(1);
    EXPECT_EQ(TimeFinder_thaw(object), 11);
    test::no_more_faults();
    EXPECT_EQ(words(), "");
    EXPECT_TRUE(logged("do_cmd: Out of available memory"));
    expect_failure(11,
                   "TimeFinder_thaw: Unable to clean up disk group " + name + ", volume " + name);
}

// Every command of an operation, with every allocation of it failing in turn: a command is run with
// all its names whole, or not at all.
class HostileNamesWithoutMemory : public HostileNames {
  protected:
    ~HostileNamesWithoutMemory() override { g_plexname = plex_before_; }

    using Prepare = std::function<void(hdef *)>;
    using Operation = std::function<int32_t(hdef *)>;

    // also: a command that stands in for one that could not be run.
    void expect_whole_names(const Prepare &prepare, const Operation &operation,
                            const std::string &also = "") {
        ASSERT_EQ(run(prepare, operation, 0), 0) << errmsg;
        const int allocations = allocations_;
        std::set<std::string> whole = lines();
        ASSERT_FALSE(whole.empty());
        whole.insert(also);
        int refused = 0;
        for (int n = 1; n <= allocations; ++n) {
            if (run(prepare, operation, n) != 0) ++refused;
            for (const std::string &ran : lines()) {
                EXPECT_TRUE(whole.contains(ran)) << "allocation " << n << ": " << ran;
            }
        }
        EXPECT_GT(refused, 0);
    }

  private:
    // The operation on an object of its own, with the n-th allocation failing (0: none).
    int32_t run(const Prepare &prepare, const Operation &operation, int n) {
        unlink("/tmp/words");
        hdef *object = new_hostile_volume();
        prepare(object);
        thaw_commit_vols = 0;
        total_freeze_volumes = 1;
        n == 0 ? test::no_more_faults() : test::fail_allocation(n);
        const int32_t status = operation(object);
        allocations_ = test::allocations_seen();
        test::no_more_faults();
        remove_files(object);
        tf::dg_remove(object);
        return status;
    }
    static std::set<std::string> lines() {
        std::set<std::string> found;
        std::istringstream in(words());
        for (std::string one; std::getline(in, one);) found.insert(one);
        return found;
    }

    char *const plex_before_ = g_plexname;
    int allocations_ = 0;

  protected:
    char plex[8] = "p;ran 1";
};

TEST_F(HostileNamesWithoutMemory, the_clone_tool_gets_whole_names_after_a_rebuild) {
    expect_whole_names(
        [this](hdef *object) {
            object->is_rebuilt = 1;
            tf::put(object->primary_host, name.c_str());
            tf::put(object->transfer_file, "/tmp/EMCTX 'a file'");
        },
        [this](hdef *object) { return TimeFinder_volumes(object, path, &count); });
}

TEST_F(HostileNamesWithoutMemory, the_clone_tool_gets_whole_names_in_the_same_process) {
    g_plexname = plex;
    expect_whole_names([](hdef *) {},
                       [this](hdef *object) { return TimeFinder_volumes(object, path, &count); });
}

TEST_F(HostileNamesWithoutMemory, the_import_and_the_start_of_volumes_get_whole_names) {
    expect_whole_names([](hdef *object) { object->dgimport = 1; },
                       [this](hdef *object) { return TimeFinder_volumes(object, path, &count); });
}

TEST_F(HostileNamesWithoutMemory, the_site_script_of_a_plain_device_gets_whole_names) {
    test::make_folders("/tmp/a b");
    expect_whole_names(
        [](hdef *object) {
            object->is_vol = 0;
            tf::put(object->pminfo_list->bcv_raw_device, "/tmp/a b");
            tf::put(object->pminfo_list->bcv_block_device, "/tmp/a b");
        },
        [this](hdef *object) { return TimeFinder_volumes(object, path, &count); });
    rmdir("/tmp/a b");
}

TEST_F(HostileNamesWithoutMemory, the_clean_up_gets_whole_names) {
    expect_whole_names([this](hdef *object) { tf::put(object->clone_group, name.c_str()); },
                       [](hdef *object) { return TimeFinder_thaw(object); });
}

TEST_F(HostileNamesWithoutMemory, the_deport_gets_whole_names) {
    expect_whole_names(
        [this](hdef *object) {
            object->dgimport = 1;
            tf::put(object->clone_group, name.c_str());
        },
        [](hdef *object) { return TimeFinder_thaw(object); });
}

TEST_F(HostileNamesWithoutMemory, a_restore_gives_whole_names) {
    expect_whole_names([](hdef *object) { object->dgimport = object->restore = 1; },
                       [](hdef *object) { return TimeFinder_thaw_commit(object); });
}

TEST_F(HostileNamesWithoutMemory, the_clone_step_of_a_checkpoint_gets_whole_names) {
    g_plexname = plex;
    expect_whole_names([](hdef *object) { tf::put(object->transfer_file, "/tmp/EMCTX 'a file'"); },
                       [](hdef *object) {
                           tf::HeapOwner<char> text;
                           return TimeFinder_ckpt(object, text.out());
                       });
}

TEST_F(HostileNamesWithoutMemory, the_device_information_tool_gets_a_whole_name) {
    test::write_script(tf::path::device_information_tool,
                       "printf '[%s]' \"${0##*/}\" \"$@\" >>/tmp/words; echo >>/tmp/words\n"
                       "echo EMC p=/dev/x s=SN0001");
    expect_whole_names([](hdef *) {},
                       [](hdef *object) {
                           const tf::HeapOwner<device_info> info(find_device(object, hostile));
                           return info ? 0 : 11;
                       });
}

TEST_F(HostileNamesWithoutMemory, the_disk_tool_of_a_rebuild_gets_a_whole_name) {
    const std::string disk = "c1 t'0;touch /tmp/ran";
    const std::string text =
        imported_target() + known_pair("00A1", "01A1", ("/dev/rdsk/" + disk).c_str());
    const auto operation = [&](hdef *) { return rebuild(text); };
    expect_whole_names([](hdef *) {}, operation, "[qzdisk][define][" + disk + "]");
    test::write_script("/usr/sbin/qzdisk",
                       "printf '[%s]' \"${0##*/}\" \"$@\" >>/tmp/words; echo >>/tmp/words\n"
                       "[ \"$1\" != list ]");
    expect_whole_names([](hdef *) {}, operation);
}

TEST_F(HostileNames, without_memory_for_the_quotes_of_a_capture_file_nothing_is_run) {
    setenv("TMPDIR", "/tmp/a b", 1);
    test::make_folders("/tmp/a b");
    hdef *object = new_object(TF_OBJECT_RAW_DEVICE);
    unsetenv("TMPDIR");
    for (const int file : {1, 2}) {
        errnum = 0;
        test::fail_allocation(file);
        EXPECT_EQ(do_cmd(object, "touch /tmp/ran"), 11);
        test::no_more_faults();
        expect_failure(3, "do_cmd: Out of available memory");
    }
    remove_files(object);
    rmdir("/tmp/a b");
}

TEST_F(HostileNames, without_memory_for_the_quotes_of_the_second_capture_file_nothing_is_run) {
    setenv("TMPDIR", "/tmp/a b", 1);
    test::make_folders("/tmp/a b");
    hdef *object = new_object(TF_OBJECT_RAW_DEVICE);
    unsetenv("TMPDIR");
    test::fail_allocation(2);
    EXPECT_EQ(do_cmd(object, "touch /tmp/ran"), 11);
    test::no_more_faults();
    expect_failure(3, "do_cmd: Out of available memory");
    remove_files(object);
    rmdir("/tmp/a b");
}

TEST_F(HostileNames, without_memory_for_the_quotes_of_any_name_nothing_is_run) {
    hdef *object = new_object(TF_OBJECT_RAW_DEVICE);
    for (int n = 1; n <= 2; ++n) {
        test::fail_allocation(n);
        EXPECT_EQ(tf::run_tool(object, "touch /tmp/ran; %s %s %s", "echo", hostile, hostile), 11);
        test::no_more_faults();
        expect_failure(3, "do_cmd: Out of available memory");
    }
}

}  // namespace
