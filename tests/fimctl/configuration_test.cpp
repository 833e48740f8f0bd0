// Where a setting comes from, and what is said about a wrong one.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "fimctl/config/setting.h"
#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using Json = nlohmann::json;
using test::Ended;

constexpr char file[] = "/etc/fimctl/fimctl.toml";

class Configuration : public test::FimctlWorld {
  protected:
    Json setting(const std::string &key, std::vector<std::string> words = {}) {
        words.insert(words.begin(), {"config", "--json"});
        const Ended ended = fimctl(words);
        EXPECT_EQ(ended.status, 0) << ended.err;
        for (const Json &one : Json::parse(ended.out, nullptr, false).value("settings", Json())) {
            if (one["key"] == key) return one;
        }
        return Json::object();
    }
    // What a command says to a file's contents.
    Ended with_file(const std::string &text) {
        test::write_file(file, text);
        return fimctl({"list"});
    }
};

TEST_F(Configuration, command_line_wins_over_environment_over_file_over_built_in) {
    EXPECT_EQ(setting("lock_wait")["value"], 60);
    EXPECT_EQ(setting("lock_wait")["from"], "built-in");
    test::write_file(file, "# waits\nlock_wait = 1\n");
    EXPECT_EQ(setting("lock_wait")["value"], 1);
    EXPECT_EQ(setting("lock_wait")["from"], "file");
    EXPECT_EQ(setting("lock_wait")["where"], std::string(file) + ":2");
    setenv("FIMCTL_LOCK_WAIT", "2.5", 1);
    EXPECT_EQ(setting("lock_wait")["value"], 2.5);
    EXPECT_EQ(setting("lock_wait")["from"], "environment");
    EXPECT_EQ(setting("lock_wait")["where"], "FIMCTL_LOCK_WAIT");
    const Json said = setting("lock_wait", {"--lock-wait", "3"});
    EXPECT_EQ(said["value"], 3);
    EXPECT_EQ(said["from"], "command line");
    EXPECT_EQ(said["where"], "--lock-wait");
    EXPECT_EQ(said["built_in"], 60);
}

TEST_F(Configuration, every_setting_can_be_said_in_the_file_and_in_the_environment) {
    std::string text;
    for (const fimctl::Setting &one : fimctl::all_settings()) {
        const bool is_text = std::holds_alternative<fimctl::Text>(one.kind);
        const std::string value = is_text                                          ? "/other"
                                  : std::holds_alternative<fimctl::Flag>(one.kind) ? "true"
                                                                                   : "1";
        text += std::string(one.key) + " = " + (is_text ? "\"" + value + "\"" : value) + "\n";
    }
    test::write_file(file, text);
    for (const fimctl::Setting &one : fimctl::all_settings()) {
        EXPECT_EQ(setting(one.key)["from"], "file") << one.key;
    }
    for (const fimctl::Setting &one : fimctl::all_settings()) {
        const bool is_text = std::holds_alternative<fimctl::Text>(one.kind);
        setenv(fimctl::environment_name_of(one).c_str(), is_text ? "/third" : "1", 1);
        EXPECT_EQ(setting(one.key)["from"], "environment") << one.key;
    }
}

TEST_F(Configuration, the_listing_names_value_and_origin_of_every_setting) {
    test::write_file(file, "quiet = true\n");
    const Ended ended = fimctl({"config", "--state", "/var/lib/other"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.err, "");
    EXPECT_NE(ended.out.find("\"/var/lib/other\""), std::string::npos) << ended.out;
    EXPECT_NE(ended.out.find("command line (--state)"), std::string::npos) << ended.out;
    EXPECT_NE(ended.out.find("file (/etc/fimctl/fimctl.toml:1)"), std::string::npos) << ended.out;
    for (const fimctl::Setting &one : fimctl::all_settings()) {
        EXPECT_NE(ended.out.find(std::string("\n") + one.key + " "), std::string::npos) << one.key;
    }
}

TEST_F(Configuration, the_file_reaches_the_work_itself) {
    test::write_file(file,
                     "state = \"/var/lib/elsewhere\"\nquiesce = false\nquiet = true\n"
                     "config = \"backup_copy=1\"\nlog = \"/var/fim.log\"\n");
    const std::string one = add_file_system("one", "000184500123", "00A1", "00B1");
    const Ended ended = fimctl({"freeze", one});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.err, "") << "quiet";
    EXPECT_EQ(snapshot(1, "/var/lib/elsewhere").config, "backup_copy=1");
    EXPECT_FALSE(snapshot(1, "/var/lib/elsewhere").quiesced);
    EXPECT_TRUE(test::exists("/var/fim.log"));
}

