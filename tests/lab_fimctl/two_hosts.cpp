#include "tests/lab_fimctl/two_hosts.h"

namespace test {
namespace {

constexpr char sums[] =
    "find . -path ./lost+found -prune -o -type f -print | sort | xargs -r sha256sum";
constexpr char without_waits[] = "LD_PRELOAD=/usr/lib/tflab/libtflabsleep.so fimctl -q ";

std::string trimmed(std::string text) {
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

std::string mirror_of(const std::string &device) {
    return "01" + device.substr(2);
}

}  // namespace

void FimctlOnTwoHosts::fill(const std::string &name) {
    host("cd /data/" + name +
         " && mkdir -p deep/er && for i in 1 2 3 4 5 6; do head -c $((i * i * 23456)) /dev/urandom "
         ">file$i; done && head -c 1500000 /dev/urandom >deep/er/large && { " +
         sums + "; } >/exchange/" + name + ".sums && sync -f .");
}

void FimctlOnTwoHosts::make_group() {
    host(
        "set -e; qzdg init datadg p0 p1; qzvol -g datadg make vol1 64M --disk p0 --fstype ext4;"
        " qzvol -g datadg make vol2 320M --disk p1 --fstype xfs; qzvol -g datadg startall;"
        " mkfs.ext4 -q /dev/qz/dsk/datadg/vol1; mkfs.xfs -q /dev/qz/dsk/datadg/vol2;"
        " for v in vol1 vol2; do mkdir -p /data/$v; mount /dev/qz/dsk/datadg/$v /data/$v; done");
    fill("vol1");
    fill("vol2");
}

void FimctlOnTwoHosts::make_second_group() {
    host(
        "set -e; qzdg init logdg p3; qzvol -g logdg make log1 64M --disk p3 --fstype ext4;"
        " qzvol -g logdg startall; mkfs.ext4 -q /dev/qz/dsk/logdg/log1; mkdir -p /data/log1;"
        " mount /dev/qz/dsk/logdg/log1 /data/log1");
    fill("log1");
}

void FimctlOnTwoHosts::make_plain() {
    host(
        "set -e; mkfs.ext4 -q /dev/qz/dmp/p2; mkdir -p /data/plain; mount /dev/qz/dmp/p2 "
        "/data/plain");
    fill("plain");
}

void FimctlOnTwoHosts::change(const std::string &name) {
    host("cd /data/" + name +
         " && head -c 2000000 /dev/urandom >deep/er/large && rm file3 && echo x >>file5 && head -c "
         "300000 /dev/urandom >new && sync -f .");
}

Told FimctlOnTwoHosts::try_fim(const std::string &arguments) {
    Told told;
    told.text = trimmed(host(without_waits + arguments, &told.status));
    return told;
}

std::string FimctlOnTwoHosts::fim(const std::string &arguments) {
    const Told told = try_fim(arguments);
    EXPECT_EQ(told.status, 0) << "fimctl " << arguments << ":\n" << told.text;
    return told.text;
}

void FimctlOnTwoHosts::expect_as_frozen(const std::string &name, const std::string &directory) {
    int status = -1;
    const std::string text = host(
        "cd " + directory + " && { " + sums + "; } | cmp - /exchange/" + name + ".sums", &status);
    EXPECT_EQ(status, 0) << name << " in " << directory << ": " << text;
}

void FimctlOnTwoHosts::expect_nothing_left() {
    EXPECT_EQ(host("grep -c /var/lib/fimctl/mnt /proc/self/mounts || true"), "0\n");
    EXPECT_EQ(host("ls -A /var/lib/fimctl/mnt 2>/dev/null || true"), "");
    EXPECT_EQ(host("ls -A /var/lib/fimctl/tmp /tmp 2>/dev/null | grep -v : | grep . || true"), "");
    EXPECT_EQ(host("qzdg list | grep clone || true"), "");
    EXPECT_EQ(host("ls -d /dev/qz/dsk/*clone* /dev/qz/rdsk/*clone* 2>/dev/null || true"), "");
    EXPECT_EQ(counter_files(), "");
}

void FimctlOnTwoHosts::expect_established(const Words &devices) {
    for (const std::string &device : devices) {
        EXPECT_EQ(pair_state(device, mirror_of(device)), 2) << device;
    }
}

}  // namespace test
