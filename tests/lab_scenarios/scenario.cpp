#include "tests/lab_scenarios/scenario.h"

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

namespace test {

void expect_all_succeed(const Phase &phase) {
    EXPECT_FALSE(phase.calls.empty()) << phase.output;
    for (const Call &call : phase.calls) expect_success(call);
}

void Scenario::make(const Source &source) {
    host("mkfs." + source.type + " -q " + source.device + " && mkdir -p " + source.folder + " " +
         source.copy + " && mount -t " + source.type + " " + source.device + " " + source.folder);
    fill(source.folder, source.device);
}

void Scenario::fill(const std::string &folder, const std::string &seed) {
    host("mkdir -p " + folder + "/sub/deep && cd " + folder +
         " && for size in 0 1 4095 4096 65537 1000000; do"
         " yes '" +
         seed +
         "'$size | head -c $size >f$size;"
         " yes \"$size\"'" +
         seed + "' | head -c $size >sub/deep/f$size; done && sync");
}

void Scenario::change(const std::string &folder) {
    const std::string number = std::to_string(++changes_);
    host("cd " + folder + " && yes changed" + number +
         " | head -c 300000 | dd of=f1000000 bs=4k seek=7 conv=notrunc status=none"
         " && truncate -s 100 f65537 && rm -f sub/deep/f4096 && mv f1 sub/moved && cp f4096 f1"
         " && yes new | head -c 500000 >sub/new" +
         number + " && echo more >>sub/deep/f1 && sync");
}

std::string Scenario::sums(const std::string &folder) {
    const std::string found =
        host("cd " + folder + " && find . -xdev -type f -print0 | sort -z | xargs -0 sha256sum");
    EXPECT_NE(found.find("  ./"), std::string::npos) << folder << " has no files";
    return found;
}

std::string Scenario::sum_of_device(const std::string &device) {
    return host("sha256sum <" + device);
}

std::string Scenario::sound(const std::string &type, const std::string &device) {
    if (type == "xfs") return "xfs_repair -n " + device + " >/dev/null 2>&1";
    return "e2fsck -f -n " + device + " >/dev/null 2>&1";
}

void Scenario::expect_sound(const std::string &type, const std::string &device) {
    int status = 0;
    const std::string said =
        host((type == "xfs" ? "xfs_repair -n " : "e2fsck -f -n ") + device, &status);
    EXPECT_EQ(status, 0) << device << ":\n" << said;
}

std::string Scenario::saved(const std::string &name) const {
    std::ifstream in(exchange() / name, std::ios::binary);
    EXPECT_TRUE(in.is_open()) << name;
    return std::string(std::istreambuf_iterator<char>(in), {});
}

int64_t Scenario::saved_number(const std::string &name, const std::string &key,
                               const std::string &primary, const std::string &bcv) const {
    const auto shown = nlohmann::json::parse(saved(name), nullptr, false);
    if (shown.is_discarded()) return -1;
    for (const auto &array : shown["arrays"]) {
        for (const auto &pair : array["pairs"]) {
            if (pair["primary"] == primary && pair["bcv"] == bcv) return pair[key];
        }
    }
    return -1;
}

std::string Scenario::in_text(const std::string &name, const std::string &key) const {
    const std::string text = "\n" + saved(name), line = "\n" + key + "=";
    const size_t found = text.find(line);
    if (found == std::string::npos) return "no line " + key;
    const size_t begin = found + line.size();
    return text.substr(begin, text.find('\n', begin) - begin);
}

double Scenario::clock_seconds() {
    const auto shown = nlohmann::json::parse(array("show --json"), nullptr, false);
    return shown.is_discarded() ? -1 : shown["clock"]["seconds"].get<double>();
}

Phase Scenario::expect_a_whole_snapshot(const Source &source, const std::string &mirror,
                                        const std::string &config) {
    const std::string before = sums(source.folder);
    const Running running =
        begin_phase({"freeze",
                     config,
                     source.folder,
                     source.copy,
                     "run",
                     save_array("frozen"),
                     "ctl",
                     "4",
                     "run",
                     save_array("joined"),
                     "run",
                     "fsfreeze -f " + source.folder,
                     "commit",
                     "run",
                     "fsfreeze -u " + source.folder,
                     "run",
                     save_array("committed"),
                     "ckpt",
                     "/exchange/text",
                     "run",
                     "touch /exchange/cut; until [ -e /exchange/changed ]; do sleep 0.01; done",
                     "volumes",
                     "run",
                     "touch /exchange/up; until [ -e /exchange/read ]; do sleep 0.01; done",
                     "thaw",
                     "run",
                     sound(source.type, mirror),
                     "thaw_commit"});
    wait_for_file("cut");
    change(source.folder);
    const std::string after = sums(source.folder);
    EXPECT_NE(after, before);
    make_file("changed");
    wait_for_file("up");
    EXPECT_EQ(host("grep ' " + source.copy + " ' /proc/self/mounts | cut -d' ' -f1,3"),
              mirror + " " + source.type + "\n");
    EXPECT_EQ(sums(source.copy), before);
    make_file("read");
    Phase whole = end_phase(running);
    expect_all_succeed(whole);
    for (const char *file : {"cut", "changed", "up", "read"})
        host("rm /exchange/" + std::string(file));
    expect_nothing_left(source.copy);
    EXPECT_EQ(sums(source.folder), after);
    return whole;
}

void Scenario::expect_nothing_left(const std::string &copy) {
    EXPECT_EQ(counter_files(), "");
    EXPECT_EQ(host("ls -A /tmp; grep ' " + copy + " ' /proc/self/mounts; true"), "");
}

}  // namespace test
