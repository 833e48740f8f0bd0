// tflab: starts worlds, starts hosts in them, runs commands in hosts.
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "lab/host/host.h"
#include "lab/host/loops.h"
#include "lab/host/places.h"
#include "lab/host/shell.h"
#include "lab/host/world.h"

namespace {

using tflab::fs::path;

constexpr int lab_failure = 125;  // the lab itself failed, not the command that it ran

// What all commands that start a world share.
struct Start {
    std::string build, scenario, pid_file, media = "loop";
    uint64_t store_bytes = 16ULL << 30;
    std::vector<std::string> hosts;
    bool administrator = false, bare = false;
};

void add_start_options(CLI::App *command, Start *start) {
    command->add_option("--build", start->build, "the build folder (that of this program)");
    command->add_option("--scenario", start->scenario,
                        "array to build: a file, or a name of lab/scenarios");
    command->add_option("--host", start->hosts, "start this host (may be repeated)")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    command->add_flag("--admin", start->administrator,
                      "the hosts see the array's administration too");
    command->add_option("--pid-file", start->pid_file,
                        "where to write the process number of the world");
    command->add_option("--media", start->media, "loop (real devices) or files")
        ->check(CLI::IsMember({"loop", "files"}));
    command->add_option("--store-size", start->store_bytes, "size of the array's sparse store")
        ->transform(CLI::AsSizeValue(false));
    command->add_flag("--bare", start->bare, "no array");
}

path scenario_file(const std::string &given) {
    for (const path &candidate :
         {path(given), path(TF_SCENARIO_DIR) / given, path(TF_SCENARIO_DIR) / (given + ".toml")}) {
        if (tflab::fs::is_regular_file(candidate)) return tflab::fs::absolute(candidate);
    }
    throw std::runtime_error("there is no scenario '" + given + "'");
}

tflab::WorldOptions world_options(const Start &start) {
    tflab::WorldOptions options;
    options.build = start.build.empty()
                        ? tflab::fs::read_symlink("/proc/self/exe").parent_path().parent_path()
                        : tflab::fs::canonical(start.build);
    options.store_bytes = start.store_bytes;
    options.media = start.media;
    options.array = !start.bare;
    options.in_outer = [pid_file = start.pid_file](pid_t first) {
        // A key pressed on the terminal is for the command in the world; its end ends the world.
        signal(SIGINT, SIG_IGN);
        signal(SIGQUIT, SIG_IGN);
        if (!pid_file.empty()) tflab::write_text(pid_file, std::to_string(first) + "\n");
    };
    return options;
}

// Starts the hosts, then the scenario: it may refer to them.
void furnish(const Start &start, const std::string &scenario) {
    for (const std::string &host : start.hosts) tflab::start_host(host, start.administrator);
    if (!scenario.empty()) tflab::administer({"build", scenario});
}

// Whoever enters a mount namespace gets its root, not that of the process that made it. After a
// chroot the commands of a host would work on the machine's own files.
void require_whole_root() {
    const auto root_mount = [] {
        struct statx root = {};
        if (statx(AT_FDCWD, "/", 0, STATX_MNT_ID, &root) != 0) tflab::fails("read the root");
        return root.stx_mnt_id;
    };
    const int status = tflab::wait_for(tflab::fork_into(0, [&root_mount] {
        const auto own = root_mount();
        const tflab::Fd space = tflab::open_file("/proc/self/ns/mnt", O_RDONLY);
        if (setns(space.get(), CLONE_NEWNS) != 0) return lab_failure;
        return own == root_mount() ? 0 : 1;
    }));
    if (status == lab_failure) throw std::runtime_error("cannot tell whether the root is changed");
    if (status != 0) throw std::runtime_error("a world cannot be started behind a chroot");
}

int in_new_world(const Start &start, const std::function<int()> &body) {
    if (geteuid() != 0) throw std::runtime_error("a world needs root");
    require_whole_root();
    const std::string scenario =
        start.scenario.empty() ? "" : scenario_file(start.scenario).string();
    tflab::die_with_any_parent();
    return tflab::run_world(world_options(start), [&] {
        furnish(start, scenario);
        return body();
    });
}

// Runs a function in a world that was started elsewhere; in the own one for 0.
int in_world(pid_t world, const std::function<int()> &body) {
    if (world == 0) return body();
    tflab::die_with_any_parent();
    tflab::enter_world(world);
    tflab::Pipe life = tflab::make_pipe();
    const pid_t inside = tflab::fork_into(0, [&] {
        life.write.reset();
        tflab::die_with_parent(life.read.get());
        return body();
    });
    life.read.reset();
    return tflab::wait_for(inside);
}

int list_hosts() {
    for (const std::string &name : tflab::host_names()) printf("%s\n", name.c_str());
    return 0;
}

int list_loops() {
    tflab::require_world();
    for (const tflab::Loop &loop : tflab::loops_below(tflab::place::base, "/dev")) {
        printf("%d %llu %s\n", loop.number, static_cast<unsigned long long>(loop.sequence),
               loop.file.c_str());
    }
    return 0;
}

int execute_here(const std::vector<std::string> &command) {
    tflab::execute(command, tflab::own_environment());
}

// The commands; each leaves what is to be done in action.
class Commands {
  public:
    Commands() {
        app_.require_subcommand(1);
        add_world_commands();
        add_host_commands();
    }

