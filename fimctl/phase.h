// The three phases of a snapshot, each the body of a process of its own, and how a phase talks with
// the command that started it.
//
// A phase sends {"step"} before each call, and {"done"} or {"failed"} at its end; {"show"} is for
// the terminal, and the worker takes it out. Every other message is a result that the command keeps
// and answers with a "go": an answer of false, or none, makes the phase roll back.
#pragma once

#include <string>
#include <vector>

#include "fimctl/channel.h"
#include "fimctl/checkpoint_text.h"
#include "fimctl/failure.h"
#include "fimctl/method.h"

namespace fimctl {

struct FreezeObject {
    std::string source, fifs;
    bool is_volume = false;
};

struct FreezeJob {
    std::string method, config;
    std::vector<FreezeObject> objects;
    std::vector<std::string> quiesce;  // directories of the file systems to freeze
    double deadline = 0;               // seconds
    std::string mark;                  // where the guardian notes what it has frozen
};

// What is done from the texts: bring the copies up; take them down; take them down and end the
// snapshot on the array.
enum class TextWork { mount, take_down, release };

struct TextJob {
    std::string method;
    TextWork work = TextWork::mount;
    std::vector<std::string> texts;
};

// Freeze, control code 4, the cut, the checkpoints. Sends {"pairs"} before the cut and {"cut"} and
// {"object", "text"} after it.
void run_freeze_phase(const FreezeJob &job, Channel &channel);
// For a snapshot that was cut, or may have been, and has no text: freezes the same objects again
// with resynchronisation at start, and lets them go. What was split is established again.
void run_undo_phase(const FreezeJob &job, Channel &channel);
// Rebuild, and then: volumes and the changed record's checkpoint, {"object", "text", "copy"}; or
// thaw; or thaw, and on the primary host thaw commit.
void run_text_phase(const TextJob &job, Channel &channel);

class Conversation {
  public:
    explicit Conversation(Channel &channel);

    // Tells the user and the command which call comes next; object -1 where it concerns none alone.
    void step(Step step, int object = -1);
    // Sends a message and waits for the go; throws Failure when it is refused.
    void ask(const Message &message, Step step);
    void done();
    // trouble: what the clean-up could not do; empty when nothing is left.
    void failed(const Failure &failure, const std::string &trouble);

  private:
    Channel &channel_;
};

// The records of the texts, in their order. Throws Failure.
std::vector<hdef *> rebuild_all(Method &method, const std::vector<std::string> &texts,
                                Conversation &talk);
// The failure of the method's last call.
Failure method_failure(const Method &method, Step step);
// Throws Failure when the command was interrupted.
void stop_when_interrupted(Step step);

}  // namespace fimctl
