#include "tests/fimctl/restore_world.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <set>

#include "fimctl/restore/host_view.h"
#include "tests/fimctl/fake_method/script.h"
#include "tests/support/private_root.h"

namespace test {
namespace {

constexpr char group_tool[] = R"(
echo "$$ qzdg $*" >>/var/fake/calls
case "$*" in
"list "*) grep -qx "$2" /var/fake/imported ;;
"-C import "*)
    if [ -e /var/fake/no-import ]; then echo "qzdg: $3: a disk is missing" >&2; exit 1; fi
    grep -qx "$3" /var/fake/imported || echo "$3" >>/var/fake/imported ;;
"deport "*)
    grep -qx "$2" /var/fake/imported || { echo "qzdg: $2: not imported" >&2; exit 1; }
    for node in /dev/qz/dsk/$2/*; do
        grep -q " $(stat -c %Hr:%Lr $node) " /proc/self/mountinfo || continue
        echo "qzdg: $2: volume $node is in use" >&2; exit 1
    done
    rm -f /dev/qz/dsk/$2/*
    grep -vx "$2" /var/fake/imported >/var/fake/imported.new
    mv /var/fake/imported.new /var/fake/imported ;;
*) exit 2 ;;
esac
)";
constexpr char volume_tool[] = R"(
echo "$$ qzvol $*" >>/var/fake/calls
[ "$1 $3" = "-g startall" ] || exit 2
mkdir -p /dev/qz/dsk/$2
while read -r group name major minor; do
    [ "$group" != "$2" ] || [ -e /dev/qz/dsk/$2/$name ] || mknod /dev/qz/dsk/$2/$name b $major $minor
done </var/fake/nodes
)";

std::string text_of(const Volume &volume, const std::string &fifs, const std::string &source,
                    bool with_pairs) {
    std::string text =
        "HDEF-is_vol=1\nHDEF-is_mount=0\nHDEF-object_type=" + std::to_string(volume.type) +
        "\nHDEF-mount_point=" + fifs + "\nHDEF-vol_group=" + volume.group +
        "\nHDEF-vol_name=" + volume.name +
        "\nHDEF-clone_group=\nHDEF-primary_host=client1\nHDEF-fstype=" +
        (volume.type == 3 ? volume.fstype : "") + "\nHDEF-dgimport=1\nHDEF-fs_path=" + source +
        "\nHDEF-dev_block_device=" + volume.block() + "\nPRIM_MIR_INFO=START\n";
    if (with_pairs) {
        text += "PMINFO-symid=" + volume.symid + "\nPMINFO-dev_sym_devname=" + volume.device +
                "\nPMINFO-dev_raw_device=/dev/qz/rdmp/" + volume.device +
                "\nPMINFO-bcv_raw_device=/dev/sdX\nPMINFO-bcvdev_sym_devname=" + volume.bcv +
                "\nPMINFO-issplit=0\nPMINFO-sync_at_end=1\nPMINFO-lock_set=1\n"
                "PRIM_MIR_INFO=NEXT\n";
    }
    return text + "PRIM_MIR_INFO=END\n";
}

}  // namespace

InFlight::InFlight(const std::string &path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(file, 0) << path;
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_), 0);
    char byte = 0;
    iovec part = {&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof file)] = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr *header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof file);
    memcpy(CMSG_DATA(header), &file, sizeof file);
    EXPECT_EQ(sendmsg(ends_[0], &message, 0), 1);
    close(file);
}

InFlight::~InFlight() {
    for (const int end : ends_) close(end);
}

void RestoreWorld::SetUp() {
    FimctlWorld::SetUp();
    write_script("/usr/sbin/qzdg", group_tool);
    write_script("/usr/sbin/qzvol", volume_tool);
    write_script("/usr/sbin/qzdctl", "echo \"$$ qzdctl $*\" >>/var/fake/calls");
    write_file(fake::folder + "/imported", "");
    write_file(fake::folder + "/nodes", "");
}

void RestoreWorld::TearDown() {
    for (const auto &volume : restorable_) {
        if (volume->file_system == nullptr || is_mounted(volume->directory())) continue;
        const std::string device = volume->file_system->device();
        EXPECT_EQ(mount(device.c_str(), volume->directory().c_str(), "ext4", 0, nullptr), 0);
    }
    // Those that are mounted on others were added after them.
    while (!restorable_.empty()) restorable_.pop_back();
    FimctlWorld::TearDown();
}

bool RestoreWorld::add_restorable(const std::string &group, const std::string &name,
                                  const std::string &device, const std::string &symid, int type) {
    auto volume = std::make_unique<Volume>();
    volume->group = group;
    volume->name = name;
    volume->device = device;
    volume->bcv = "0" + device.substr(1);
    volume->bcv[1] = 'B';
    volume->symid = symid;
    volume->fstype = "ext4";
    volume->type = type;
    volume->file_system = std::make_unique<LoopFileSystem>("/data-" + name);
    if (!volume->file_system->good()) return false;
    const std::string loop = volume->file_system->device();
    volume->attached = std::make_unique<InFlight>(loop);
    struct stat status = {};
    EXPECT_EQ(stat(loop.c_str(), &status), 0);
    make_folders("/dev/qz/dsk/" + group);
    EXPECT_EQ(mknod(volume->block().c_str(), S_IFBLK | 0600, status.st_rdev), 0);
    std::ofstream(fake::folder + "/nodes", std::ios::app)
        << group << " " << name << " " << major(status.st_rdev) << " " << minor(status.st_rdev)
        << "\n";
    if (!is_imported(group)) {
        std::ofstream(fake::folder + "/imported", std::ios::app) << group << "\n";
    }
    std::ofstream(fake::folder + "/array", std::ios::app)
        << symid << " " << device << " " << volume->bcv << " 5\n";
    // A volume that is frozen as a device is mounted from nowhere.
    if (type != 3) unmount(volume->directory());
    restorable_.push_back(std::move(volume));
    return true;
}

int64_t RestoreWorld::enter() {
    fimctl::Catalogue catalogue(state_, true);
    const int64_t id = catalogue.enter("alternate_backup_client=backup1");
    std::vector<fimctl::ObjectRecord> objects;
    std::vector<std::string> texts;
    std::set<std::string> seen;
    for (const auto &volume : restorable_) {
        fimctl::ObjectRecord object;
        object.source = volume->type == 3 ? volume->directory() : volume->block();
        object.fifs = "/copies/" + volume->name;
        object.kind = volume->type == 3 ? "file system" : "block device";
        object.mount_dir = volume->type == 3 ? volume->directory() : "";
        object.vol_group = volume->group;
        object.vol_name = volume->name;
        objects.push_back(object);
        // The first object of a group brings the disks of all of it.
        const bool first = seen.insert(volume->group).second;
        std::string text = text_of(*volume, object.fifs, object.source, first);
        for (const auto &other : restorable_) {
            if (!first || other == volume || other->group != volume->group) continue;
            const std::string lines = text_of(*other, "", "", true);
            const size_t start = lines.find("PMINFO-");
            text.insert(text.find("PRIM_MIR_INFO=END"),
                        lines.substr(start, lines.find("PRIM_MIR_INFO=END") - start));
        }
        texts.push_back(text);
    }
    catalogue.set_objects(id, objects);
    for (size_t i = 0; i < texts.size(); ++i) {
        catalogue.set_text(id, i, texts[i]);
        std::vector<fimctl::PairRecord> pairs;
        for (const auto &pair : fimctl::CheckpointText(texts[i]).pairs()) {
            pairs.push_back({pair, 2, 5});
        }
        catalogue.set_pairs(id, i, pairs);
    }
    catalogue.set_cut(id, true, 12.5);
    catalogue.set_state(id, fimctl::State::frozen);
    return id;
}

Ended RestoreWorld::restore(const std::vector<std::string> &more) {
    std::vector<std::string> words = {"--method", FAKE_RESTORING, "--lock-wait",
                                      "0",        "restore",      "1"};
    words.insert(words.end(), more.begin(), more.end());
    return fimctl(words);
}

void RestoreWorld::unmount(const std::string &directory) {
    EXPECT_EQ(umount(directory.c_str()), 0) << directory;
}

bool RestoreWorld::is_mounted(const std::string &directory) const {
    for (const auto &mount : fimctl::read_mounts()) {
        if (mount.directory == directory) return true;
    }
    return false;
}

std::vector<std::string> RestoreWorld::calls_of(const std::string &name) const {
    std::vector<std::string> found;
    for (const std::string &call : calls()) {
        if (call.starts_with(name + " ")) found.push_back(call.substr(name.size() + 1));
    }
    return found;
}

std::string RestoreWorld::code_of_plan() {
    const Ended ended = restore({"--plan-only", "--json"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    return nlohmann::json::parse(ended.out, nullptr, false).value("code", "");
}

bool RestoreWorld::is_imported(const std::string &group) const {
    for (const std::string &line : fake::lines_of("imported")) {
        if (line == group) return true;
    }
    return false;
}

void RestoreWorld::expect_all_is_there() const {
    for (const auto &volume : restorable_) {
        EXPECT_TRUE(is_imported(volume->group)) << volume->group;
        EXPECT_TRUE(exists(volume->block())) << volume->block();
        if (volume->type == 3) {
            EXPECT_TRUE(is_mounted(volume->directory())) << volume->directory();
        }
    }
}

}  // namespace test
