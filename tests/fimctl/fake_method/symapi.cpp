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

}  // namespace

extern "C" {
#pragma GCC visibility push(default)

int SymApiVersion(uint32_t *number, const char **text) {
    *number = 0x05000000;
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
    if (code != 0) return code;
    *device = {};
    put(device->symid, symid);
    put(device->sym_devname, sym_devname);
    for (const fake::ArrayPair &pair : fake::read_array()) {
        if (pair.symid != symid || pair.device != sym_devname) continue;
        SymBcvInfo &bcv = device->bcvs[device->bcv_count++];
        put(bcv.bcvdev_sym_devname, pair.bcv);
        bcv.bcv_pair_state = pair.state;
    }
    return device->bcv_count > 0 ? 0 : 4;
}

#pragma GCC visibility pop
}
