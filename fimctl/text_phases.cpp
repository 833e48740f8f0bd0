// The later processes of a snapshot: each begins with rebuild, from the latest text.
#include "fimctl/phase.h"
#include "fimctl/signals.h"

namespace fimctl {
namespace {

class TextPhase {
  public:
    TextPhase(const TextJob &job, Channel &channel) : job_(job), talk_(channel) {}

    void mount() {
        guarded([this](Method &method) {
            handles_ = rebuild_all(method, job_.texts, talk_);
            try {
                for (size_t i = 0; i < handles_.size(); ++i) bring_up(method, i);
            } catch (const Failure &failure) {
                talk_.failed(failure, take_down(method));
                return;
            }
            talk_.done();
        });
    }

    void release() {
        signals::ignore();
        guarded([this](Method &method) {
            handles_ = rebuild_all(method, job_.texts, talk_);
            const std::string trouble = take_down(method);
            // Nothing is re-established under a copy that is still mounted.
            if (!trouble.empty()) {
                throw Failure(Step::thaw, ExitCode::left, trouble, method.number());
            }
            if (job_.work == TextWork::release) thaw_commit(method);
            talk_.done();
        });
    }

  private:
    // A failure here leaves nothing that was not there before: the locks end with the process.
    template <typename Work>
    void guarded(Work work) {
        try {
            talk_.step(Step::load);
            Method method(job_.method);
            work(method);
        } catch (const Failure &failure) {
            talk_.failed(failure, "");
        }
    }

    // The record has changed with the mount (mounted, clone group), and only the text taken now
    // says so: it is the one to thaw with.
    void bring_up(Method &method, size_t i) {
        stop_when_interrupted(Step::volumes);
        talk_.step(Step::volumes, static_cast<int>(i));
        std::string copy;
        std::string text;
        if (!method.volumes(handles_[i], copy)) throw method_failure(method, Step::volumes);
        talk_.step(Step::checkpoint, static_cast<int>(i));
        if (!method.checkpoint(handles_[i], text)) {
            throw method_failure(method, Step::checkpoint);
        }
        // The method reads the mark of the backup host, and never writes it.
        if (CheckpointText(job_.texts[i]).is_target()) text = for_backup_host(text);
        talk_.ask({{"object", i}, {"text", text}, {"copy", copy}}, Step::checkpoint);
    }

    // Thaws all objects: the last one of a disk group gives the group back, so none is left out.
    std::string take_down(Method &method) {
        signals::ignore();
        std::string trouble;
        for (size_t i = 0; i < handles_.size(); ++i) {
            talk_.step(Step::thaw, static_cast<int>(i));
            if (!method.thaw(handles_[i])) trouble = method.message();
        }
        return trouble;
    }

    // Only the primary ends the snapshot on the array. A record that was made for the alternate
    // backup host has no locks there, and the primary still counts on the pair.
    void thaw_commit(Method &method) {
        for (const std::string &text : job_.texts) {
            if (CheckpointText(text).is_target()) return;
        }
        for (size_t i = 0; i < handles_.size(); ++i) {
            talk_.step(Step::thaw_commit, static_cast<int>(i));
            if (!method.thaw_commit(handles_[i])) throw method_failure(method, Step::thaw_commit);
        }
    }

    const TextJob &job_;
    Conversation talk_;
    std::vector<hdef *> handles_;
};

}  // namespace

void run_text_phase(const TextJob &job, Channel &channel) {
    TextPhase phase(job, channel);
    if (job.work == TextWork::mount) {
        phase.mount();
    } else {
        phase.release();
    }
}

}  // namespace fimctl
