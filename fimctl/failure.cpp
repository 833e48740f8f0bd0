#include "fimctl/failure.h"

namespace fimctl {

const char *name_of(Step step) {
    switch (step) {
    case Step::configuration:
        return "read the configuration";
    case Step::check:
        return "check the paths";
    case Step::snapshot:
        return "look up the snapshot";
    case Step::catalogue:
        return "keep the catalogue";
    case Step::inspect:
        return "look at the host";
    case Step::array:
        return "reach the array";
    case Step::load:
        return "load the method";
    case Step::freeze:
        return "freeze";
    case Step::control:
        return "control code 4";
    case Step::states:
        return "read the pair states";
    case Step::quiesce:
        return "quiesce the file systems";
    case Step::commit:
        return "freeze commit";
    case Step::checkpoint:
        return "checkpoint";
    case Step::judge:
        return "judge the copy";
    case Step::carry:
        return "carry the snapshot";
    case Step::rebuild:
        return "rebuild";
    case Step::volumes:
        return "volumes";
    case Step::hooks:
        return "run the hooks";
    case Step::command:
        return "run the command";
    case Step::thaw:
        return "thaw";
    case Step::thaw_commit:
        return "thaw commit";
    case Step::restore:
        return "restore";
    case Step::tell:
        return "tell the result";
    }
    return "unknown step";
}

namespace {

std::string remedy_of_rest(Step step, long id) {
    std::string release = "fimctl release " + std::to_string(id);
    switch (step) {
    case Step::thaw:
        return "end whatever uses the copy (fuser -vm), then: " + release;
    case Step::thaw_commit:
        return "see that no host uses the mirrors, such as a backup host on which the copy is "
               "mounted, then: " +
               release;
    case Step::rebuild:
        return "see that the array answers and that no other process owns its mirrors, then: " +
               release;
    default:
        return release;
    }
}

}  // namespace

std::string remedy_of(Step step, ExitCode code, long id) {
    if (code == ExitCode::left) {
        return id != 0 ? remedy_of_rest(step, id) : "fimctl list shows what is left";
    }
    if (code == ExitCode::usage) {
        if (step == Step::configuration) {
            return "correct it: fimctl.toml(5) has the keys, fimctl config shows the values";
        }
        return step == Step::check ? "correct the path or the option, then try again" : "";
    }
    if (code == ExitCode::interrupted)
        return "nothing is left to clean; start it again when you like";
    if (code == ExitCode::owned) return "wait until the other process has ended, then try again";
    if (code == ExitCode::permission) return "run fimctl as root";
    if (code == ExitCode::array) {
        return "see that the array library is installed and that the array answers, then try again";
    }
    if (code == ExitCode::no_such_snapshot) return "fimctl list --all shows the snapshots";
    switch (step) {
    case Step::load:
        return "install the method, or name it with --method";
    case Step::freeze:
        return "fimctl plan, with the same paths and options, and fimctl doctor tell what speaks "
               "against a freeze; set it right, then try again";
    case Step::control:
    case Step::commit:
        return "see with fimctl plan what speaks against it, and that no host uses a BCV that is "
               "to be established; then try again";
    case Step::judge:
        return "look at the pairs on the array, then try again";
    case Step::quiesce:
        return "thaw it (fsfreeze --unfreeze) if nobody else wants it frozen, take the path out, "
               "or "
               "accept a copy of a busy file system with --no-quiesce";
    case Step::volumes:
        return "see with fimctl show " + std::to_string(id) +
               " that the pairs are still split, and that this host can read the mirrors' devices "
               "(of an imported disk group also qzdisk list); -v shows what the commands said";
    case Step::catalogue:
        return "see that the state folder can be written and has room, then try again";
    case Step::carry:
        return "see that the file can be written and read, then try again";
    case Step::states:
    case Step::checkpoint:
        return "run again with -vv for the method's lines";
    case Step::hooks:
        return "see what the hook said (-v, or the log file); --hooks '' does without them";
    case Step::command:
        return "see what the command itself said, then run it again";
    default:
        return "";
    }
}

Failure no_such_snapshot(int64_t id) {
    return Failure(Step::snapshot, ExitCode::no_such_snapshot,
                   "there is no snapshot " + std::to_string(id));
}

std::unique_ptr<Failure> interrupted_while_waiting(const Failure &owned) {
    return std::make_unique<Failure>(owned.step, ExitCode::interrupted,
                                     std::string("interrupted while it waited: ") + owned.what(),
                                     owned.number);
}

}  // namespace fimctl
