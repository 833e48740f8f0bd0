// A world of the lab, with the array of a scenario and hosts that load the method that ships.
// Whoever makes one stays in the machine's own namespaces; it needs root. What goes wrong in the
// lab itself is a std::runtime_error that tells what was run.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace test {

// What one call of an entry point gave.
struct Call {
    std::string step;
    int status = -1, number = -1;
    bool handle = false;
    std::string errmsg, logmsg;
    std::string volpath;
    int nvols = -1;
    std::vector<std::string> fields;   // of the record: NAME=VALUE
    std::vector<std::string> log;      // the lines logged by this call
    std::vector<std::string> changed;  // what this call left changed in its process

    bool logged(const std::string &line) const;
    bool logged_part(const std::string &part) const;
};

// What one process gave, call after call.
struct Phase {
    int status = -1;
    std::string output;
    std::vector<Call> calls;
    // Further lines of the report, "KEY VALUE", that belong to no call.
    std::vector<std::string> further;
    // The call of a name; throws when there is none.
    const Call &at(const std::string &step, size_t occurrence = 0) const;
};

using Words = std::vector<std::string>;

// A process that takes its steps.
struct Running {
    pid_t pid = -1;
    std::string name;
};

class LabWorld {
  public:
    // Scenario and hosts of this world; the calls below are about the first host until on() names
    // another.
    explicit LabWorld(std::string scenario = "demo", Words hosts = {"client1"})
        : scenario_(std::move(scenario)), hosts_(std::move(hosts)), on_(hosts_.front()) {}
    LabWorld(const LabWorld &) = delete;
    LabWorld &operator=(const LabWorld &) = delete;
    ~LabWorld();

    void start();
    // Ends everything in it; throws when it left something behind.
    void stop();

    // Starts one more host.
    void start_host(const std::string &name);
    // Ends a host that start_host() started, with everything that runs in it, and starts it again.
    void restart_host(const std::string &name);
    void on(const std::string &name) { on_ = name; }
    // Runs a line of the shell in the host; its status has to be 0. Returns both streams.
    std::string host(const std::string &line);
    std::string host(const std::string &line, int *status);
    // Runs tfarray in the host.
    std::string array(const std::string &line) { return host("tfarray " + line); }
    // One process that loads the shipped library and takes these steps.
    Phase phase(const Words &steps, int level = 2, const Words &environment = {});
    // The same in two parts, between which other processes run. Variables of the environment are
    // NAME=VALUE; LD_PRELOAD is added to the lab's own.
    Running begin_phase(const Words &steps, int level = 2, const Words &environment = {});
    // What it gave; its status has to be the expected one (128 + a signal that ended it).
    Phase end_phase(const Running &running, int expected_status = 0);
    // The same whatever its status; a process that takes longer than this many real seconds is
    // killed (status 137).
    Phase try_phase(const Words &steps, double limit, int level = 2, const Words &environment = {});

    // Makes a file system on the standard device of the demo and mounts it on /data.
    void mount_source(const std::string &type = "ext4");
    // The mirror runs, as it does between two snapshots.
    void synchronise();
    int pair_state(const std::string &primary = "00A1", const std::string &bcv = "01A1",
                   const std::string &symid = "000184500123");
    // Tracks (64 KiB) that the pair's last establish or restore moved.
    int64_t tracks_moved(const std::string &primary = "00A1", const std::string &bcv = "01A1",
                         const std::string &symid = "000184500123");
    // Pair states, counter files, mounts, loop devices, temporary files: what a failure must not
    // change.
    std::string picture();
    std::string loops();  // a line for each loop device of the world
    std::string counter_files();

    // The daemon of the array ends, and starts again with what it had.
    void end_array();
    void restart_array();

    // Files of /exchange, by which a running phase and the case wait for each other.
    void wait_for_file(const std::string &name);
    void make_file(const std::string &name);

    std::filesystem::path exchange() const;  // the host's /exchange

  private:
    // Runs tflab with these arguments, which has to succeed.
    void lab(const Words &arguments);
    Running begin(const Words &steps, double limit, int level, const Words &environment);
    Phase gave(const Running &running);
    int end(std::string *said);
    pid_t array_daemon() const;

    pid_t outer_ = -1, first_ = -1, second_daemon_ = -1;
    int life_ = -1;
    std::string scenario_;
    Words hosts_;
    std::string on_;
    std::string scratch_;
    std::vector<std::string> daemon_line_;
    int phases_ = 0;
};

}  // namespace test
