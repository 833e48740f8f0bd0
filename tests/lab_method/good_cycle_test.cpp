// One snapshot through the entry points alone, each part of it in a process of its own: everything
// that leaves the method is compared to the byte, after every phase.
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>

#include "tests/support/world.h"

namespace test {
namespace {

constexpr char counter_file[] =
    "/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_0001845001230000";

// The names of temporary files differ from run to run.
std::string with_fixed_names(const std::string &line) {
    static const std::regex capture("/tmp/QfMS[A-Za-z0-9]{6}");
    return std::regex_replace(line, capture, "/tmp/QfMS??????");
}

Words with_fixed_names(const Words &lines) {
    Words fixed;
    for (const std::string &line : lines) fixed.push_back(with_fixed_names(line));
    return fixed;
}

std::string read_file(const std::filesystem::path &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// What a counter file holds: three integers of the machine's byte order.
std::string counter_bytes(int32_t pid, int32_t count, int32_t is_split) {
    const int32_t fields[] = {pid, count, is_split};
    std::string bytes(sizeof fields, '\0');
    memcpy(bytes.data(), fields, sizeof fields);
    return bytes;
}

// The text of the demo's device, frozen from /data for /copy; its nodes belong to 11:12 and 13:14.
std::string checkpoint_text(const std::string &type, int is_mount) {
    return "HDEF-sync_at_start=0\n"
           "HDEF-async_resync=0\n"
           "HDEF-is_vol=0\n"
           "HDEF-is_mount=" +
           std::to_string(is_mount) +
           "\n"
           "HDEF-object_type=3\n"
           "HDEF-mount_point=/copy\n"
           "HDEF-vol_group=__NOT_VOL__GRP__\n"
           "HDEF-vol_name=\n"
           "HDEF-clone_group=\n"
           "HDEF-primary_host=client1\n"
           "HDEF-fstype=" +
           type +
           "\n"
           "HDEF-keep_fi=0\n"
           "HDEF-dgimport=0\n"
           "HDEF-fs_path=/data\n"
           "HDEF-dev_raw_device=/dev/qz/rdmp/p0\n"
           "HDEF-dev_block_device=/dev/qz/dmp/p0\n"
           "PRIM_MIR_INFO=START\n"
           "PMINFO-dev_raw_uid=11\n"
           "PMINFO-dev_raw_gid=12\n"
           "PMINFO-dev_blk_uid=13\n"
           "PMINFO-dev_blk_gid=14\n"
           "PMINFO-symid=000184500123\n"
           "PMINFO-dev_sym_devname=00A1\n"
           "PMINFO-dev_raw_device=/dev/qz/rdmp/p0\n"
           "PMINFO-p_dev_raw_device=/dev/qz/rdmp/p0\n"
           "PMINFO-bcv_raw_device=/dev/sdq\n"
           "PMINFO-bcvdev_sym_devname=01A1\n"
           "PMINFO-issplit=0\n"
           "PMINFO-sync_at_end=1\n"
           "PMINFO-lock_set=1\n"
           "PRIM_MIR_INFO=NEXT\n"
           "PRIM_MIR_INFO=END\n";
}

class SnapshotInTheLab : public World {
  protected:
    std::string saved(const std::string &name) const { return read_file(exchange() / name); }
    // A step that saves the counter file and the number of the process that runs the steps.
    static std::string save_counter(const std::string &name) {
        return std::string("cp ") + counter_file + " /exchange/" + name +
               " && echo $PPID >/exchange/" + name + ".pid";
    }
    void expect_locked_once(const std::string &name) const {
        EXPECT_EQ(saved(name), counter_bytes(atoi(saved(name + ".pid").c_str()), 1, 1)) << name;
    }
    static std::string save_state(const std::string &name) {
        return "tfarray show --json >/exchange/" + name;
    }
    int saved_state(const std::string &name) const;

    void freeze();
    void bring_up();
    void release();
    void take(const std::string &type);
};

int SnapshotInTheLab::saved_state(const std::string &name) const {
    const std::string text = saved(name);
    std::smatch found;
    return std::regex_search(text, found, std::regex("\"state\": ?([0-9]+)")) ? stoi(found[1]) : -1;
}

void SnapshotInTheLab::freeze() {
    const Phase frozen =
        phase({"freeze", "-", "/data", "/copy", "run", save_counter("frozen"), "run",
               save_state("frozen.json"), "ctl", "4", "run", save_state("joined.json"), "commit",
               "run", save_counter("committed"), "ckpt", "/exchange/text"},
              1);
    for (const Call &call : frozen.calls) expect_success(call);
    expect_locked_once("frozen");
    expect_locked_once("committed");
    EXPECT_EQ(saved_state("frozen.json"), 5);
    EXPECT_EQ(saved_state("joined.json"), 2);
    EXPECT_EQ(pair_state(), 5);
    EXPECT_EQ(
        with_fixed_names(frozen.at("freeze").log),
        (Words{"TimeFinder FIM $Revision$", "pQfMS FIM config string parser $Revision$",
               "emc_tf__SymLink: emc_tf_SymVersion = 500 (>=0x0500)",
               "Executing command: /usr/quill/tessera/bin/tqtpcinfo -f -p /dev/qz/rdmp/p0 -o -"
               " </dev/null >/tmp/QfMS?????? 2>/tmp/QfMS??????"}));
    EXPECT_EQ(frozen.at("ctl").log,
              (Words{"Total BCVs to resync at start : 1", "resync started ...", "resync end"}));
    EXPECT_EQ(frozen.at("commit").log,
              (Words{"Adding <00A1, 01A1> to split list", "Total BCVs to split : 1",
                     "Split started ...", "Split end"}));
    EXPECT_EQ(frozen.at("ckpt").log, Words());
    EXPECT_EQ(host("ls -A /tmp"), "");
}

void SnapshotInTheLab::bring_up() {
    const Phase up = phase({"rebuild", "/exchange/text", "run", save_counter("rebuilt"), "volumes",
                            "ckpt", "/exchange/text2"},
                           1);
    for (const Call &call : up.calls) expect_success(call);
    expect_locked_once("rebuilt");
    EXPECT_EQ(with_fixed_names(up.at("rebuild").log).back(),
              "Executing command: /usr/quill/tessera/bin/tqtpcinfo -f -p /dev/qz/rdmp/p0 -o -"
              " </dev/null >/tmp/QfMS?????? 2>/tmp/QfMS??????");
    EXPECT_EQ(up.at("volumes").log, Words());
    EXPECT_EQ(up.at("volumes").volpath, "/dev/sdq");
    EXPECT_EQ(up.at("volumes").nvols, 0);
    EXPECT_EQ(host("stat -c %u:%g /dev/sdq"), "13:14\n");
    EXPECT_EQ(pair_state(), 5);
    EXPECT_EQ(host("ls -A /tmp"), "");
}

void SnapshotInTheLab::release() {
    const Phase gone = phase({"rebuild", "/exchange/text2", "thaw", "thaw_commit"}, 1);
    for (const Call &call : gone.calls) expect_success(call);
    EXPECT_EQ(gone.at("thaw").log, Words());
    EXPECT_EQ(gone.at("thaw_commit").log,
              (Words{"Adding <00A1, 01A1> to resync list", "Total BCVs to resync : 1",
                     "Resync started ...", "Resync end"}));
}

void SnapshotInTheLab::take(const std::string &type) {
    mount_source(type);
    host("chown 11:12 /dev/qz/rdmp/p0 && chown 13:14 /dev/qz/dmp/p0");
    const std::string before = picture();
    freeze();
    EXPECT_EQ(saved("text"), checkpoint_text(type, 0));
    host("echo after >/data/file; echo later >/data/new; sync");
    bring_up();
    EXPECT_EQ(saved("text2"), checkpoint_text(type, 1));
    EXPECT_EQ(host("grep ' /copy ' /proc/self/mounts | cut -d' ' -f1,3"),
              "/dev/sdq " + type + "\n");
    EXPECT_EQ(host("ls -I lost+found /copy; cat /copy/file"), "file\nbefore\n");
    release();
    array("clock advance 60");
    EXPECT_EQ(pair_state(), 2);
    array("split 000184500123 00A1 01A1");
    EXPECT_EQ(picture(), before);
    EXPECT_EQ(host("cat /data/file /data/new"), "after\nlater\n");
}

TEST_F(SnapshotInTheLab, of_ext4_is_the_same_to_the_byte_in_every_phase_needs_root) {
    take("ext4");
}

TEST_F(SnapshotInTheLab, of_xfs_is_the_same_to_the_byte_in_every_phase_needs_root) {
    take("xfs");
}

TEST_F(SnapshotInTheLab, counts_two_objects_of_one_process_and_ends_with_the_last_needs_root) {
    mount_source();
    const Phase both = phase({"freeze",
                              "-",
                              "/data",
                              "/copy",
                              "freeze",
                              "-",
                              "/dev/qz/dmp/p0",
                              "/copy",
                              "run",
                              save_counter("two"),
                              "ctl",
                              "4",
                              "commit",
                              "run",
                              save_state("split.json"),
                              "thaw",
                              "thaw_commit",
                              "run",
                              save_state("first.json"),
                              "thaw",
                              "thaw_commit"});
    for (const Call &call : both.calls) expect_success(call);
    EXPECT_EQ(saved("two"), counter_bytes(atoi(saved("two.pid").c_str()), 2, 1));
    EXPECT_EQ(saved_state("split.json"), 5);
    EXPECT_EQ(saved_state("first.json"), 5);
    EXPECT_EQ(both.at("thaw_commit", 0).log, Words());
    array("clock advance 60");
    EXPECT_EQ(pair_state(), 2);
    EXPECT_EQ(counter_files(), "");
}

// Every host thaws with its own text; only the primary commits the thaw. The copy is reached
// through the name that it has over there, and no lock is taken for it.
TEST_F(SnapshotInTheLab, is_read_on_another_host_and_released_on_the_first_needs_root) {
    mount_source();
    start_host("backup1");
    array("mask 000184500123 01A1 backup1 /dev/sdz");
    for (const Call &call :
         phase({"freeze", "-", "/data", "/copy", "ctl", "4", "commit", "ckpt", "/exchange/text"})
             .calls) {
        expect_success(call);
    }
    host("echo after >/data/file; sync; sed '1i HDEF-is_tgt=1' /exchange/text >/exchange/there");
    on("backup1");
    const std::string before = host("cat /proc/self/mounts; ls -A /tmp");
    host("mkdir /copy");
    const Phase there = phase({"rebuild", "/exchange/there", "volumes", "run",
                               "cp /copy/file /exchange/read", "ckpt", "/exchange/there2"});
    for (const Call &call : there.calls) expect_success(call);
    EXPECT_FALSE(there.at("rebuild").logged_part("Executing command"));
    EXPECT_TRUE(there.at("rebuild").logged("TimeFinder_rebuild: BCV <--> SYMID: /dev/sdz : 01A1"));
    EXPECT_EQ(there.at("volumes").volpath, "/dev/sdz");
    EXPECT_EQ(saved("read"), "before\n");
    EXPECT_EQ(counter_files(), "");
    host("sed -i '1i HDEF-is_tgt=1' /exchange/there2");
    const Phase gone = phase({"rebuild", "/exchange/there2", "thaw"});
    for (const Call &call : gone.calls) expect_success(call);
    EXPECT_EQ(host("cat /proc/self/mounts; ls -A /tmp"), before);
    EXPECT_EQ(pair_state(), 5);
    on("client1");
    const Phase released = phase({"rebuild", "/exchange/text", "rollback"});
    for (const Call &call : released.calls) expect_success(call);
    array("clock advance 60");
    EXPECT_EQ(pair_state(), 2);
    EXPECT_EQ(counter_files() + host("ls -A /tmp"), "");
}

}  // namespace
}  // namespace test
