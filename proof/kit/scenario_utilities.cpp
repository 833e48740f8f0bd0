// The scenarios of the rows whose faults belong to single calls of the library: what a snapshot
// does not reach.
#include "proof/kit/scenario_parts.h"

namespace proof::part {
namespace {

// vol1 is mounted on /data, also under a name with a blank; set2 has vol2. The mount table is the
// host's own file: there is no ufs and no qzfs here, and no raw device that is a character device.
// Its last line is a mount on a device's very name, which is where fsdevinfo looks for the raw
// device of a file.
Words prepare() {
    return {
        "qzdg init datadg p0 p1; qzvol -g datadg make vol1 64M --disk p0;"
        " for v in vol2 vol3; do qzvol -g datadg make $v 8M --disk p1; done;"
        " qzvset -g datadg make set1 vol3; qzvset -g datadg make set2 vol2;"
        " qzvol -g datadg startall; mkfs.ext4 -q /dev/qz/dsk/datadg/vol1;"
        " mkdir /data '/the data' /chr /ufs; mount /dev/qz/dsk/datadg/vol1 /data;"
        " mount --bind /data '/the data'; touch /data/file /ufs/file; sync",
        "rm -f /etc/mtab; cat >/etc/mtab <<'END'\n"
        "/dev/qz/dsk/datadg/vol1 /data ext4 rw 0 0\n"
        "/dev/qz/dsk/datadg/set2 /set qzfs rw 0 0\n"
        "/dev/null /chr ufs rw 0 0\n"
        "/dev/qz/dmp/p3 /ufs ufs rw 0 0\n"
        "/dev/null /dev/qz/dmp/p3 ufs rw 0 0\n"
        "END\n"};
}

// One process that calls these routines, see tests/lab_method/phase/utilities.h.
Scenario utilities(const std::string &name, const Words &routines) {
    // A file system that a fault left without writes takes them again.
    const std::string resume = "lockfs -u /data 2>/dev/null || true";
    Words steps = {"accept_qzfs", "utilities"};
    steps.insert(steps.end(), routines.begin(), routines.end());
    steps.emplace_back("end");
    return {name,
            "volumes",
            {"client1"},
            prepare(),
            {{"call", "client1", {}, steps}},
            {resume},
            {"timeout 5 touch /data/file && echo /data takes writes"}};
}

}  // namespace

Scenario names() {
    return utilities("names",
                     {"fstomp /data/file", "fstoblock /data", "fstoraw /data",
                      "find_mnt /dev/qz/rdsk/datadg/vol1", "raw_to_block /dev/qz/rdsk/datadg/vol1",
                      "rawtofs /dev/qz/rdsk/datadg/vol2", "rawtofs /dev/qz/rdsk/no group/vol1"});
}

Scenario devices() {
    return utilities("devices", {"statdev /dev/null", "statdev /dev/qz/dsk/datadg/vol1",
                                 "statdev /chr", "fsdevinfo /dev/null",
                                 "fsdevinfo /dev/qz/dsk/datadg/vol1", "fsdevinfo /ufs/file"});
}

Scenario quiesce() {
    return utilities("quiesce", {"lock_fs ufs /data", "lock_fs ufs /the data", "lock_fs qzfs /data",
                                 "locksnap ufs /the data", "locksnap qzfs /data",
                                 "add_to_lock_list ufs /data", "add_to_lock_list qzfs /set"});
}

Scenario parser() {
    return utilities("parser", {"parse a=1,b=2,c=3,d=4,e=5,f=6,g=7,h=8,i=text,j=other"});
}

// The backup host's name is another one of the host's own, by an address that its interfaces have:
// taken for a stranger, it would be asked for its way of importing.
Scenario resolved() {
    const std::string pair = "000184500123 00A1 01A1";
    return {"resolved",
            "demo",
            {"client1"},
            {"mkfs.ext4 -q /dev/qz/dmp/p0 && mkdir /data /copy && mount /dev/qz/dmp/p0 /data &&"
             " echo content >/data/file && sync",
             "echo '192.0.2.1 here' >>/etc/hosts; echo dgimport=1 >/usr/quill/tessera/tq.conf",
             "tfarray establish --full " + pair},
            {{"freeze",
              "client1",
              {},
              {"own_network", "192.0.2.1", "freeze", "alternate_backup_client=here", "/data",
               "/copy", "or_give_up", "rollback"}}},
            {remove_captures, forget_the_snapshot, let_the_array_settle, establish(pair),
             let_the_array_settle},
            {"cat /data/file"}};
}

}  // namespace proof::part
