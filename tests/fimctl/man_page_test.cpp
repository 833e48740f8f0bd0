// The manual says what the command does, and nothing that it does not.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <sstream>

#include "fimctl/config/setting.h"
#include "fimctl/failure.h"
#include "fimctl/hooks.h"
#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using Words = std::set<std::string>;

std::string replaced(std::string text, const std::string &part, const std::string &by) {
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at)) {
        text.replace(at, part.size(), by);
        at += by.size();
    }
    return text;
}

// A page as it was made for man, its escapes undone; bold words are marked by "*".
std::string page(const std::string &name) {
    const std::string section = name.substr(name.rfind('.') + 1);
    std::string text =
        test::read_file(std::string(TF_BINARY_DIR) + "/man/man" + section + "/" + name);
    EXPECT_NE(text, "") << name;
    for (const auto &[escape, meaning] :
         std::initializer_list<std::pair<const char *, const char *>>{{"\\fB", "*"},
                                                                      {"\\fR", "*"},
                                                                      {"\\-", "-"},
                                                                      {"\\(cq", "'"},
                                                                      {"\\(aq", "'"},
                                                                      {"\\(dq", "\""},
                                                                      {"\\(lq", "\""},
                                                                      {"\\(rq", "\""},
                                                                      {"\\&", ""},
                                                                      {"\\:", ""},
                                                                      {"\\e", "\\"}}) {
        text = replaced(text, escape, meaning);
    }
    return text;
}

// A section of a page, without its heading.
std::string section_of(const std::string &text, const std::string &heading) {
    const size_t start = text.find(".SH\n" + heading + "\n");
    if (start == std::string::npos) return "";
    const size_t end = text.find("\n.SH\n", start + 1);
    return text.substr(start + heading.size() + 5, end - start - heading.size() - 5);
}

Words words_in(const std::string &text, const std::string &pattern) {
    Words words;
    const std::regex expression(pattern);
    for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at) {
        words.insert((*at)[1]);
    }
    return words;
}

class ManPage : public test::FimctlWorld {
  protected:
    std::string help(const std::vector<std::string> &words) {
        std::vector<std::string> all = words;
        all.push_back("--help");
        return fimctl(all).out;
    }
    Words commands() {
        return words_in(help({}).substr(help({}).find("Subcommands:")), "\n  ([a-z]+) ");
    }
    // The options of a help page: what stands in its first column.
    static Words options_in(const std::string &help_page) {
        Words options;
        std::istringstream lines(help_page);
        for (std::string line; std::getline(lines, line);) {
            if (!line.starts_with("  -")) continue;
            const std::string column = line.substr(2, line.find("  ", 2) - 2);
            const Words found =
                words_in("," + column.substr(0, column.find(' ')), ",(--?[a-z][a-z-]*)");
            options.insert(found.begin(), found.end());
        }
        return options;
    }
};

TEST_F(ManPage, of_fimctl_has_every_command_of_the_help_page_and_no_other) {
    const std::string text = page("fimctl.8");
    ASSERT_GE(commands().size(), 8U);
    EXPECT_EQ(words_in(section_of(text, "COMMANDS"), "\n\\*([a-z]+)\\*\n"), commands());
    Words usage = words_in(section_of(text, "SYNOPSIS"), "\nfimctl (?:\\[OPTIONS\\] )?([a-z]+)");
    EXPECT_EQ(usage, commands());
}

TEST_F(ManPage, of_fimctl_has_every_option_of_every_help_page_and_no_other) {
    const std::string text = page("fimctl.8");
    const Words mentioned = words_in(text, "[^-a-z](--?[a-z][a-z-]*)");
    Words all = options_in(help({}));
    for (const std::string &command : commands()) {
        const Words own = options_in(help({command}));
        EXPECT_TRUE(own.contains("--help")) << command;
        all.insert(own.begin(), own.end());
        // Where a command has an option, its line of the synopsis or the tables of options say so.
        const std::string usage = section_of(text, "SYNOPSIS") + section_of(text, "OPTIONS");
        for (const std::string &option : own) {
            EXPECT_NE(usage.find(option), std::string::npos) << command << " " << option;
        }
    }
    for (const std::string &option : all) {
        EXPECT_TRUE(mentioned.contains(option)) << option << " is not in fimctl(8)";
    }
    // Those of other programs, in examples and remedies.
    const Words others = {"--unfreeze", "--dir", "-c", "-C", "-cf", "-vm", "-vv"};
    for (const std::string &option : mentioned) {
        EXPECT_TRUE(all.contains(option) || others.contains(option) || !option.starts_with("--"))
            << option << " is in fimctl(8) and nowhere else";
    }
}

