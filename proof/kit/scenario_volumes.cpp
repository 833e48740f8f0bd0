// Two volumes of the disk group datadg: vol1 on one disk, vol3 over two.
#include "proof/kit/scenario_parts.h"

namespace proof::part {
namespace {

// A line of the shell for each of the volumes, $v being its name and $n its number.
std::string each(const std::string &line) {
    return "n=0; for v in vol1 vol3; do " + line + " || exit 1; n=$((n+1)); done";
}

// Steps for both objects; $n and $v in them are the object's number and volume.
Words steps_of_both(const Words &steps) {
    Words all;
    for (const auto &[number, volume] : {std::pair("0", "vol1"), std::pair("1", "vol3")}) {
        all.insert(all.end(), {"object", number});
        for (std::string step : steps) {
            for (size_t at; (at = step.find("$n")) != std::string::npos;)
                step.replace(at, 2, number);
            for (size_t at; (at = step.find("$v")) != std::string::npos;)
                step.replace(at, 2, volume);
            all.push_back(step);
        }
    }
    return all;
}

Words joined(std::initializer_list<Words> parts) {
    Words all;
    for (const Words &part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

Words prepare() {
    return {
        "set -e; qzdg init datadg p0 p1 p2;"
        " qzvol -g datadg make vol1 64M --fstype ext4 --disk p0;"
        " qzvol -g datadg make vol3 64M --fstype ext4 --disk p1 --disk p2;"
        " qzvol -g datadg startall",
        each("mkfs.ext4 -q /dev/qz/dsk/datadg/$v && mkdir -p /data/$v /copy/$v &&"
             " mount /dev/qz/dsk/datadg/$v /data/$v &&"
             " head -c 200000 /dev/urandom >/exchange/$v.original &&"
             " cp /exchange/$v.original /data/$v/file && sync")};
}

Words joined_pairs() {
    Words lines;
    for (const char *pair : {"00A1 01A1", "00A2 01A2", "00A3 01A3"}) {
        lines.push_back(establish(std::string("000184500123 ") + pair));
    }
    lines.push_back(let_the_array_settle);
    return lines;
}

const Words forget = {remove_captures, forget_the_snapshot, let_the_array_settle};

const std::string write = each("cp /exchange/$v.original /data/$v/file && sync -f /data/$v");
const std::string change = each("echo later >/data/$v/file && sync -f /data/$v");
const std::string same =
    each("{ grep -q later /data/$v/file || cmp /data/$v/file /exchange/$v.original; }");

Process freeze(const std::string &config, const Words &after) {
    return {"freeze",
            "client1",
            {write},
            joined({steps_of_both({"freeze", config, "/data/$v", "/copy/$v", "or_give_up"}),
                    {"ctl", "4", "or_give_up"},
                    steps_of_both({"commit", "or_give_up"}),
                    steps_of_both({"ckpt", "/exchange/text$n", "or_give_up"})}),
            after};
}

Process read(const std::string &host, const std::string &text, const Words &after) {
    return {"volumes",
            host,
            {"rm -rf /var/symapi/db", each("mkdir -p /copy/$v")},
            joined({steps_of_both({"rebuild", text, "or_stop"}),
                    steps_of_both(
                        {"volumes", "or_stop", "run", "cmp /copy/$v/file /exchange/$v.original"}),
                    steps_of_both({"ckpt", "/exchange/text$n.up", "or_stop"})}),
            after};
}

Process release(const std::string &name, const std::string &host, const std::string &text,
                bool commit) {
    return {name,
            host,
            {},
            joined({steps_of_both({"rebuild", text, "or_stop"}), steps_of_both({"thaw", "or_stop"}),
                    commit ? steps_of_both({"thaw_commit", "or_stop"}) : Words()})};
}

constexpr char with_import[] = "alternate_backup_client=backup1";
constexpr char ask_for_import[] = "echo dgimport=1 >/usr/quill/tessera/tq.conf";

}  // namespace

// What the framework does to the texts: the lines of the transfer file go into the clone block.
Scenario volumes() {
    const std::string carry = each(
        "file=$(sed -n 's/^TRANSFER_FILE=//p' /exchange/text$n) && { [ -z \"$file\" ] ||"
        " sed -i \"/^TRANSFER_FILE=/r $file\" /exchange/text$n; }");
    return {"volumes",
            "volumes",
            {"client1"},
            joined({prepare(), joined_pairs()}),
            {freeze("-", {carry, change}), read("client1", "/exchange/text$n", {}),
             release("release", "client1", "/exchange/text$n.up", true)},
            joined({forget, joined_pairs()}),
            {same}};
}

// ... and a line that says where the text is rebuilt.
Scenario imported() {
    const std::string there =
        each("sed '1i HDEF-is_tgt=1' /exchange/text$n >/exchange/text$n.there");
    const std::string back = each("sed -i '1i HDEF-is_tgt=1' /exchange/text$n.up");
    return {
        "import",
        "volumes",
        {"client1", "backup1"},
        joined({prepare(), joined_pairs(), {ask_for_import}}),
        {freeze(with_import, {there, change}), read("backup1", "/exchange/text$n.there", {back}),
         release("away", "backup1", "/exchange/text$n.up", false),
         release("release", "client1", "/exchange/text$n", true)},
        joined({forget, joined_pairs()}),
        {same}};
}

// The last object is mounted by the restore, the others by the framework. A group that a failed
// restore has deported, or a file system that it has unmounted, is brought back by an
// administrator.
Scenario restored() {
    const std::string mounted = each(
        "{ grep -q \" /data/$v \" /proc/self/mounts ||"
        " mount /dev/qz/dsk/datadg/$v /data/$v; }");
    const std::string restoring = each(
        "printf 'HDEF-restore=1\\nHDEF-mount_point=/data/%s\\nHDEF-is_mount=0\\n' $v"
        " >>/exchange/text$n");
    const std::string imported =
        "{ qzdg list datadg >/dev/null 2>&1 || qzdg -C import datadg; } &&"
        " qzvol -g datadg startall";
    Process restore = release("restore", "client1", "/exchange/text$n", true);
    restore.after = {mounted, each("cmp /data/$v/file /exchange/$v.original")};
    restore.repair = {imported, mounted};
    return {"restore",
            "volumes",
            {"client1", "backup1"},
            joined({prepare(), joined_pairs(), {ask_for_import}}),
            {freeze(with_import, {restoring, change}), restore},
            joined({forget, joined_pairs()}),
            {same}};
}

}  // namespace proof::part
