// What bash offers when the user asks how a line may go on.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using test::Ended;

constexpr char program[] = TF_BINARY_DIR "/bin/fimctl";

class Completion : public test::FimctlWorld {
  protected:
    void SetUp() override {
        FimctlWorld::SetUp();
        // Bash reads the output of a command through it.
        if (!test::exists("/dev/fd")) {
            ASSERT_EQ(symlink("/proc/self/fd", "/dev/fd"), 0);
        }
    }
    // What is offered for the last of the words, sorted.
    std::string offered(const std::vector<std::string> &words) {
        std::string list = "COMP_WORDS=(" + std::string(program);
        for (const std::string &word : words) list += " '" + word + "'";
        const std::string body =
            "set -u\nsource <(" + std::string(program) + " completion bash) || exit 1\n" + list +
            ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_fimctl " + program +
            "\n[ ${#COMPREPLY[@]} = 0 ] || printf '%s\\n' \"${COMPREPLY[@]}\"\n";
        test::write_file("/var/fake/complete", body);
        return output_of_bash("/var/fake/complete");
    }
    static bool offers(const std::string &list, const std::string &word) {
        return ("\n" + list).find("\n" + word + "\n") != std::string::npos;
    }

  private:
    static std::string output_of_bash(const std::string &script) {
        const pid_t pid = fork();
        if (pid == 0) {
            const int file = open("/var/fake/offered", O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(file, STDOUT_FILENO);
            execl("/bin/bash", "bash", "--norc", script.c_str(), nullptr);
            _exit(127);
        }
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        EXPECT_EQ(status, 0);
        return test::read_file("/var/fake/offered");
    }
};

TEST_F(Completion, offers_every_command_of_the_help_page) {
    const std::string commands = offered({""});
    std::istringstream help(fimctl({"--help"}).out);
    bool listed = false;
    int count = 0;
    for (std::string line; std::getline(help, line);) {
        if (line == "Subcommands:") {
            listed = true;
        } else if (line.empty()) {
            listed = false;
        } else if (listed && line[2] != ' ') {
            const std::string name = line.substr(2, line.find(' ', 2) - 2);
            EXPECT_TRUE(offers(commands, name)) << name << " in " << commands;
            ++count;
        }
    }
    EXPECT_GE(count, 8);
    EXPECT_EQ(std::count(commands.begin(), commands.end(), '\n'), count);
}

TEST_F(Completion, of_a_begun_word_offers_what_begins_like_it) {
    EXPECT_EQ(offered({"rel"}), "release\n");
    EXPECT_EQ(offered({"--state", "/var/lib/other", "fr"}), "freeze\n")
        << "the value of an option is no command";
}

TEST_F(Completion, offers_the_options_of_the_command_and_those_of_all) {
    const std::string freeze = offered({"freeze", "--"});
    for (const char *option : {"--config", "--mount-at", "--no-quiesce", "--state", "--quiet"}) {
        EXPECT_TRUE(offers(freeze, option)) << option;
    }
    EXPECT_FALSE(offers(offered({"release", "--"}), "--mount-at"));
    EXPECT_EQ(offered({"list", "--al"}), "--all\n");
}

TEST_F(Completion, offers_the_numbers_of_the_snapshots) {
    const std::string one = add_file_system("one", "000184500123", "00A1", "00B1");
    const std::string two = add_file_system("two", "000184500123", "00A2", "00B2");
    EXPECT_EQ(offered({"mount", ""}), "");
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one}).status, 0);
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", two}).status, 0);
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_EQ(offered({"mount", ""}), "2\n");
    EXPECT_EQ(offered({"show", ""}), "1\n2\n") << "one that is over can be shown";
    EXPECT_EQ(offered({"release", "2", ""}), "") << "there is only one";
    EXPECT_EQ(offered({"cleanup", "1", ""}), "2\n") << "there may be several";
    EXPECT_EQ(offered({"restore", "--confirm", ""}), "") << "a code is nothing to choose";
}

TEST_F(Completion, asks_the_catalogue_that_the_line_names) {
    const std::string one = add_file_system("one", "000184500123", "00A1", "00B1");
    ASSERT_EQ(fimctl({"--state", "/var/lib/other", "freeze", "--no-quiesce", one}).status, 0);
    EXPECT_EQ(offered({"mount", ""}), "");
    EXPECT_EQ(offered({"--state", "/var/lib/other", "mount", ""}), "1\n");
}

TEST_F(Completion, behind_the_mark_of_a_run_offers_commands) {
    EXPECT_TRUE(offers(offered({"run", "/data", "--", "tai"}), "tail"));
    EXPECT_EQ(offered({"run", "/data", "--", "tail", "-"}), "") << "those are not ours";
}

TEST_F(Completion, leaves_paths_to_bash) {
    EXPECT_EQ(offered({"freeze", "/et"}), "");
    EXPECT_EQ(offered({"--log", "/et"}), "");
}

TEST_F(Completion, offers_the_one_shell_there_is) {
    EXPECT_EQ(offered({"completion", ""}), "bash\n");
    EXPECT_EQ(fimctl({"completion", "tcsh"}).status, 2);
    EXPECT_EQ(fimctl({"completion"}).status, 2);
}

TEST_F(Completion, needs_no_configuration_that_can_be_read) {
    test::write_file("/etc/fimctl/fimctl.toml", "= = =\n");
    const Ended ended = fimctl({"completion", "bash"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.err, "");
    EXPECT_NE(ended.out.find("complete -o default"), std::string::npos);
}

TEST_F(Completion, the_numbers_alone_are_listed_for_scripts) {
    const std::string one = add_file_system("one", "000184500123", "00A1", "00B1");
    EXPECT_EQ(fimctl({"list", "--ids"}).out, "");
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one}).status, 0);
    EXPECT_EQ(fimctl({"list", "--ids"}).out, "1\n");
}

}  // namespace
