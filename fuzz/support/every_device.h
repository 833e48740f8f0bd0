// An array that knows every device it is asked for.
#pragma once

#include <cstring>

#include "fuzz/support/machine.h"
#include "method/text.h"
#include "symapi/symapi_wrappers.h"
#include "tests/support/fake_array.h"

namespace fuzz {

// A device under the name it was asked by. Its path follows from the name: none for one that says
// "hidden", otherwise a disk, sometimes behind the multipath driver.
inline void describe_device(const char *symid, const char *name, SymDevice *device) {
    *device = {};
    tf::put(device->symid, symid);
    tf::put(device->sym_devname, name);
    tf::put(device->dgname, "DG");
    tf::put(device->ldevname, "TSR-BCV");
    if (strstr(name, "hid") != nullptr) return;
    const char *const folder = strchr(name, '7') != nullptr ? "/dev/qz/rdmp/s" : "/dev/rdsk/";
    tf::put_format(device->pdevname, "%s%s", folder, name);
    if (strchr(name, '5') != nullptr) {
        device->port_count = 2;
        tf::put(device->ports[1], "/dev/sdq");
    }
}

// Binds the fake array, with a device for every name.
class EveryDevice {
  public:
    EveryDevice() {
        p_emc_tf_SymDevShow = [](int32_t, const char *symid, const char *name, SymDevice *device) {
            if (strchr(name, '!') != nullptr) return 28;
            describe_device(symid, name, device);
            return 0;
        };
    }

  private:
    test::FakeArray array_;
};

// The tool that tells an array's serial number answers for every device, all others succeed.
inline Answer answer_of_tools(const Words &words) {
    if (words[0] != "/usr/quill/tessera/bin/tqtpcinfo") return {};
    const bool refused = words.size() > 3 && words[3].find("unknown") != std::string::npos;
    if (refused) return {3, "no such device\n"};
    return {0, "EMC SYMMETRIX p=/dev/x s=00018450012300A1\n"};
}

}  // namespace fuzz