TEST_F(Configuration, a_flag_of_the_file_is_taken_back_on_the_command_line) {
    test::write_file(file, "quiet = true\nquiesce = false\n");
    EXPECT_EQ(setting("quiet", {"--no-quiet"})["value"], false);
    const std::string one = add_file_system("one", "000184500123", "00A1", "00B1");
    EXPECT_NE(fimctl({"freeze", "--quiesce", one}).status, 0) << "a tmpfs cannot be frozen";
    EXPECT_EQ(fimctl({"freeze", one}).status, 0);
}

TEST_F(Configuration, an_unknown_key_is_named_with_file_and_line) {
    const Ended ended = with_file("quiet = true\n\nlock-wait = 5\n");
    EXPECT_EQ(ended.status, 2);
    EXPECT_EQ(ended.out, "");
    EXPECT_NE(ended.err.find("/etc/fimctl/fimctl.toml:3: unknown key \"lock-wait\"; there are "
                             "method, state, log, lock_wait,"),
              std::string::npos)
        << ended.err;
    EXPECT_NE(ended.err.find("next: correct it: fimctl.toml(5)"), std::string::npos) << ended.err;
}

TEST_F(Configuration, a_file_that_is_no_toml_is_named_with_its_line) {
    const Ended ended = with_file("quiet = true\nstate = = 1\n");
    EXPECT_EQ(ended.status, 2);
    EXPECT_NE(ended.err.find("/etc/fimctl/fimctl.toml:2: "), std::string::npos) << ended.err;
    EXPECT_EQ(with_file("quiet = true\nquiet = false\n").status, 2) << "a key twice";
    EXPECT_EQ(with_file("[freeze]\nquiet = true\n").status, 2) << "there are no sections";
}

TEST_F(Configuration, a_value_of_another_kind_or_out_of_range_says_what_is_wanted) {
    const std::pair<const char *, const char *> wrong[] = {
        {"lock_wait = \"soon\"", "a number of seconds from 0 to 86400"},
        {"lock_wait = 86401", "a number of seconds from 0 to 86400"},
        {"lock_wait = nan", "a number of seconds from 0 to 86400"},
        {"freeze_deadline = 0", "a number of seconds from 0.05 to 3600"},
        {"quiet = 1", "true or false"},
        {"verbose = 3", "a whole number from 0 to 2"},
        {"verbose = 1.5", "a whole number from 0 to 2"},
        {"verbose = true", "a whole number from 0 to 2"},
        {"state = \"\"", "a path that is not empty"},
        {"state = \"here\"", "a path that begins with \"/\""},
        {"state = \"/a\\nb\"", "without a newline"},
        {"state = [\"/a\"]", "a path"},
        {"config = 1", "a text"},
    };
    for (const auto &[line, wanted] : wrong) {
        const Ended ended = with_file(line);
        EXPECT_EQ(ended.status, 2) << line;
        EXPECT_NE(ended.err.find(wanted), std::string::npos) << line << ": " << ended.err;
        EXPECT_NE(ended.err.find("fimctl.toml:1: "), std::string::npos) << line;
    }
}

TEST_F(Configuration, a_mistake_in_the_file_shows_also_where_something_stronger_is_said) {
    test::write_file(file, "lock_wait = -1\n");
    EXPECT_EQ(fimctl({"--lock-wait", "3", "list"}).status, 2);
}

TEST_F(Configuration, a_wrong_variable_is_named) {
    setenv("FIMCTL_LOCK_WAIT", "soon", 1);
    const Ended ended = fimctl({"list"});
    EXPECT_EQ(ended.status, 2);
    EXPECT_NE(ended.err.find("FIMCTL_LOCK_WAIT: a number of seconds from 0 to 86400 is wanted, not "
                             "\"soon\""),
              std::string::npos)
        << ended.err;
    EXPECT_EQ(fimctl({"--lock-wait", "3", "list"}).status, 0) << "it was not asked";
}

