// A volume of a disk group. The volume manager and the clone tool are scripts that note how they
// are called and do the little that the method sees of them; array, locks, file system and data are
// real.
#include <fstream>
#include <iterator>
#include <regex>

#include "tests/support/world.h"

namespace test {
namespace {

class VolumeInTheLab : public World {
  protected:
    void SetUp() override;
    // What a phase ran, in its order; the names of temporary files are made equal.
    static Words commands(const Phase &phase);
    std::string saved(const std::string &name) const {
        std::ifstream in(exchange() / name, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    void mount_volume() {
        host(
            "mkfs.ext4 -q /dev/qz/dsk/datadg/vol1 && mkdir /data &&"
            " mount /dev/qz/dsk/datadg/vol1 /data && echo before >/data/file && sync");
    }
};

// The volume is the standard device of the demo under the volume manager's name.
void VolumeInTheLab::SetUp() {
    World::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    host(
        "cat >/usr/quill/tessera/bin/tqdgclone <<'END'\n"
        "#!/bin/sh\n"
        "while getopts g:n:f:p:d:i:r:c: option; do\n"
        "  case $option in\n"
        "    f) echo /dev/qz/rdmp/p0 >$OPTARG ;;\n"
        "    i) info=$OPTARG ;;\n"
        "    r) cp $info /exchange/info; exit 0 ;;\n"
        "  esac\n"
        "done\n"
        "[ -z \"$info\" ] || printf 'disk one\\ndisk two\\n' >$info\n"
        "END\n"
        "chmod 755 /usr/quill/tessera/bin/tqdgclone\n"
        "for name in qzdg qzvol qzdctl qzdisk; do ln -s /bin/true /usr/sbin/$name; done\n"
        "mkdir -p /dev/qz/dsk/datadg /dev/qz/rdsk/datadg\n"
        "for kind in dsk rdsk; do\n"
        "  mknod /dev/qz/$kind/datadg/vol1 b $(stat -c '0x%t 0x%T' /dev/qz/dmp/p0)\n"
        "done\n");
}

Words VolumeInTheLab::commands(const Phase &phase) {
    static const std::regex temporary("/tmp/(QfMS|EMCT[XF])[A-Za-z0-9]{6}");
    const std::string begin = "Executing command: ",
                      end = " </dev/null >/tmp/QfMS?????? 2>/tmp/QfMS??????";
    Words lines;
    for (const Call &call : phase.calls) {
        for (const std::string &line : call.log) {
            if (line.compare(0, begin.size(), begin) != 0) continue;
            std::string fixed = std::regex_replace(line, temporary, "/tmp/$1??????");
            EXPECT_TRUE(fixed.ends_with(end)) << fixed;
            fixed.resize(fixed.size() - std::min(fixed.size(), end.size()));
            lines.push_back(fixed.substr(begin.size()));
        }
    }
    return lines;
}

TEST_F(VolumeInTheLab, is_cloned_by_the_given_commands_needs_root) {
    const Phase frozen = phase({"freeze", "-", "/dev/qz/dsk/datadg/vol1", "/copy", "ctl", "4",
                                "commit", "ckpt", "/exchange/text"},
                               1);
    for (const Call &call : frozen.calls) expect_success(call);
    EXPECT_EQ(
        commands(frozen),
        (Words{"/usr/quill/tessera/bin/tqdgclone -g datadg -n vol1 -f /tmp/EMCTF?????? -p DEFAULT",
               "/usr/quill/tessera/bin/tqtpcinfo -f -p /dev/qz/rdmp/p0 -o -",
               "/usr/quill/tessera/bin/tqdgclone -g datadg -n vol1 -d /dev/qz/rdmp/p0,/dev/sdq"
               " -i /tmp/EMCTX?????? -p DEFAULT"}));
    // The carrier puts the lines of the transfer file into the block of the text.
    host(
        "cd /exchange && file=$(sed -n 's/^TRANSFER_FILE=//p' text) &&"
        " sed \"/^TRANSFER_FILE=/r $file\" text >text2");
    const Phase up = phase({"rebuild", "/exchange/text2", "volumes", "thaw", "thaw_commit"}, 1);
    for (const Call &call : up.calls) expect_success(call);
    EXPECT_EQ(
        commands(up),
        (Words{"/usr/quill/tessera/bin/tqtpcinfo -f -p /dev/qz/rdmp/p0 -o -",
               "/usr/quill/tessera/bin/tqdgclone -g datadg -n vol1 -d /dev/qz/rdmp/p0,/dev/sdq"
               " -i /tmp/EMCTX?????? -r client1",
               "/usr/quill/tessera/bin/tqdgclone -g datadg -n vol1 -c client1_datadg_clone"}));
    EXPECT_EQ(up.at("volumes").volpath, "/dev/qz/dsk/client1_datadg_clone/vol1");
    EXPECT_EQ(up.at("volumes").nvols, 1);
    EXPECT_EQ(saved("info"), "disk one\ndisk two\n");
    EXPECT_EQ(counter_files() + host("ls -A /tmp"), "");
}

TEST_F(VolumeInTheLab, checkpoint_is_the_given_text_to_the_byte_needs_root) {
    mount_volume();
    const Phase frozen = phase({"freeze", "keep_fi=1,plexname=data", "/data", "/copy", "ctl", "4",
                                "commit", "ckpt", "/exchange/text", "rollback"},
                               1);
    for (const Call &call : frozen.calls) expect_success(call);
    const std::string text =
        std::regex_replace(saved("text"), std::regex("EMCTX[A-Za-z0-9]{6}"), "EMCTX??????");
    EXPECT_EQ(text,
              "HDEF-sync_at_start=0\nHDEF-async_resync=0\nHDEF-is_vol=1\nHDEF-is_mount=0\n"
              "HDEF-object_type=3\nHDEF-mount_point=/copy\nHDEF-vol_group=datadg\n"
              "HDEF-vol_name=vol1\nHDEF-clone_group=\nHDEF-primary_host=client1\nHDEF-fstype=ext4\n"
              "HDEF-keep_fi=0\nHDEF-dgimport=0\nHDEF-fs_path=/data\n"
              "HDEF-dev_raw_device=/dev/qz/rdsk/datadg/vol1\n"
              "HDEF-dev_block_device=/dev/qz/dsk/datadg/vol1\n"
              "HDEF-CLONE_INFO_FILE=START\nTRANSFER_FILE=/tmp/EMCTX??????\n"
              "HDEF-CLONE_INFO_FILE=END\nPRIM_MIR_INFO=START\nPMINFO-symid=000184500123\n"
              "PMINFO-dev_sym_devname=00A1\nPMINFO-dev_raw_device=/dev/qz/rdmp/p0\n"
              "PMINFO-p_dev_raw_device=/dev/qz/rdmp/p0\nPMINFO-bcv_raw_device=/dev/sdq\n"
              "PMINFO-bcvdev_sym_devname=01A1\nPMINFO-issplit=0\nPMINFO-sync_at_end=1\n"
              "PMINFO-lock_set=1\nPRIM_MIR_INFO=NEXT\nPRIM_MIR_INFO=END\n");
    EXPECT_EQ(commands(frozen).front(),
              "/usr/quill/tessera/bin/tqdgclone -g datadg -n vol1 -f /tmp/EMCTF?????? -p data");
    EXPECT_EQ(counter_files() + host("ls -A /tmp"), "");
}

// The data of the primary are the copy's again, and its file system is mounted where it was.
TEST_F(VolumeInTheLab, with_a_group_to_import_is_restored_from_its_mirror_needs_root) {
    mount_volume();
    host("echo dgimport=1 >/usr/quill/tessera/tq.conf");
    const Phase frozen = phase({"freeze", "alternate_backup_client=elsewhere", "/data", "/data",
                                "ctl", "4", "commit", "ckpt", "/exchange/text"},
                               1);
    for (const Call &call : frozen.calls) expect_success(call);
    EXPECT_EQ(commands(frozen).front(),
              "/usr/quill/tessera/bin/tqdgclone -g datadg -f /tmp/EMCTF?????? -p DEFAULT");
    host(
        "echo after >/data/file; echo later >/data/new; sync;"
        " sed -i '1i HDEF-restore=1' /exchange/text");
    const Phase back = phase({"rebuild", "/exchange/text", "thaw", "thaw_commit"}, 1);
    for (const Call &call : back.calls) expect_success(call);
    EXPECT_EQ(commands(back),
              (Words{"/usr/quill/tessera/bin/tqtpcinfo -f -p /dev/qz/rdmp/p0 -o -",
                     "/usr/sbin/qzdg deport datadg", "/usr/sbin/qzdg -C import datadg",
                     "/usr/sbin/qzvol -g datadg startall"}));
    for (const char *line : {"Restoring from mirror", "Total BCVs to resync : 1",
                             "Resync started ...", "Resync end"}) {
        EXPECT_TRUE(back.at("thaw_commit").logged(line)) << line;
    }
    EXPECT_EQ(host("grep ' /data ' /proc/self/mounts | cut -d' ' -f1,3"),
              "/dev/qz/dsk/datadg/vol1 ext4\n");
    EXPECT_EQ(host("ls -I lost+found /data; cat /data/file"), "file\nbefore\n");
    EXPECT_EQ(counter_files() + host("ls -A /tmp"), "");
    EXPECT_EQ(pair_state(), 8);
}

}  // namespace
}  // namespace test
