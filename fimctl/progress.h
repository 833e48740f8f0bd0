// How far the work has come, for whoever waits for it.
//
// On a terminal that is one line which is rewritten: the step, what has been counted in it, and for
// how long it has been waited for. Anywhere else it is a line a step, and one every so often while
// a step takes its time. Only the command itself writes; its phases send it what they have to say,
// so that a phase in mid-cut never waits for a terminal.
#pragma once

#include <chrono>
#include <string>

namespace fimctl::progress {

// Before the first step. quiet: nothing is shown at all. between_lines: of a step that takes its
// time, where there is no terminal.
void set_up(bool quiet, std::chrono::milliseconds between_lines = std::chrono::seconds(10));

// Another process begins to work: it counts anew.
void new_phase();

// The work has come to this step.
void step(const std::string &text);
// The work is tried again and again until somebody else has ended; the steps of a try are not told
// anew, until one is reached that no earlier try has reached.
void waiting(const std::string &text);
// What has been achieved stays to be read.
void outcome(const std::string &text);
// What the method says in passing: devices found, pairs to establish and to split.
void method_line(const char *line);
// Where it does not say how many devices it has found, but somebody knows.
void found(int devices);
// The commit has succeeded. The method's own "Split end" is no word of that: it says it also when
// the array has refused, and only then looks at the pairs.
void all_split();
// To be called about once a second while something is waited for.
void tick();

// Whether a line of the method is one that method_line counts.
bool is_counted(const char *line);

// Takes the rewritten line away, before somebody else writes on the terminal.
void clear();
// Writes a whole line on standard error, over the rewritten one, which comes back with the next
// step or tick.
void write_line(const std::string &text);

// While one exists, steps go to the rewritten line (on a terminal); the last one takes it away, so
// that results are printed on a clean line.
class Line {
  public:
    Line();
    ~Line();
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;
};

// What is shown of a step: its text, counts and seconds, cut to a width.
std::string shown(const std::string &text, const std::string &counts, long seconds, size_t width);

}  // namespace fimctl::progress
