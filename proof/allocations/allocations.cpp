// The row "allocations": every allocation of every entry point fails, the C library's on behalf of
// the shipped code included.
#include "proof/kit/call_row.h"

int main(int argc, char **argv) {
    proof::CallRow row;
    row.name = "allocations";
    row.about = "Every allocation of every entry point fails in turn, once and for good.";
    row.kind = "alloc";
    row.once_broken = "kind";
    row.quick = 24;
    row.ways = [](const std::string &) {
        return std::vector<proof::Way>{{"ENOMEM", "fail", "-", 0, true}};
    };
    // The C library's name service asserts that it has memory for its own beginnings. The host
    // library asks it only when there is plenty; one that fails all the same cannot be survived
    // from here.
    row.left_out = {">getaddrinfo"};
    return proof::run_call_row(argc, argv, row);
}
