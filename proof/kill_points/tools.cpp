#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "proof/kill_points/ground.h"
#include "proof/kit/processes.h"

namespace proof {
namespace {

namespace fs = std::filesystem;

// Whoever freezes a second time is told so.
constexpr char thawed[] = R"sh(
awk '$1 ~ "^/dev/" && $3 ~ "^(ext4|xfs)$" { print $2 }' /proc/self/mounts | while read -r one; do
    timeout 20 fsfreeze -f "$one" && timeout 20 fsfreeze -u "$one" || { echo "frozen: $one"; exit 1; }
done
)sh";

constexpr char sums[] =
    "for d in $(awk '$1 ~ \"^/dev/\" && $2 ~ \"^/data\" { print $2 }' /proc/self/mounts | sort); do"
    " find $d -xdev -path '*/lost+found' -prune -o -type f -print; done | sort | xargs -r "
    "sha256sum";

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace

std::string quoted(const std::string &word) {
    std::string made = "'";
    for (const char character : word) {
        if (character == '\'') made += "'\\'";
        made += character;
    }
    return made + "'";
}

void install_tools(test::LabWorld &world) {
    fs::copy_file(TF_BINARY_DIR "/bin/tfkill", world.exchange() / "tfkill",
                  fs::copy_options::overwrite_existing);
    install_process_list(world);
}

// Waits take no time; what hangs for good is killed in the end, and was not met.
std::string killing_line(const Words &options, const std::string &command) {
    std::string line =
        "mkdir -p /exchange/killed; cd /; exec timeout -s KILL 100 env "
        "TMPDIR=/exchange/killed LD_PRELOAD=/usr/lib/tflab/libtflabsleep.so "
        "/exchange/tfkill ";
    for (const std::string &option : options) line += quoted(option) + " ";
    return line + "/exchange/kills " + command;
}

Words options_of(const Kill &kill) {
    Words options = {"--at",   kill.name,
                     "--call", std::to_string(kill.call),
                     "--when", kill.after ? "after" : "before"};
    if (kill.all) options.push_back("--all");
    return options;
}

std::vector<Place> seen_places(const test::LabWorld &world) {
    std::vector<Place> places;
    std::map<std::string, size_t> numbers;
    std::ifstream in(world.exchange() / "kills");
    for (std::string line; std::getline(in, line);) {
        if (line == "met") continue;
        const auto [known, is_new] = numbers.emplace(line, places.size());
        if (is_new) places.push_back({line, 0});
        ++places[known->second].calls;
    }
    return places;
}

bool was_met(const test::LabWorld &world) {
    std::ifstream in(world.exchange() / "kills");
    const std::string text(std::istreambuf_iterator<char>(in), {});
    return text.ends_with("met\n");
}

void check_after_kill(test::LabWorld &world, const Words &hosts, Wrong &wrong) {
    const auto expect = [&](const std::string &host, const std::string &line) {
        int status = 0;
        world.on(host);
        const std::string said = world.host(line, &status);
        if (status != 0) wrong.push_back("after the kill, on " + host + ": " + said);
    };
    for (const std::string &host : hosts) {
        expect(host, "exec " + std::string(list_processes));
        expect(host, thawed);
    }
    expect(hosts.front(), "tfarray check");
}

std::string originals(test::LabWorld &world, const Words &devices) {
    std::string lines = world.host(sums);
    for (const std::string &device : devices) {
        lines += world.host("head -c 1048576 " + device + " | sha256sum");
    }
    return lines;
}

std::string picture_of(test::LabWorld &world, const Words &hosts, const Words &devices) {
    std::string whole;
    for (const std::string &host : hosts) {
        world.on(host);
        const bool is_primary = host == hosts.front();
        const std::string text =
            world.picture() + (is_primary ? originals(world, devices) : std::string());
        for (const std::string &line : lines_of(text)) whole += host + " " + line + "\n";
    }
    world.on(hosts.front());
    return whole;
}

std::string difference(const std::string &before, const std::string &after) {
    auto first = lines_of(before), second = lines_of(after);
    std::sort(first.begin(), first.end());
    std::sort(second.begin(), second.end());
    std::vector<std::string> gone, come;
    std::set_difference(first.begin(), first.end(), second.begin(), second.end(),
                        std::back_inserter(gone));
    std::set_difference(second.begin(), second.end(), first.begin(), first.end(),
                        std::back_inserter(come));
    std::string text;
    for (const std::string &line : gone) text += "\n    - " + line;
    for (const std::string &line : come) text += "\n    + " + line;
    return text;
}

}  // namespace proof
