// The array's library as far as fimctl reads it, answering from the scripted array. A "symapi"
// file in the folder holds "CALL CODE" lines for calls that fail; a negative code never answers.
#include <unistd.h>

#include <cstring>

#include "include/symapi.h"
#include "tests/fimctl/fake_method/script.h"

namespace {

int scripted(const std::string &call) {
    for (const std::string &line : fake::lines_of("symapi")) {
        std::istringstream words(line);
        std::string name;
        int code = 0;
        words >> name >> code;
        if (name == call) return code;
    }
    return 0;
}

template <size_t size>
void put(char (&field)[size], const std::string &text) {
    memset(field, 0, size);
    memcpy(field, text.data(), text.size() < size ? text.size() : size - 1);
}

void record(const std::string &call, const std::string &detail) {
    std::ofstream(fake::folder + "/calls", std::ios::app)
        << getpid() << " " << call << " " << detail << "\n";
}

// What the array says of a device that the "devices" file names.
void fill_from(const fake::ArrayDevice &known, SymDevice &device) {
    put(device.symid, known.symid);
    put(device.sym_devname, known.name);
    put(device.pdevname, known.path);
    put(device.dgname, known.group);
    put(device.ldevname, known.label);
    for (const std::string &port : known.ports) put(device.ports[device.port_count++], port);
}

std::string group_of(const std::string &symid, const std::string &name) {
    for (const fake::ArrayDevice &known : fake::read_devices()) {
        if (known.symid == symid && known.name == name) return known.group;
    }
    return "";
}

void fill_pairs(SymDevice &device) {
    for (const fake::ArrayPair &pair : fake::read_array()) {
        // The array shows a pair from both of its ends.
        const bool ours = pair.device == device.sym_devname || pair.bcv == device.sym_devname;
        if (pair.symid != device.symid || !ours) continue;
        SymBcvInfo &bcv = device.bcvs[device.bcv_count++];
        put(bcv.dev_serial_id, pair.symid);
        put(bcv.dev_sym_devname, pair.device);
        put(bcv.dev_dgname, group_of(pair.symid, pair.device));
        put(bcv.bcvdev_serial_id, pair.symid);
        put(bcv.bcvdev_sym_devname, pair.bcv);
        put(bcv.bcvdev_dgname, group_of(pair.symid, pair.bcv));
        bcv.bcv_pair_state = pair.state;
    }
}

// Nothing that reads the array may call one of these: they are recorded as what they are.
int commanded(const char *call) {
    record(call, "COMMAND");
    return 0;
}

}  // namespace

extern "C" {
#pragma GCC visibility push(default)

int SymApiVersion(uint32_t *number, const char **text) {
    *number = static_cast<uint32_t>(fake::version());
    *text = "5.0";
    return scripted("SymApiVersion");
}

int SymInitV(const char *, int mode, int32_t *session, SymInitOptions *, uint32_t) {
    *session = 7;
    record("SymInitV", std::to_string(mode));
    return scripted("SymInitV");
}

int SymExit(int32_t, int) {
    record("SymExit", "");
    return 0;
}

const char *SymPerror(int32_t, int) {
    return "scripted";
}

int SymDevShow(int32_t, const char *symid, const char *sym_devname, SymDevice *device) {
    const int code = scripted("SymDevShow");
    if (code < 0) {
        record("hang", "");
        pause();
    }
    record("SymDevShow", std::string(symid) + " " + sym_devname);
    if (code != 0) return code;
    *device = {};
    put(device->symid, symid);
    put(device->sym_devname, sym_devname);
    bool is_known = false;
    for (const fake::ArrayDevice &known : fake::read_devices()) {
        if (known.symid != symid || known.name != sym_devname) continue;
        fill_from(known, *device);
        is_known = true;
    }
    fill_pairs(*device);
    return is_known || device->bcv_count > 0 ? 0 : 4;
}

int SymPdevShow(int32_t, const char *pdevname, SymDevice *device) {
    record("SymPdevShow", pdevname);
    if (const int code = scripted("SymPdevShow")) return code;
    for (const fake::ArrayDevice &known : fake::read_devices()) {
        if (known.path != pdevname) continue;
        *device = {};
        fill_from(known, *device);
        fill_pairs(*device);
        return 0;
    }
    return 4;
}

// Releases differ in what they have; this one is of the other kind.
#ifndef FAKE_OLD_RELEASE
int SymApiPatch(const char **text) {
    *text = "7";
    return 0;
}
int SymPing(int32_t) {
    return commanded("SymPing");
}
int SymPrefsSet(int32_t, int, int) {
    return commanded("SymPrefsSet");
}
#endif

int SymDiscover(int32_t, int) {
    return commanded("SymDiscover");
}
const char *SymErrorSymbol(int) {
    return "SCRIPTED";
}
int SymPdevSync(int32_t, const char *, int) {
    return commanded("SymPdevSync");
}
int SymDevSync(int32_t, const char *, const char *, int, int) {
    return commanded("SymDevSync");
}
int SymLdevBcvControl(int32_t, const char *, const char *, int, int) {
    return commanded("SymLdevBcvControl");
}
int SymDevBcvControl(int32_t, const char *, const char *, const char *, int, int) {
    return commanded("SymDevBcvControl");
}
int SymDevListBcvControl(int32_t, const char *, int, const char *const *, const char *const *, int,
                         int, int) {
    return commanded("SymDevListBcvControl");
}
int SymDgBcvControl(int32_t, const char *, int, int) {
    return commanded("SymDgBcvControl");
}
int SymDgShow(int32_t, const char *, void *) {
    return commanded("SymDgShow");
}
int SymSync(int32_t, int) {
    return commanded("SymSync");
}
int SymFree(void *) {
    return 0;
}
int SymList(int32_t, void **) {
    return commanded("SymList");
}
int SymPdevList(int32_t, void **) {
    return commanded("SymPdevList");
}
int SymBcvPdevList(int32_t, void **) {
    return commanded("SymBcvPdevList");
}
int SymCommit(int32_t) {
    return commanded("SymCommit");
}
int SymInquiry(int32_t) {
    return commanded("SymInquiry");
}
int SymStat(int32_t) {
    return commanded("SymStat");
}

#pragma GCC visibility pop
}
