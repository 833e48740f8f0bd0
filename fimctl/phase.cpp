#include "fimctl/phase.h"

#include "fimctl/log.h"
#include "fimctl/signals.h"

namespace fimctl {
namespace {

// The error number that stands for "the session could not be started", and the messages of the
// calls that hide it behind the number of a failed operation.
constexpr int session_error = 12;
constexpr const char *session_messages[] = {"Could not initialize with SymAPI",
                                            "SymAPI call to SymInit failed",
                                            "Unsupported SYMAPI Version"};

bool is_array_failure(const Method &method) {
    if (method.number() == session_error) return true;
    for (const char *text : session_messages) {
        if (method.message().find(text) != std::string::npos) return true;
    }
    return false;
}

}  // namespace

Conversation::Conversation(Channel &channel) : channel_(channel) {
    log::new_phase();
}

void Conversation::step(Step step, int object) {
    log::progress(name_of(step) +
                  (object < 0 ? "" : " (object " + std::to_string(object + 1) + ")"));
    channel_.send({{"step", static_cast<int>(step)}});
}

void Conversation::ask(const Message &message, Step step) {
    channel_.send(message);
    const auto answer = channel_.receive();
    if (!answer || !answer->value("go", false)) {
        throw Failure(step, ExitCode::failed, "the command could not keep the snapshot's state");
    }
}

void Conversation::done() {
    channel_.send({{"done", true}});
}

void Conversation::failed(const Failure &failure, const std::string &trouble) {
    channel_.send({{"failed", failure.what()},
                   {"at", static_cast<int>(failure.step)},
                   {"code", static_cast<int>(failure.code)},
                   {"number", failure.number},
                   {"trouble", trouble}});
}

std::vector<hdef *> rebuild_all(Method &method, const std::vector<std::string> &texts,
                                Conversation &talk) {
    std::vector<hdef *> handles;
    for (size_t i = 0; i < texts.size(); ++i) {
        talk.step(Step::rebuild, static_cast<int>(i));
        hdef *handle = nullptr;
        if (!method.rebuild(texts[i], &handle)) throw method_failure(method, Step::rebuild);
        handles.push_back(handle);
    }
    return handles;
}

Failure method_failure(const Method &method, Step step) {
    if (log::other_owner() != 0) {
        return Failure(step, ExitCode::owned,
                       method.message() + "; process " + std::to_string(log::other_owner()) +
                           " owns the array's mirrors",
                       method.number());
    }
    return Failure(step, is_array_failure(method) ? ExitCode::array : ExitCode::failed,
                   method.message(), method.number());
}

void stop_when_interrupted(Step step) {
    if (signals::raised() != 0) throw Failure(step, ExitCode::interrupted, "interrupted");
}

}  // namespace fimctl
