// A release that lacks one function, SymDgShow, and one more where the build says so. The functions
// that nobody ever loads are there, so that a slot which stays empty was left empty by the loader.
#include "tests/symapi/fake_library/fake_library.h"

#include "include/symapi.h"

extern "C" {

FakeLibrary fake_library = {0x05000007, "V5.0.0.7", "12", 0, 0, 0, 0, 0, 0, 0};

int SymInitV(const char *, int, int32_t *session, SymInitOptions *, uint32_t) {
    ++fake_library.inits;
    *session = 3;
    return fake_library.init_result;
}
int SymExit(int32_t, int) {
    ++fake_library.exits;
    return fake_library.exit_result;
}
int SymDiscover(int32_t, int) {
    ++fake_library.discoveries;
    return 0;
}
#ifndef FAKE_WITHOUT_SymApiVersion
int SymApiVersion(uint32_t *number, const char **text) {
    // Written even when the call fails: what a failed call leaves behind must not be used.
    *number = fake_library.version;
    *text = fake_library.version_text;
    return fake_library.version_result;
}
#endif
#ifndef FAKE_WITHOUT_SymApiPatch
int SymApiPatch(const char **text) {
    *text = fake_library.patch_text;
    return fake_library.patch_result;
}
#endif
const char *SymPerror(int32_t, int) {
    return "text of the library";
}
const char *SymErrorSymbol(int) {
    return "SYMBOL";
}
int SymPrefsSet(int32_t, int, int) {
    return 101;
}
int SymPdevShow(int32_t, const char *, SymDevice *) {
    return 102;
}
int SymDevShow(int32_t, const char *, const char *, SymDevice *) {
    return 103;
}
int SymPdevSync(int32_t, const char *, int) {
    return 104;
}
int SymDevSync(int32_t, const char *, const char *, int, int) {
    return 105;
}
int SymLdevBcvControl(int32_t, const char *, const char *, int, int) {
    return 106;
}
int SymDevBcvControl(int32_t, const char *, const char *, const char *, int, int) {
    return 107;
}
int SymDevListBcvControl(int32_t, const char *, int, const char *const *, const char *const *, int,
                         int, int) {
    return 108;
}
int SymDgBcvControl(int32_t, const char *, int, int) {
    return 109;
}
int SymSync(int32_t, int) {
    return 110;
}
int SymFree(void *) {
    return 111;
}
int SymList(int32_t, void **) {
    return 112;
}
int SymPdevList(int32_t, void **) {
    return 113;
}
int SymBcvPdevList(int32_t, void **) {
    return 114;
}
int SymCommit(int32_t) {
    return 115;
}
int SymInquiry(int32_t) {
    return 116;
}
int SymPing(int32_t) {
    return 117;
}
int SymStat(int32_t) {
    return 118;
}

void SymMapLvList() {}
void SymMapLvShow() {}
void SymMapPatch() {}
void SymMapVersion() {}
void SymMapVgList() {}
void SymMapVgShow() {}
void SymDskStat() {}
void SymFillInHyper() {}
void SymGetEnvInfo() {}
void SymGetScsiChar() {}

}  // extern "C"
