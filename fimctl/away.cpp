#include "fimctl/away.h"

namespace fimctl {

void refuse_away(const SnapshotRecord &snapshot, const std::string &command, bool abandoned) {
    if (!snapshot.is_away() || abandoned) return;
    const std::string id = std::to_string(snapshot.id);
    Failure failure(Step::snapshot, ExitCode::usage,
                    "snapshot " + id + " was exported at " + snapshot.exported +
                        " and has not come back: the backup host may be reading its copy");
    failure.next =
        "on the backup host: fimctl release, then fimctl export; here: fimctl import FILE, then "
        "fimctl " +
        command + " " + id + ". If that host will never use it again: fimctl " +
        (command == "restore" ? "restore " : "release ") + id + " --abandoned";
    throw failure;
}

}  // namespace fimctl
