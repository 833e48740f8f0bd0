// What the volume-set command prints.
//
//     Input: a line with the raw device that is looked up; the output of "list"; then, each behind
//     a line "--", the outputs for the sets in their order, the last one for all that follow.
#include <cstring>

#include "fuzz/support/finding.h"
#include "fuzz/support/framework.h"
#include "fuzz/support/input.h"
#include "fuzz/support/machine.h"
#include "method/paths.h"
#include "snap/snap.h"

using fuzz::finding;

namespace {

constexpr char tool[] = "/usr/sbin/qzvset";
constexpr char table[] =
    "/dev/qz/dsk/dg/set2 /sets qzfs rw 0 0\n"
    "/dev/qz/dsk/dg/set9 /other ufs rw 0 0\n"
    "/dev/qz/dsk/dg/plain /plain ext4 rw 0 0\n";

// The tool is asked for the list of sets first and for each set then, in the device's own group.
void expect_commands(const fuzz::Machine &machine) {
    for (size_t i = 0; i < machine.commands.size(); ++i) {
        const fuzz::Words &words = machine.commands[i];
        const size_t wanted = i == 0 ? 4U : 5U;
        const bool fits = words.size() == wanted && words[0] == tool && words[1] == "-g" &&
                          words[2] == machine.commands[0][2] && words[3] == "list";
        if (!fits) finding("command %zu has %zu words", i, words.size());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Machine machine;
    const fuzz::Framework framework;
    std::string text = fuzz::text_of(data, size);
    const std::string raw = fuzz::take_line_off(text).c_str();
    const std::vector<std::string> outputs = fuzz::sections_of(text);
    machine.installed.insert(tool);
    machine.put_file(tf::path::mount_table, table);
    machine.on_command = [&](const fuzz::Words &) {
        return fuzz::Answer{0, outputs[std::min(machine.commands.size(), outputs.size()) - 1]};
    };
    char *dir = nullptr, *type = nullptr;
    const int result = rawtofs(raw.c_str(), &dir, &type);
    if (result != SN_OK && result != SN_NO_MOUNT && result != SN_NOT_IN_A_SET) {
        finding("rawtofs: %d", result);
    }
    if ((result == SN_OK) != (dir != nullptr)) finding("rawtofs: %d without an answer", result);
    if (dir != nullptr && strstr(table, dir) == nullptr) finding("rawtofs: a mount %s", dir);
    fuzz::expect_terminated("err_msg", err_msg, sizeof err_msg);
    expect_commands(machine);
    return 0;
}
