// The first process of a snapshot: it freezes the objects, cuts the copy and keeps its text.
#include "fimctl/guardian.h"
#include "fimctl/log.h"
#include "fimctl/phase.h"
#include "fimctl/signals.h"

namespace fimctl {
namespace {

class FreezePhase {
  public:
    FreezePhase(const FreezeJob &job, Channel &channel) : job_(job), talk_(channel) {}

    void freeze() {
        guarded([this](Method &method) {
            freeze_objects(method);
            resync_at_start(method);
            tell_pairs(method);
            cut(method);
            checkpoint(method);
            talk_.done();
        });
    }

    void undo() {
        guarded([this](Method &method) {
            freeze_objects(method);
            resync_at_start(method);
            const std::string trouble = roll_back(method);
            if (trouble.empty()) {
                talk_.done();
            } else {
                talk_.failed(Failure(Step::thaw_commit, ExitCode::left, trouble), trouble);
            }
        });
    }

  private:
    template <typename Work>
    void guarded(Work work) {
        try {
            talk_.step(Step::load);
            Method method(job_.method);
            try {
                work(method);
            } catch (const Failure &failure) {
                talk_.failed(failure, roll_back(method));
            }
        } catch (const Failure &failure) {
            talk_.failed(failure, "");
        }
    }

    void freeze_objects(Method &method) {
        for (size_t i = 0; i < job_.objects.size(); ++i) {
            stop_when_interrupted(Step::freeze);
            talk_.step(Step::freeze, static_cast<int>(i));
            hdef *handle = nullptr;
            const bool good =
                method.freeze(job_.config, job_.objects[i].source, job_.objects[i].fifs, &handle);
            // A freeze that fails and still returns a handle holds array locks: it is let go with
            // the others.
            if (handle != nullptr) handles_.push_back(handle);
            if (!good) throw method_failure(method, Step::freeze);
        }
    }

    // Always between the last freeze and the commit: a labelled BCV that is split has only been
    // queued by the freeze, and the commit refuses it. Never after the commit: the same table then
    // holds what was just split, and would be established again.
    void resync_at_start(Method &method) {
        stop_when_interrupted(Step::control);
        talk_.step(Step::control);
        if (!method.control(handles_.back(), TF_CTL_RESYNC_AT_START)) {
            throw method_failure(method, Step::control);
        }
    }

    // The pairs as they are before the cut. A volume is left out: the checkpoint of a volume runs
    // the clone tool, once in a process, and the text that counts is the one after the split.
    void tell_pairs(Method &method) {
        talk_.step(Step::states);
        Message objects = Message::array();
        for (size_t i = 0; i < handles_.size(); ++i) {
            Message pairs = Message::array();
            std::string text;
            if (!job_.objects[i].is_volume && !method.checkpoint(handles_[i], text)) {
                throw method_failure(method, Step::states);
            }
            for (const Pair &pair : CheckpointText(text).pairs()) {
                pairs.push_back({pair.symid, pair.device, pair.bcv});
            }
            objects.push_back(pairs);
        }
        size_t devices = 0;
        for (const Message &pairs : objects) devices += pairs.size();
        log::found(static_cast<int>(devices));
        talk_.ask({{"pairs", objects}}, Step::states);
        stop_when_interrupted(Step::states);
    }

    // The commit keeps the array's answer to itself, looks at the pairs for a minute, and fails
    // with what it sees then. Why that is so comes first.
    static Failure commit_failure(const Method &method) {
        Failure failure = method_failure(method, Step::commit);
        if (method.earlier().empty()) return failure;
        return Failure(failure.step, failure.code,
                       method.earlier() + "; in the end: " + failure.what(), failure.number);
    }

    // Every handle is committed: the first call splits all of them, but a handle without devices of
    // its own answers success without having split anything.
    void cut(Method &method) {
        signals::ignore();
        if (!job_.quiesce.empty()) talk_.step(Step::quiesce);
        Guardian guardian(job_.quiesce, job_.deadline, job_.mark);
        talk_.step(Step::commit);
        for (hdef *handle : handles_) {
            if (!method.freeze_commit(handle)) throw commit_failure(method);
        }
        log::all_split();
        const Guardian::End end = guardian.thaw();
        Message split = Message::array();
        for (const auto &[device, bcv] : log::split_list()) split.push_back({device, bcv});
        talk_.ask({{"cut", end.frozen_ms},
                   {"late", end.late},
                   {"disturbed", end.disturbed},
                   {"split", split}},
                  Step::commit);
    }

    void checkpoint(Method &method) {
        for (size_t i = 0; i < handles_.size(); ++i) {
            talk_.step(Step::checkpoint, static_cast<int>(i));
            std::string text;
            if (!method.checkpoint(handles_[i], text)) {
                throw method_failure(method, Step::checkpoint);
            }
            talk_.ask({{"object", i}, {"text", with_clone_information(text)}}, Step::checkpoint);
        }
    }

    // All thaws come before the first thaw commit, and every handle gets both: the array work is
    // done by the call that completes the number of objects. Nothing is mounted here, so a failed
    // thaw is no reason to keep the locks.
    std::string roll_back(Method &method) {
        signals::ignore();
        std::string trouble;
        for (size_t i = 0; i < handles_.size(); ++i) {
            talk_.step(Step::thaw, static_cast<int>(i));
            if (!method.thaw(handles_[i])) trouble = method.message();
        }
        for (size_t i = 0; i < handles_.size(); ++i) {
            talk_.step(Step::thaw_commit, static_cast<int>(i));
            if (!method.thaw_commit(handles_[i])) trouble = method.message();
        }
        return trouble;
    }

    const FreezeJob &job_;
    Conversation talk_;
    std::vector<hdef *> handles_;
};

}  // namespace

void run_freeze_phase(const FreezeJob &job, Channel &channel) {
    FreezePhase(job, channel).freeze();
}

void run_undo_phase(const FreezeJob &job, Channel &channel) {
    FreezePhase(job, channel).undo();
}

}  // namespace fimctl
