#include "fimctl/array_reader.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <memory>

#include "fimctl/catalogue.h"
#include "fimctl/paths.h"
#include "fimctl/worker.h"
#include "include/symapi.h"

namespace fimctl {
namespace {

// The mode that uses an existing database and never makes one.
constexpr int use_database = 3;

Failure unreachable(const std::string &text) {
    return Failure(Step::array, ExitCode::array, text);
}

class Session {
  public:
    Session() {
        library_ = dlopen(path::array_library, RTLD_NOW | RTLD_LOCAL);
        if (library_ == nullptr) {
            throw unreachable(std::string("cannot load the array library: ") + dlerror());
        }
        find("SymApiVersion", version_);
        find("SymInitV", init_);
        find("SymExit", exit_);
        find("SymPerror", perror_);
        find("SymDevShow", show_);
    }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    ~Session() {
        if (open_) exit_(session_, 0);
    }

    void open() {
        uint32_t number = 0;
        const char *text = nullptr;
        if (version_(&number, &text) != 0) number = 0;
        SymInitOptions options = {};
        options.version = SYM_INIT_OPTIONS_VERSION;
        int code = init_(path::array_database, use_database, &session_, &options, number);
        if (code != 0) code = init_(path::array_database, use_database, &session_, nullptr, number);
        if (code != 0) throw unreachable("the array does not answer: " + reason(code));
        open_ = true;
    }

    void show(const std::string &symid, const std::string &device, SymDevice &record) {
        const int code = show_(session_, symid.c_str(), device.c_str(), &record);
        if (code != 0) {
            throw unreachable("cannot read device " + device + " of array " + symid + ": " +
                              reason(code));
        }
    }

  private:
    template <typename Function>
    void find(const char *name, Function &function) {
        void *found = dlsym(library_, name);
        if (found == nullptr) {
            throw unreachable(std::string("the array library lacks ") + name);
        }
        memcpy(&function, &found, sizeof function);
    }

    std::string reason(int code) {
        const char *text = perror_(session_, code);
        return "code " + std::to_string(code) + " (" + (text == nullptr ? "" : text) + ")";
    }

    void *library_ = nullptr;
    bool open_ = false;
    int32_t session_ = -1;
    decltype(&SymApiVersion) version_ = nullptr;
    decltype(&SymInitV) init_ = nullptr;
    decltype(&SymExit) exit_ = nullptr;
    decltype(&SymPerror) perror_ = nullptr;
    decltype(&SymDevShow) show_ = nullptr;
};

long state_of(const SymDevice &device, const std::string &bcv) {
    for (int32_t i = 0; i < device.bcv_count && i < SYM_MAX_BCVS; ++i) {
        if (bcv == device.bcvs[i].bcvdev_sym_devname) return device.bcvs[i].bcv_pair_state;
    }
    return state_unknown;
}

std::vector<long> read_in_this_process(const std::vector<Pair> &pairs) {
    Session session;
    session.open();
    std::map<std::pair<std::string, std::string>, std::unique_ptr<SymDevice>> shown;
    std::vector<long> states;
    for (const Pair &pair : pairs) {
        auto &device = shown[{pair.symid, pair.device}];
        if (device == nullptr) {
            device = std::make_unique<SymDevice>();
            session.show(pair.symid, pair.device, *device);
        }
        states.push_back(state_of(*device, pair.bcv));
    }
    return states;
}

// Runs one reading in a child and hands its answer, or its failure, to the caller.
template <typename Reading>
std::vector<long> in_a_child(Step step, Reading reading) {
    Worker worker(
        [&reading](Channel &channel) {
            try {
                channel.send({{"states", reading()}});
            } catch (const Failure &failure) {
                channel.send({{"failure", failure.what()}});
            }
        },
        "");
    const auto answer = worker.receive();
    const std::string end = worker.reap();
    if (answer && answer->contains("states")) return answer->at("states");
    Failure failure = unreachable(answer ? answer->at("failure").get<std::string>()
                                         : "the process that reads the array died: " + end);
    failure.step = step;
    throw failure;
}

}  // namespace

const char *name_of_pair_state(long state) {
    switch (state) {
    case pair_state::synchronising:
        return "synchronising";
    case pair_state::synchronised:
        return "synchronised";
    case pair_state::splitting:
        return "splitting";
    case pair_state::split:
        return "split";
    case pair_state::restoring:
        return "restoring";
    case pair_state::restored:
        return "restored";
    default:
        return "unknown";
    }
}

std::vector<long> read_pair_states(const std::vector<Pair> &pairs, Step step) {
    if (pairs.empty()) return {};
    return in_a_child(step, [&pairs] { return read_in_this_process(pairs); });
}

void probe_array() {
    in_a_child(Step::array, [] {
        Session session;
        if (access(path::array_database, F_OK) == 0) session.open();
        return std::vector<long>();
    });
}

}  // namespace fimctl
