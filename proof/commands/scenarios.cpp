#include "proof/commands/scenarios.h"

#include <utility>

namespace proof {
namespace {

// A site's own script, which is run before a copy is shown.
constexpr char install_script[] =
    "printf '#!/bin/sh\\nexit 0\\n' >/usr/quill/tessera/bin/tqdgclone_script &&"
    " chmod 755 /usr/quill/tessera/bin/tqdgclone_script";

constexpr char unmount_copies[] =
    "for d in /copy* /copy/*; do umount $d; done >/dev/null 2>&1; true";
// Under its own name again, as a thaw gives it back.
constexpr char deport_copy[] =
    "! qzdg list client1_datadg_clone >/dev/null 2>&1 ||"
    " qzdg -n datadg deport client1_datadg_clone";
constexpr char remove_captures[] = "rm -f /tmp/QfMS* /tmp/EMCTX* /tmp/EMCTF*";
// The backup host forgets the disks, so that every rebuild has to define them.
constexpr char forget_disks[] =
    "for d in c2t0d1 c2t0d2 c2t0d3; do qzdisk offline $d; qzdisk undefine $d; done"
    " >/dev/null 2>&1; true";

// A copy that the clone tool brought up stays up, and is there when it is asked for again: it shows
// a copy only once. An imported one cannot be imported again.
CommandScenario with_administrator(const Scenario &of) {
    CommandScenario made = {of, {}, {}, {unmount_copies}, {}, false};
    if (of.name == "import") {
        made.administrator.emplace_back(deport_copy);
        made.settle_there = {remove_captures, forget_disks};
    }
    return made;
}

CommandScenario with_script(const std::string &name, const std::string &form) {
    CommandScenario made = with_administrator(scenario(name));
    made.everywhere = {install_script};
    made.only = {form};
    made.scenario.name += "_with_script";
    return made;
}

// The volume manager's daemon sleeps when the group is to be imported: the first import fails, the
// daemon is woken, and the second one succeeds.
CommandScenario with_sleeping_daemon(const std::string &name, const std::string &process,
                                     const std::string &form) {
    CommandScenario made = with_administrator(scenario(name));
    made.only = {"qzdctl enable", form};
    made.scenario.name += "_with_sleeping_daemon";
    for (Process &one : made.scenario.processes) {
        if (one.name != process) continue;
        one.before.push_back("qzdctl disable");
        if (!one.repair.empty()) one.repair.insert(one.repair.begin(), "qzdctl enable");
    }
    return made;
}

// A shell that runs a single command by becoming it. It comes by a rename, since it is in use.
constexpr char replace_shell[] = R"(cat >/usr/bin/sh.new <<'SHELL'
#!/bin/dash
case "$1:$2" in -c:/usr/sbin/* | -c:/usr/quill/*) exec /bin/dash -c "exec $2" ;; esac
exec /bin/dash "$@"
SHELL
chmod 755 /usr/bin/sh.new && mv -f /usr/bin/sh.new /usr/bin/sh)";

CommandScenario with_replaced_shell(const std::string &name, Words forms) {
    CommandScenario made = with_administrator(scenario(name));
    made.everywhere = {replace_shell};
    made.only = std::move(forms);
    made.shell_is_replaced = true;
    made.scenario.name += "_with_replaced_shell";
    return made;
}

}  // namespace

const std::vector<CommandScenario> &command_scenarios() {
    static const std::vector<CommandScenario> all = [] {
        std::vector<CommandScenario> made;
        for (const Scenario &one : scenarios()) made.push_back(with_administrator(one));
        made.push_back(with_script("block_device", "tqdgclone_script RAW"));
        made.push_back(with_script("volumes", "tqdgclone_script QzVM"));
        made.push_back(with_sleeping_daemon("import", "volumes", "qzdg -C -n import"));
        made.push_back(with_sleeping_daemon("restore", "restore", "qzdg -C import"));
        made.push_back(with_replaced_shell("file_system", {}));
        made.push_back(with_replaced_shell(
            "volumes",
            {"tqdgclone -g -n -f -p", "tqdgclone -g -n -d -i -p", "tqdgclone -g -n -d -i -r"}));
        made.push_back(
            with_replaced_shell("import", {"qzdisk list", "qzdisk define", "qzdisk online",
                                           "qzdg -C -n import", "qzvol -g startall", "qzdg list"}));
        made.push_back(with_replaced_shell("restore", {"qzdg -C import"}));
        return made;
    }();
    return all;
}

}  // namespace proof
