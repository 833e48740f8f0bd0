// How a command ends: its exit codes, its steps, and the failure that carries one step's story to
// the user.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

namespace fimctl {

// Scripts rely on these numbers: a caller must be able to tell "nothing is left" (1, 11, 12, 13)
// from "something is left to clean" (3) without reading a text.
enum class ExitCode : int {
    done = 0,
    failed = 1,             // failed and rolled back
    usage = 2,              // the command line, or a path that cannot be frozen
    left = 3,               // something is left to clean
    no_such_snapshot = 10,  // no snapshot of this number
    owned = 11,             // another process owns the array's mirrors, or the snapshot
    array = 12,             // the array or its library cannot be reached
    permission = 13,        // not allowed
    interrupted = 130       // interrupted, and cleaned up
};

// The steps of a snapshot's life, in their order. Each has a name and a remedy.
enum class Step {
    configuration,  // read the settings
    check,          // look at the paths before anything is begun
    snapshot,       // find a snapshot that the command fits
    catalogue,      // keep the snapshot's state
    inspect,        // look at the host
    array,          // reach the array for reading
    load,           // load the method
    freeze,
    control,  // control code 4
    states,   // read the pair states
    quiesce,  // FIFREEZE
    commit,   // freeze commit
    checkpoint,
    judge,
    carry,  // hand it to another host, take it in from one
    rebuild,
    volumes,
    hooks,
    command,
    thaw,
    thaw_commit,
    restore,
    tell  // say what has come of it
};

// The end of a command that has said everything already: only its exit code is left to give.
struct Ended {
    ExitCode code;
};

const char *name_of(Step step);
// What an operator does after this step has failed. id 0: there is no snapshot yet.
std::string remedy_of(Step step, ExitCode code, long id);

// One failed step. number is the method's error number, 0 where the method has no part in it.
class Failure : public std::runtime_error {
  public:
    Failure(Step where, ExitCode how, const std::string &text, int method_number = 0)
        : std::runtime_error(text), step(where), code(how), number(method_number) {}

    Step step;
    ExitCode code;
    int number;
    long id = 0;             // the snapshot, once there is one
    std::string afterwards;  // what was done about it ("rolled back", "released"), if anything
    std::string next;        // what to do, where it is known better than the step's remedy says
};

Failure no_such_snapshot(int64_t id);
// Of one that was waiting for another owner of the array's mirrors: nothing has been changed.
std::unique_ptr<Failure> interrupted_while_waiting(const Failure &owned);

}  // namespace fimctl
