// A host with one file system on one device, and an array that mirrors it: what a freeze finds when
// all is well. Tests change what they are about.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "method/capture.h"
#include "method/freeze.h"
#include "method/interface.h"
#include "method/records.h"
#include "symapi/symapi_session.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/fake_array.h"
#include "tests/support/fake_host.h"
#include "tests/support/method_fixture.h"
#include "tests/support/private_root.h"
#include "tests/support/sleeps.h"

namespace test {

inline constexpr char array_id[] = "000184500123";
inline constexpr char raw_disk[] = "/dev/qz/rdmp/disk_0";
inline constexpr char block_disk[] = "/dev/qz/dmp/disk_0";
inline constexpr char clone_tool[] = "/usr/quill/tessera/bin/tqdgclone";

class FreezeTest : public Method {
  protected:
    FreezeTest() {
        resolve_symapi = 1;  // the array library is up already
        make_folders("/usr/quill/tessera/online_util/fi_cntl");
        make_folders("/usr/quill/tessera/online_util/db_cntl");
        write_script("/usr/quill/tessera/bin/tqtpcinfo",
                     "echo \"EMC SYMMETRIX p=$3 s=0001845001230001\"");
        make_folders("/data");
        mount_device(block_disk);
        write_file(raw_disk, "");
        write_file(block_disk, "");
        add_pair("0001", raw_disk);
    }
    ~FreezeTest() override {
        no_more_faults();
        for (const dg_entry *group = DG_LIST; group != nullptr; group = group->next) {
            for (const dg_member *m = group->members; m != nullptr; m = m->next) {
                if (m->h->out_file != nullptr) unlink(m->h->out_file);
                if (m->h->err_file != nullptr) unlink(m->h->err_file);
            }
        }
    }

    // What is mounted where the source lies.
    static void mount_device(const std::string &device) {
        write_mount_table(device + " / ext4 rw 0 0\n");
    }
    // A primary on the array under a host path, with a BCV ("01" and its last digits) in a state.
    FakeDevice &add_pair(const std::string &name, const std::string &path, long state = 2) {
        FakeDevice &bcv = array.add_bcv(array_id, "01" + name.substr(2), "/dev/sdq");
        FakeDevice &primary = array.add_primary(array_id, name, path);
        array.pair(primary, bcv, state);
        return primary;
    }
    // A clone tool that remembers its arguments and answers with this text.
    static void clone_tool_answers(const std::string &text) {
        write_file("/tool/answer", text);
        write_script(clone_tool,
                     "echo \"$@\" >>/tool/arguments\n"
                     "while [ $# -gt 1 ]; do [ \"$1\" = -f ] && cp /tool/answer \"$2\"; shift; "
                     "done; exit 0");
    }
    // The arguments of every run, with the output file's name replaced by FILE.
    static std::string clone_tool_runs() {
        std::string text = read_file("/tool/arguments");
        for (size_t at = text.find("-f "); at != std::string::npos; at = text.find("-f ", at + 1)) {
            const size_t end = text.find(' ', at + 3);
            text.replace(at + 3, end - at - 3, "FILE");
        }
        return text;
    }
    static void make_node(const std::string &path, mode_t type) {
        make_folders(path.substr(0, path.rfind('/')));
        unlink(path.c_str());
        ASSERT_EQ(mknod(path.c_str(), type | 0600, type == S_IFCHR ? makedev(1, 3) : 0), 0);
    }

    int32_t freeze(const char *config = nullptr, const char *source = "/data",
                   int32_t flag = TF_FREEZE_WAIT) {
        return TimeFinder_freeze(config, source, "/mnt/fifs", nullptr, &nvols, flag, &handle);
    }
    // What the common failure exit leaves: no handle, no list entry, no files, and the message once
    // more in the log.
    void expect_given_up(int32_t number, const std::string &text) {
        expect_failure(number, text);
        EXPECT_EQ(times_logged(text), 2) << whole_log();
        EXPECT_EQ(log_lines().empty() ? "" : log_lines().back(), text);
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(DG_LIST, nullptr);
        EXPECT_TRUE(files_left_in_tmp().empty());
    }
    static std::vector<std::string> raw_devices(const hdef *h) {
        std::vector<std::string> names;
        for (const prim_mir_info *pm = h->pminfo_list; pm != nullptr; pm = pm->next) {
            names.emplace_back(pm->dev_raw_device);
        }
        return names;
    }

    FakeArray array;
    int32_t nvols = 99;
    // Something that a freeze which does not touch the handle leaves alone.
    hdef *const untouched = reinterpret_cast<hdef *>(&nvols);
    hdef *handle = untouched;
};

}  // namespace test
