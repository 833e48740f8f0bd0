// The functions of the array library that the method looks for when it loads it, in the order of
// its table, and what becomes of a snapshot without them.
#pragma once

namespace fimctl {

enum class Need {
    required,  // the method calls it; its wrapper answers 14 and the operation fails
    texts,     // the method calls it for texts only; they then read "unknown"
    unused     // looked for, and not called
};

struct ArrayFunction {
    const char *name;
    Need need;
};

inline constexpr ArrayFunction array_functions[] = {
    {"SymApiPatch", Need::texts},
    {"SymApiVersion", Need::required},
    {"SymBcvPdevList", Need::unused},
    {"SymCommit", Need::unused},
    {"SymDevBcvControl", Need::required},
    {"SymDevListBcvControl", Need::required},
    {"SymDevShow", Need::required},
    {"SymDevSync", Need::required},
    {"SymDgBcvControl", Need::unused},
    {"SymDgShow", Need::unused},
    {"SymDiscover", Need::required},
    {"SymErrorSymbol", Need::unused},
    {"SymExit", Need::required},
    {"SymFree", Need::unused},
    {"SymInitV", Need::required},
    {"SymInquiry", Need::unused},
    {"SymLdevBcvControl", Need::required},
    {"SymList", Need::unused},
    {"SymPdevList", Need::unused},
    {"SymPdevShow", Need::required},
    {"SymPdevSync", Need::required},
    {"SymPerror", Need::texts},
    {"SymPing", Need::unused},
    {"SymPrefsSet", Need::required},
    {"SymStat", Need::unused},
    {"SymSync", Need::unused},
};

// The oldest release that the method accepts: above 4.2, or 4.2 with a sub-level above 153.
constexpr bool is_accepted(unsigned version) {
    constexpr unsigned release_4_2 = 0x0402, last_rejected_sub_level = 153;
    const unsigned release = version >> 16, sub_level = version & 0xffff;
    return release > release_4_2 || (release == release_4_2 && sub_level > last_rejected_sub_level);
}

}  // namespace fimctl
