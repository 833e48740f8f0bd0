// What the host product's device-information tool prints.
//
//     Input: its output.
#include "method/device_information.h"

#include <cstring>

#include "fuzz/support/finding.h"
#include "fuzz/support/framework.h"
#include "fuzz/support/input.h"
#include "fuzz/support/machine.h"
#include "method/capture.h"
#include "method/records.h"
#include "method/text.h"

using fuzz::finding;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Machine machine;
    const fuzz::Framework framework;
    const std::string output = fuzz::text_of(data, size);
    machine.on_command = [&](const fuzz::Words &) { return fuzz::Answer{0, output}; };
    hdef *const h = tf::make_zeroed<hdef>();
    tf::make_capture_files(h);
    {
        const tf::HeapOwner<device_info> info(find_device(h, "/dev/x"));
        if (!info) {
            framework.expect_report("find_device");
            if (framework.number() != 13) finding("error number %d", framework.number());
        } else {
            fuzz::expect_terminated("devpath", info->devpath, sizeof info->devpath);
            fuzz::expect_terminated("serial", info->serial, sizeof info->serial);
            if (info->devpath[0] == '\0' || info->serial[0] == '\0') finding("an empty answer");
            // A value ends at a blank, and a line that does not say EMC tells nothing.
            if (strpbrk(info->serial, " \t\n") != nullptr) finding("serial <%s>", info->serial);
            if (output.find("EMC") == std::string::npos) finding("an answer from nothing");
            if (info->reserved != 0) finding("reserved is %d", info->reserved);
        }
    }
    if (machine.commands.size() != 1) finding("%zu commands", machine.commands.size());
    tf::remove_capture_files(h);
    tf::free_hdef(h);
    if (!machine.temporary_files().empty()) finding("a capture file was left");
    return 0;
}