    int run(int argc, char **argv) {
        std::vector<std::string> own(argv + 1, argv + argc);
        const auto separator = std::find(own.begin(), own.end(), "--");
        if (separator != own.end()) command_.assign(separator + 1, own.end());
        own.erase(separator, own.end());
        std::reverse(own.begin(), own.end());  // the order in which the parser takes them
        try {
            app_.parse(own);
        } catch (const CLI::ParseError &error) {
            return app_.exit(error) == 0 ? 0 : lab_failure;
        }
        return action_();
    }

  private:
    // The command is what stands behind "--", so that its own options stay its own.
    void on_command(CLI::App *subcommand, std::function<int()> action) {
        subcommand->footer("-- COMMAND [ARGUMENT...]   the command");
        subcommand->callback([this, action = std::move(action)] {
            if (command_.empty()) throw CLI::RequiredError("-- COMMAND");
            action_ = action;
        });
    }

    void add_world_commands() {
        CLI::App *run = app_.add_subcommand("run", "run a command in a new world and end with it");
        add_start_options(run, &start_);
        on_command(run, [this] {
            return in_new_world(start_, [this] { return execute_here(command_); });
        });
        CLI::App *shell =
            app_.add_subcommand("shell", "open a shell in a new world: one host, a small array");
        shell->callback([this] {
            action_ = [this] {
                start_.hosts = {"client1"};
                start_.scenario = "small";
                start_.administrator = true;
                return in_new_world(start_, [] { return tflab::run_shell_in_host("client1"); });
            };
        });
        CLI::App *loops = app_.add_subcommand("loops", "list the loop devices of a world");
        loops->add_option("--world", world_, "process number of the world (--pid-file)");
        loops->callback([this] { action_ = [this] { return in_world(world_, list_loops); }; });
    }

    void add_host_commands() {
        CLI::App *execute = app_.add_subcommand("exec", "run a command in a host");
        execute->add_option("--world", world_, "process number of the world (--pid-file)");
        execute->add_option("--env", variables_, "a variable for the command: NAME=VALUE");
        execute->add_option("host", host_, "the host")->required();
        on_command(execute, [this] {
            return in_world(world_,
                            [this] { return tflab::execute_in_host(host_, command_, variables_); });
        });
        CLI::App *host = app_.add_subcommand("host", "start, stop and list hosts");
        host->require_subcommand(1);
        host->add_option("--world", world_, "process number of the world (--pid-file)");
        CLI::App *start = host->add_subcommand("start", "start a host in this world");
        start->add_option("name", host_, "its name")->required();
        start->add_flag("--admin", start_.administrator, "it sees the array's administration too");
        start->callback([this] {
            action_ = [this] {
                return in_world(world_, [this] {
                    tflab::start_host(host_, start_.administrator);
                    return 0;
                });
            };
        });
        CLI::App *stop = host->add_subcommand("stop", "end a host");
        stop->add_option("name", host_, "its name")->required();
        stop->callback([this] {
            action_ = [this] {
                return in_world(world_, [this] {
                    tflab::stop_host(host_);
                    return 0;
                });
            };
        });
        host->add_subcommand("list", "list the hosts")->callback([this] {
            action_ = [this] { return in_world(world_, list_hosts); };
        });
    }

    CLI::App app_{
        "Worlds of the lab: an array and client hosts in namespaces of their own.\n"
        "A world ends with the process that started it, however that ends, and leaves\n"
        "nothing: no process, mount, loop device or file.",
        "tflab"};
    Start start_;
    std::string host_;
    std::vector<std::string> command_, variables_;
    pid_t world_ = 0;
    std::function<int()> action_;
};

}  // namespace

int main(int argc, char **argv) {
    try {
        return Commands().run(argc, argv);
    } catch (const std::exception &error) {
        fprintf(stderr, "tflab: %s\n", error.what());
        return lab_failure;
    }
}
