#include "fimctl/array_session.h"

#include <dlfcn.h>

#include <cstring>

#include "fimctl/paths.h"
#include "fimctl/worker.h"

namespace fimctl {
namespace {

// The mode that uses an existing database and never makes one.
constexpr int use_database = 3;

}  // namespace

Failure array_unreachable(const std::string &text) {
    return Failure(Step::array, ExitCode::array, text);
}

template <typename Function>
Function *ArraySession::find(const char *name) const {
    void *found = dlsym(library_, name);
    if (found == nullptr) {
        throw array_unreachable(std::string("the array library lacks ") + name);
    }
    Function *function = nullptr;
    memcpy(&function, &found, sizeof function);
    return function;
}

ArraySession::ArraySession() : library_(dlopen(path::array_library, RTLD_NOW | RTLD_LOCAL)) {
    if (library_ == nullptr) {
        throw array_unreachable(std::string("cannot load the array library: ") + dlerror());
    }
}

ArraySession::~ArraySession() {
    if (open_) find<decltype(SymExit)>("SymExit")(session_, 0);
}

bool ArraySession::has(const char *name) const {
    return dlsym(library_, name) != nullptr;
}

uint32_t ArraySession::version(std::string *text) {
    uint32_t number = 0;
    const char *words = nullptr;
    const bool good = find<decltype(SymApiVersion)>("SymApiVersion")(&number, &words) == 0;
    if (text != nullptr) *text = good && words != nullptr ? words : "unknown";
    return good ? number : 0;
}

std::string ArraySession::patch_level() {
    const char *words = nullptr;
    if (!has("SymApiPatch")) return "unknown";
    const bool good = find<decltype(SymApiPatch)>("SymApiPatch")(&words) == 0;
    return good && words != nullptr ? words : "unknown";
}

void ArraySession::require_functions() const {
    for (const char *name : {"SymApiVersion", "SymInitV", "SymExit", "SymPerror", "SymDevShow"}) {
        if (!has(name)) throw array_unreachable(std::string("the array library lacks ") + name);
    }
}

void ArraySession::open() {
    require_functions();
    auto *init = find<decltype(SymInitV)>("SymInitV");
    const uint32_t number = version();
    SymInitOptions options = {};
    options.version = SYM_INIT_OPTIONS_VERSION;
    int code = init(path::array_database, use_database, &session_, &options, number);
    if (code != 0) code = init(path::array_database, use_database, &session_, nullptr, number);
    if (code != 0) throw array_unreachable("the array does not answer: " + reason(code));
    open_ = true;
}

int ArraySession::show_device(const std::string &symid, const std::string &device,
                              SymDevice &record) {
    return find<decltype(SymDevShow)>("SymDevShow")(session_, symid.c_str(), device.c_str(),
                                                    &record);
}

int ArraySession::show_path(const std::string &path, SymDevice &record) {
    return find<decltype(SymPdevShow)>("SymPdevShow")(session_, path.c_str(), &record);
}

std::string ArraySession::reason(int code) {
    const char *text = find<decltype(SymPerror)>("SymPerror")(session_, code);
    return "code " + std::to_string(code) + " (" + (text == nullptr ? "" : text) + ")";
}

Message read_elsewhere(Step step, const std::function<Message()> &reading) {
    Worker worker(
        [&reading](Channel &channel) {
            try {
                channel.send({{"answer", reading()}});
            } catch (const Failure &failure) {
                channel.send(
                    {{"failure", failure.what()}, {"code", static_cast<int>(failure.code)}});
            }
        },
        "");
    const auto answer = worker.receive();
    const std::string end = worker.reap();
    if (answer && answer->contains("answer")) return answer->at("answer");
    Failure failure = answer ? Failure(step, static_cast<ExitCode>(answer->at("code").get<int>()),
                                       answer->at("failure").get<std::string>())
                             : array_unreachable("the process that reads the array died: " + end);
    failure.step = step;
    throw failure;
}

}  // namespace fimctl