TEST_F(Configuration, a_variable_that_belongs_to_no_setting_is_told_by_config_alone) {
    setenv("FIMCTL_LOCKWAIT", "1", 1);
    setenv("FIMCTL_SNAPSHOT", "7", 1);
    EXPECT_EQ(fimctl({"list"}).err, "");
    const Ended ended = fimctl({"config"});
    EXPECT_EQ(ended.err, "fimctl: FIMCTL_LOCKWAIT: no setting has this variable\n");
}

TEST_F(Configuration, another_file_is_named_by_option_or_variable_and_must_exist) {
    test::write_file(file, "lock_wait = 1\n");
    test::write_file("/var/second.toml", "lock_wait = 2\n");
    test::write_file("/var/third.toml", "lock_wait = 3\n");
    setenv("FIMCTL_CONFIG_FILE", "/var/second.toml", 1);
    EXPECT_EQ(setting("lock_wait")["value"], 2);
    EXPECT_EQ(setting("lock_wait", {"--config-file", "/var/third.toml"})["value"], 3);
    EXPECT_EQ(setting("lock_wait", {"--config-file", ""})["value"], 60) << "none at all";
    EXPECT_EQ(setting("lock_wait", {"--config-file", "/dev/null"})["value"], 60);
    const Ended missing = fimctl({"--config-file", "/var/none.toml", "list"});
    EXPECT_EQ(missing.status, 2);
    EXPECT_NE(missing.err.find("cannot read /var/none.toml: No such file"), std::string::npos)
        << missing.err;
    const Ended folder = fimctl({"--config-file", "/etc", "list"});
    EXPECT_EQ(folder.status, 2);
    EXPECT_NE(folder.err.find("cannot read /etc: Is a directory"), std::string::npos) << folder.err;
}

TEST_F(Configuration, a_file_that_others_can_write_is_refused) {
    test::write_file(file, "quiet = true\n");
    ASSERT_EQ(chmod(file, 0666), 0);
    const Ended ended = fimctl({"list"});
    EXPECT_EQ(ended.status, 13);
    EXPECT_NE(ended.err.find("chmod 644 /etc/fimctl/fimctl.toml"), std::string::npos) << ended.err;
    ASSERT_EQ(chmod(file, 0644), 0);
    if (!test::is_real_root()) GTEST_SKIP() << "needs root to give a file away";
    ASSERT_EQ(chown(file, 12345, 0), 0);
    EXPECT_EQ(fimctl({"list"}).status, 13);
}

TEST_F(Configuration, a_broken_file_is_no_reason_to_give_no_help) {
    test::write_file(file, "= = =\n");
    EXPECT_EQ(fimctl({"--help"}).status, 0);
    EXPECT_EQ(fimctl({"freeze", "--help"}).status, 0);
}

TEST_F(Configuration, a_reader_that_is_not_root_needs_no_access_to_the_log_of_the_file) {
    test::write_file(file, "log = \"/var/log/fim.log\"\nstate = \"/no/where\"\n");
    const pid_t pid = fork();
    if (pid == 0) {
        if (setuid(12345) != 0) _exit(99);
        _exit(fimctl({"list"}).status);
    }
    const Ended ended = finish(pid);
    EXPECT_EQ(ended.status, test::is_real_root() ? 0 : 99) << ended.err;
    EXPECT_FALSE(test::exists("/var/log/fim.log"));
}

TEST_F(Configuration, quiet_verbose_and_log_hold_for_reading_commands_too) {
    EXPECT_EQ(fimctl({"--log", "/var/fim.log", "show", "7"}).status, 10);
    EXPECT_NE(test::read_file("/var/fim.log").find("there is no snapshot 7"), std::string::npos);
    EXPECT_EQ(fimctl({"--log", "/no/folder/fim.log", "list"}).status, 2);
    EXPECT_EQ(fimctl({"-q", "-vv", "list"}).status, 0);
    EXPECT_EQ(fimctl({"-vvv", "list"}).status, 2);
}

TEST_F(Configuration, a_failed_command_with_json_leaves_standard_output_empty) {
    const Ended ended = fimctl({"show", "--json", "7"});
    EXPECT_EQ(ended.status, 10);
    EXPECT_EQ(ended.out, "");
    EXPECT_NE(ended.err.find("there is no snapshot 7"), std::string::npos);
}

}  // namespace
