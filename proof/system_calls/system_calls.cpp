// The row "system calls": every call that the shipped libraries make of the system fails in every
// way that can happen to it, or falls short.
#include "proof/kit/call_row.h"
#include "proof/system_calls/faults.h"
#include "proof/system_calls/imports.h"

int main(int argc, char **argv) {
    proof::CallRow row;
    row.name = "system_calls";
    row.about = "Every call of the system fails in turn with each error that it can have.";
    row.kind = "system";
    row.once_broken = "function";
    row.quick = 24;
    row.ways = [](const std::string &function) {
        std::vector<proof::Way> ways;
        for (const proof::Fault &fault : proof::faults_of(function)) {
            ways.push_back({fault.name, fault.fate, "short", fault.value, fault.lasts});
        }
        return ways;
    };
    row.gaps = proof::import_gaps;
    return proof::run_call_row(argc, argv, row);
}
