#include "fimctl/method.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "fimctl/failure.h"
#include "fimctl/log.h"

namespace fimctl {
namespace {

// The framework's method-description record. The method writes its first 40 bytes; the rest is
// ours.
constexpr size_t description_size = 256;

template <typename Entry>
void find_entry(void *library, const char *name, Entry &entry) {
    void *found = dlsym(library, name);
    if (found == nullptr) {
        throw Failure(Step::load, ExitCode::failed,
                      std::string("the method lacks the entry point ") + name);
    }
    memcpy(&entry, &found, sizeof entry);
}

std::string without_line_end(const char *line, size_t size) {
    std::string text(line, strnlen(line, size));
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

}  // namespace

Method *Method::speaking_ = nullptr;

Method::Method(const std::string &path) {
    void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        throw Failure(Step::load, ExitCode::failed,
                      std::string("cannot load the method: ") + dlerror());
    }
    find_entry(library, "TimeFinder_init", entries_.init);
    find_entry(library, "TimeFinder_query", entries_.query);
    find_entry(library, "TimeFinder_set_locale", entries_.set_locale);
    find_entry(library, "TimeFinder_set_logf", entries_.set_logf);
    find_entry(library, "TimeFinder_freeze", entries_.freeze);
    find_entry(library, "TimeFinder_freeze_commit", entries_.freeze_commit);
    find_entry(library, "TimeFinder_ctl", entries_.ctl);
    find_entry(library, "TimeFinder_thaw", entries_.thaw);
    find_entry(library, "TimeFinder_thaw_commit", entries_.thaw_commit);
    find_entry(library, "TimeFinder_ckpt", entries_.ckpt);
    find_entry(library, "TimeFinder_rebuild", entries_.rebuild);
    find_entry(library, "TimeFinder_volumes", entries_.volumes);

    alignas(8) char description[description_size] = {};
    entries_.init(&number_, log_message_, user_message_);
    entries_.query(description);
    entries_.set_locale(nullptr, nullptr);
    speaking_ = this;
    entries_.set_logf(hear, log::level());
}

// A line of the log that stands in the message buffer as well is a failure's.
void Method::hear(const char *line) {
    log::method_line(line);
    if (speaking_ == nullptr || *line == '\0') return;
    const std::string text = without_line_end(line, TF_MESSAGE_SIZE);
    const char *message = speaking_->user_message_;
    if (text != without_line_end(message, TF_MESSAGE_SIZE)) return;
    auto &reported = speaking_->reported_;
    if (std::find(reported.begin(), reported.end(), text) == reported.end()) {
        reported.push_back(text);
    }
}

void Method::start_call() {
    number_ = 0;
    reported_.clear();
    user_message_[0] = '\0';
    log_message_[0] = '\0';
}

bool Method::ended(int32_t status) {
    status_ = status;
    return status == 0;
}

std::string Method::message() const {
    const std::string text = without_line_end(user_message_, sizeof user_message_);
    // A failed unmount returns without a message of the method's own.
    return text.empty() ? no_method_message + std::to_string(status_) : text;
}

std::string Method::earlier() const {
    const std::string last = message();
    std::string text;
    for (const std::string &one : reported_) {
        if (one != last) text += (text.empty() ? "" : "; ") + one;
    }
    return text;
}

bool Method::freeze(const std::string &config, const std::string &source, const std::string &fifs,
                    hdef **handle) {
    start_call();
    int32_t volumes = 0;
    return ended(entries_.freeze(config.empty() ? nullptr : config.c_str(), source.c_str(),
                                 fifs.c_str(), nullptr, &volumes, TF_FREEZE_WAIT, handle));
}

bool Method::control(hdef *handle, int32_t code) {
    start_call();
    return ended(entries_.ctl(handle, code));
}

bool Method::freeze_commit(hdef *handle) {
    start_call();
    return ended(entries_.freeze_commit(handle));
}

bool Method::checkpoint(hdef *handle, std::string &text) {
    start_call();
    char *made = nullptr;
    const bool good = ended(entries_.ckpt(handle, &made));
    const std::unique_ptr<char, decltype(&free)> owner(made, free);
    if (good && made != nullptr) text = made;
    return good;
}

bool Method::rebuild(const std::string &text, hdef **handle) {
    start_call();
    // The method cuts the text into lines in place.
    std::vector<char> copy(text.begin(), text.end());
    copy.push_back('\0');
    return ended(entries_.rebuild(handle, copy.data()));
}

bool Method::volumes(hdef *handle, std::string &path) {
    start_call();
    char found[TF_VOLPATH_SIZE] = "";
    int32_t count = 0;
    const bool good = ended(entries_.volumes(handle, found, &count));
    found[sizeof found - 1] = '\0';
    path = found;
    return good;
}

bool Method::thaw(hdef *handle) {
    start_call();
    return ended(entries_.thaw(handle));
}

bool Method::thaw_commit(hdef *handle) {
    start_call();
    return ended(entries_.thaw_commit(handle));
}

}  // namespace fimctl
