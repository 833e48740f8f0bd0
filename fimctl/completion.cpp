#include "fimctl/completion.h"

#include <CLI/CLI.hpp>
#include <vector>

namespace fimctl {
namespace {

// What the value of an option or positional is, for the shell.
std::string kind_of(const CLI::Option &option) {
    const std::string type = option.get_type_name();
    if (!option.nonpositional()) {
        const std::string name = option.get_name();
        if (name == "ID") return option.get_items_expected_max() > 1 ? "snapshots" : "snapshot";
        return name == "SHELL" ? "shell" : "file";
    }
    if (type.starts_with("DIR")) return "folder";
    return type.starts_with("FILE") || type.starts_with("PATH") ? "file" : "other";
}

struct Words {
    std::string options;     // blank between them
    std::string with_value;  // "--state:folder"
    std::string positional = "none";
};

Words words_of(const CLI::App &app) {
    Words words;
    for (const CLI::Option *option : app.get_options()) {
        if (!option->nonpositional()) {
            if (words.positional == "none") words.positional = kind_of(*option);
            continue;
        }
        std::vector<std::string> names;
        for (const std::string &name : option->get_lnames()) names.push_back("--" + name);
        for (const std::string &name : option->get_snames()) names.push_back("-" + name);
        for (const std::string &name : names) {
            words.options += (words.options.empty() ? "" : " ") + name;
            if (option->get_items_expected_max() == 0) continue;
            words.with_value +=
                (words.with_value.empty() ? "" : " ") + name + ":" + kind_of(*option);
        }
    }
    return words;
}

void add_case(std::string &script, const std::string &name, const Words &words) {
    script += "        " + name + ")\n            options='" + words.options + "'\n" +
              "            with_value='" + words.with_value + "'\n" + "            positional='" +
              words.positional + "'\n            ;;\n";
}

constexpr char beginning[] = R"bash(# Completion of fimctl for bash; to load it:
#   source <(fimctl completion bash)

# What a command takes: sets options, with_value ("OPTION:KIND" words) and positional.
_fimctl_table() {
    options='' with_value='' positional=none
    case $1 in
)bash";

constexpr char behind_table[] = R"bash(    esac
}

# The kind of value that an option takes, if it takes one: sets kind.
_fimctl_value_of() {
    local entry
    kind=''
    for entry in $common_with_value $with_value; do
        [[ ${entry%%:*} == "$1" ]] && kind=${entry#*:}
    done
    [[ -n $kind ]]
}

_fimctl_offer() { # KIND: fills COMPREPLY, or leaves it to bash to look for files
    case $1 in
        file) return ;;
        folder) compopt -o dirnames 2>/dev/null && return ;;
        snapshot | snapshots)
            local which=()
            [[ $command == show ]] && which=(--all)
            mapfile -t COMPREPLY < <(compgen -W "$("$program" -q "${asked[@]}" list --ids \
                "${which[@]}" 2>/dev/null)" -- "$current")
            ;;
        shell) mapfile -t COMPREPLY < <(compgen -W bash -- "$current") ;;
    esac
    [[ ${#COMPREPLY[@]} -gt 0 ]] || compopt +o default +o bashdefault 2>/dev/null
}

_fimctl() {
    local program=$1 current=${COMP_WORDS[COMP_CWORD]} command='' given=0 word kind i
    local options with_value positional common common_with_value
    local asked=() # where the snapshots are, if the line says so
    COMPREPLY=()
    _fimctl_table ''
    common=$options common_with_value=$with_value
    options='' with_value=''
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ $word == -- ]]; then
            ((i == COMP_CWORD - 1)) && [[ $command == "$runs" ]] &&
                mapfile -t COMPREPLY < <(compgen -c -- "$current")
            return
        elif _fimctl_value_of "$word"; then
            if ((i == COMP_CWORD - 1)); then
                _fimctl_offer "$kind"
                return
            fi
            i=$((i + 1))
            [[ $word == --state || $word == --config-file ]] && asked+=("$word" "${COMP_WORDS[i]}")
        elif [[ $word == -* ]]; then
            continue
        elif [[ -z $command ]]; then
            command=$word
            _fimctl_table "$command"
        else
            given=$((given + 1))
        fi
    done
    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$common $options" -- "$current")
    elif [[ -z $command ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$current")
    elif [[ $positional == file || $positional == snapshots || $given == 0 ]]; then
        _fimctl_offer "$positional"
    else
        _fimctl_offer none
    fi
}

complete -o default -o bashdefault -F _fimctl fimctl
)bash";

}  // namespace

std::string bash_completion(const CLI::App &app, const std::string &takes_command) {
    std::string script = beginning;
    std::string commands;
    add_case(script, "''", words_of(app));
    for (const CLI::App *command : app.get_subcommands({})) {
        add_case(script, command->get_name(), words_of(*command));
        commands += (commands.empty() ? "" : " ") + command->get_name();
    }
    std::string rest = behind_table;
    const std::string start = "_fimctl() {\n";
    rest.insert(rest.find(start) + start.size(),
                "    local runs=" + takes_command + " commands='" + commands + "'\n");
    return script + rest;
}

}  // namespace fimctl
