#include "fimctl/restore/phase.h"

#include "fimctl/method.h"
#include "fimctl/phase.h"
#include "fimctl/signals.h"

namespace fimctl {
namespace {

class RestorePhase {
  public:
    RestorePhase(const RestoreJob &job, Channel &channel) : job_(job), talk_(channel) {}

    // A failure before the first end leaves nothing that was not there before: the locks end with
    // the process. After it the command looks at host and array, and puts back what is away.
    void run() {
        try {
            talk_.step(Step::load);
            Method method(job_.method);
            handles_ = rebuild_all(method, job_.texts, talk_);
            stop_when_interrupted(Step::rebuild);
            talk_.ask({{"rebuilt", true}}, Step::restore);
            signals::ignore();
            thaw(method);
            thaw_commit(method);
            talk_.done();
        } catch (const Failure &failure) {
            talk_.failed(failure, "");
        }
    }

  private:
    // No copy is mounted, so this is for the disk groups of copies and for temporary files.
    void thaw(Method &method) {
        for (size_t i = 0; i < handles_.size(); ++i) {
            talk_.step(Step::thaw, static_cast<int>(i));
            if (!method.thaw(handles_[i])) throw method_failure(method, Step::thaw);
        }
    }

    void thaw_commit(Method &method) {
        for (size_t place = 0; place < job_.ends.size(); ++place) {
            talk_.step(Step::thaw_commit, static_cast<int>(place));
            talk_.ask({{"ending", place}}, Step::thaw_commit);
            if (!method.thaw_commit(handles_.at(job_.ends[place]))) {
                throw method_failure(method, Step::thaw_commit);
            }
        }
    }

    const RestoreJob &job_;
    Conversation talk_;
    std::vector<hdef *> handles_;
};

}  // namespace

void run_restore_phase(const RestoreJob &job, Channel &channel) {
    RestorePhase(job, channel).run();
}

}  // namespace fimctl