TEST_F(ManPage, of_fimctl_has_the_exit_codes_of_the_help_page_and_of_the_program) {
    using fimctl::ExitCode;
    Words codes;
    for (const ExitCode code : {ExitCode::done, ExitCode::failed, ExitCode::usage, ExitCode::left,
                                ExitCode::no_such_snapshot, ExitCode::owned, ExitCode::array,
                                ExitCode::permission, ExitCode::interrupted}) {
        codes.insert(std::to_string(static_cast<int>(code)));
    }
    EXPECT_EQ(codes, (Words{"0", "1", "2", "3", "10", "11", "12", "13", "130"}));
    const std::string footer = help({}).substr(help({}).find("Exit codes:"));
    EXPECT_EQ(words_in(footer, "[:;]\\s+([0-9]+) "), codes);
    EXPECT_EQ(words_in(section_of(page("fimctl.8"), "EXIT CODES"), "\nT\\{\n([0-9]+)\nT\\}"),
              codes);
}

TEST_F(ManPage, of_fimctl_has_every_phase_and_variable_of_a_hook) {
    const std::string hooks = section_of(page("fimctl.8"), "HOOKS");
    Words phases;
    for (const fimctl::HookPhase phase : fimctl::all_hook_phases()) {
        phases.insert(fimctl::name_of(phase));
    }
    EXPECT_EQ(words_in(hooks, "\nT\\{\n\\*((?:pre-|post-|failed)[a-z]*)\\*\nT\\}"), phases);
    Words variables = {"FIMCTL_STATE"};
    for (const char *variable : fimctl::hook_variables()) variables.insert(variable);
    EXPECT_EQ(words_in(hooks, "\\*(FIMCTL_[A-Z_]+)\\*"), variables);
}

TEST_F(ManPage, of_the_settings_has_every_key_with_option_range_and_built_in_value) {
    const std::string keys = section_of(page("fimctl.toml.5"), "KEYS");
    Words expected;
    for (const fimctl::Setting &setting : fimctl::all_settings()) {
        expected.insert(setting.key);
        const size_t start = keys.find(std::string("\n*") + setting.key + "*\n");
        ASSERT_NE(start, std::string::npos) << setting.key;
        const std::string entry = keys.substr(start, keys.find("\n.LP\n", start) - start);
        const std::string standard = fimctl::standard_of(setting);
        EXPECT_NE(entry.find("built in: *" + (standard.empty() ? "\"\"" : standard) + "*"),
                  std::string::npos)
            << entry;
        const std::string option = setting.option;
        EXPECT_NE(entry.find("*" + option.substr(0, option.find(',')) + "*"), std::string::npos)
            << entry;
        const std::string wanted = fimctl::wanted_by(setting);
        const size_t range = wanted.find("from ");
        if (range != std::string::npos && wanted.starts_with("a number")) {
            EXPECT_NE(replaced(entry, "\n", " ").find(wanted.substr(range + 5)), std::string::npos)
                << entry << " should say " << wanted;
        }
    }
    EXPECT_EQ(words_in(keys, "\n\\*([a-z_]+)\\*\n"), expected);
}

TEST_F(ManPage, of_the_life_of_a_snapshot_has_every_state_that_a_snapshot_can_have) {
    const std::string states = section_of(page("tessera-snapshot.7"), "STATES OF A SNAPSHOT");
    Words expected;
    for (int number = 0;; ++number) {
        const std::string name = fimctl::name_of(static_cast<fimctl::State>(number));
        if (name.starts_with("unknown")) break;
        expected.insert(name);
    }
    ASSERT_GE(expected.size(), 8U);
    EXPECT_EQ(words_in(states, "\nT\\{\n\\*([a-z]+)\\*\nT\\}\\|"), expected);
}

TEST_F(ManPage, is_named_by_the_help_page) {
    for (const char *name : {"man 8 fimctl", "man 5 fimctl.toml", "man 7 tessera-snapshot"}) {
        EXPECT_NE(help({}).find(name), std::string::npos) << name;
    }
    for (const char *name : {"fimctl.8", "fimctl.toml.5", "tessera-snapshot.7"}) {
        EXPECT_NE(section_of(page(name), "NAME"), "") << name;
        EXPECT_NE(section_of(page(name), "SEE ALSO"), "") << name;
    }
}

// Every reading command has its document.
TEST_F(ManPage, every_command_that_only_reads_has_json) {
    const Words working = {"run",    "freeze", "mount",   "release",   "restore",
                           "export", "import", "cleanup", "completion"};
    for (const std::string &command : commands()) {
        if (working.contains(command)) continue;
        EXPECT_TRUE(options_in(help({command})).contains("--json")) << command;
    }
}

}  // namespace
