// What every case stands on: a world that the cases of a topic share, the steps of a framework's
// process, and the words in which a case says what has to be seen.
//
// A case ends with the world as it was when the case began: the same pairs, locks, mounts, loop
// devices and temporary files. One that does not is red, and the next case gets a new world.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "tests/support/lab_world.h"

namespace conformance {

using test::Call;
using test::LabWorld;
using test::Phase;
using test::Words;

// The library under test: a file, or empty for the one that was built with these cases.
extern std::string library;
// Ends the worlds that the cases so far have shared.
void close_worlds();

class Contract : public testing::Test {
  protected:
    // Most cases: one host, a file system on /data, its pair synchronised.
    Contract() : Contract("demo", {"client1"}) {}
    Contract(std::string scenario, Words hosts)
        : scenario_(std::move(scenario)), hosts_(std::move(hosts)) {}

    void SetUp() override;
    void TearDown() override;
    // What a new world is given, once.
    virtual void furnish();

    // The text that a case stands for; a red case shows it.
    static void contract(const std::string &text);

    LabWorld &world() { return *world_; }
    std::string host(const std::string &line) { return world_->host(line); }
    std::string array(const std::string &line) { return world_->array(line); }
    // The pair is split as before the first snapshot; every release joins it again.
    void split_the_pair() { array("split 000184500123 00A1 01A1"); }

    // One process of the framework. It prints nothing, its two streams are none of the method's,
    // and no call leaves anything changed in it: signals, directory, descriptors, children.
    Phase run(const Words &steps, int level = 2);
    // The same, with something done after the first steps while the process is alive.
    Phase run_with(const Words &first, const std::function<void()> &meanwhile, const Words &rest,
                   int level = 2);

    // Files that travel between processes and hosts: /exchange/NAME.
    std::string file(const std::string &name) const;
    void write_file(const std::string &name, const std::string &text) const;
    void has_line(const std::string &name, const std::string &line) const;

  private:
    // Pairs when they have come to rest, and of every host counter files, mounts and temporary
    // files.
    std::string state();
    Phase judged(Phase phase) const;

    std::string scenario_;
    Words hosts_;
    LabWorld *world_ = nullptr;
};

// The steps of a process, to be put in a row with "+".
Words operator+(Words left, const Words &right);
Words freeze(const std::string &config = "-", const std::string &source = "/data",
             const std::string &fifs = "/copy");
Words freeze_no_wait(const std::string &source = "/data");
// Each argument as given; "null" is a null pointer.
Words freeze_with(const std::string &config, const std::string &source, const std::string &fifs,
                  const std::string &nvols, const std::string &flag, const std::string &handle);
Words commit();
Words ctl(int32_t code);
Words ckpt(const std::string &name = "text");
Words rebuild(const std::string &name = "text");
Words volumes();
Words thaw();
Words thaw_commit();
// Thaw and thaw commit.
Words release();
// The steps from here on are about another object; one that was never frozen is a null handle.
Words object(int number);
Words no_object();
Words record();
Words shell(const std::string &line);

// What has to be seen. Temporary names in logs are made equal: /tmp/QfMS??????.
void is(const std::string &what, const std::string &expected, const std::string &seen);
void is(const std::string &what, int64_t expected, int64_t seen);
void succeeds(const Call &call);
void all_succeed(const Phase &phase);
void fails(const Call &call, int number, const std::string &text, int status = 11);
void fails_beginning(const Call &call, int number, const std::string &text, int status = 11);
void handle_is(const Call &call, bool set);
void logs(const Call &call, const std::string &line);
void logs_not(const Call &call, const std::string &part);
void log_is(const Call &call, const Words &lines);
// A field of a record that record() told, of the n-th device where it is one of a device.
void field_is(const Call &call, const std::string &name, const std::string &value, size_t n = 0);
Words fixed_names(const Words &lines);
// The commands that a call ran, without what follows their arguments, and without the question for
// an array's serial number.
Words commands(const Call &call);
void ran(const Call &call, const Words &lines);

}  // namespace conformance
