// One process of the framework: loads the method as the framework does and calls the entry points
// that its arguments name, in their order.
//
// usage: tfphase REPORT LEVEL STEP...
//   freeze CONFIG SOURCE FIFS     CONFIG "-" is no configuration
//   freeze_no_wait CONFIG SOURCE FIFS
//   object N                      the steps from here on are about object N; before, about 0
//   record                        tells what the object's record holds of its configuration
//   ctl CODE | commit | volumes | thaw | thaw_commit
//   ckpt FILE | rebuild FILE      the checkpoint text is in FILE
//   rollback                      thaw and thaw_commit when there is a handle
//   or_give_up                    when the call before failed: thaw and then thaw_commit of every
//                                 object, and no further step
//   or_stop                       when the call before failed: no further step
//   run COMMAND                   a line for the shell, while this process is alive
//   close                         unloads the library; the last step. Status 0 when it is gone
//   init NUMBER LOGMSG ERRMSG | set_logf SINK LEVEL | set_locale MESSAGES LOGGING | query
//   freeze_with CONFIG SOURCE FIFS NVOLS FLAG HANDLE | ckpt_with TEXT | rebuild_with HANDLE TEXT |
//   volumes_with VOLPATH NVOLS    an entry point with these arguments: "null" is a null pointer, a
//                                 place that the method writes to is otherwise this process's own
//   foreign_handle                a handle that no call gave, to see who writes it
//   whole_record                  tells all that the object's record and its devices hold
//   parse OPTIONS TEXT            the configuration parser by itself (see parse.h)
//   utilities LINE... end         what the library exports for the framework itself
//   accept_qzfs | own_network ADDRESS     prepare the process (see utilities.h)
// As the first step, "bare" leaves out the calls that a framework begins with.
//
// REPORT gets a line "KEY VALUE" for everything seen, texts with \n for a newline: "log" for each
// line of the log, then of each call "step", "status", "number", "handle", "errmsg" and "logmsg";
// of "record" a line "field NAME=VALUE" for each field. A line "changed WHAT" tells what a call has
// changed of this process: signals, directory, descriptors and the like; of "close", against the
// process before it loaded the library.
#include <dlfcn.h>
#include <sys/prctl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "include/records.h"
#include "include/timefinder.h"
#include "tests/lab_method/phase/host_state.h"
#include "tests/lab_method/phase/parse.h"
#include "tests/lab_method/phase/record_fields.h"
#include "tests/lab_method/phase/surroundings.h"
#include "tests/lab_method/phase/utilities.h"

namespace {

constexpr char method_path[] = "/usr/quill/tessera/lib/libtimefinder_fim.so";
constexpr int32_t no_number = -1;
constexpr size_t most_objects = 16;

FILE *report;
phase::Surroundings surroundings;
// Lines that were logged where nothing can be written to the report.
std::vector<std::string> kept_log;

void tell(const char *key, const std::string &text) {
    fprintf(report, "%s ", key);
    for (const char c : text) {
        if (c == '\n')
            fputs("\\n", report);
        else
            fputc(c, report);
    }
    fputc('\n', report);
    fflush(report);
}

[[noreturn]] void give_up(const std::string &why) {
    fprintf(stderr, "tfphase: %s\n", why.c_str());
    exit(2);
}

// The entry points as the framework finds them: by their names.
class Method {
  public:
    Method() {
        library_ = dlopen(method_path, RTLD_NOW | RTLD_LOCAL);
        if (library_ == nullptr) give_up(dlerror());
    }
    void begin(int32_t level) {
        entry<decltype(TimeFinder_init)>("TimeFinder_init")(&number_, logmsg_, errmsg_);
        entry<decltype(TimeFinder_set_locale)>("TimeFinder_set_locale")(nullptr, nullptr);
        entry<decltype(TimeFinder_set_logf)>("TimeFinder_set_logf")(log_line, level);
    }

    template <class Entry, class... Arguments>
    void step(const char *name, const char *symbol, Arguments... arguments) {
        number_ = no_number;
        errmsg_[0] = logmsg_[0] = '\0';
        Entry *const call = entry<Entry>(symbol);
        int32_t status = -1;
        surroundings.enter();
        const phase::HostState before;
        surroundings.call([&] { status = call(arguments...); });
        auto changes = before.changes(phase::HostState());
        surroundings.leave();
        tell_kept_log();
        if (surroundings.printed_into_a_file()) changes.push_back("what it opened took a print");
        failed_ = status != 0;
        tell("step", name);
        tell("status", std::to_string(status));
        tell("number", std::to_string(number_));
        tell("handle", handle() != nullptr ? "1" : "0");
        tell("errmsg", errmsg_);
        tell("logmsg", logmsg_);
        for (const std::string &change : changes) tell("changed", change);
    }

    void freeze(const char *config, const char *source, const char *fifs, int32_t flag) {
        int32_t volumes = -1;
        const char *given = strcmp(config, "-") == 0 ? nullptr : config;
        step<decltype(TimeFinder_freeze)>("freeze", "TimeFinder_freeze", given, source, fifs,
                                          nullptr, &volumes, flag, &handle());
    }

    void record() {
        if (handle() == nullptr) give_up("there is no record");
        const hdef &h = *handle();
        const std::pair<const char *, int32_t> fields[] = {{"sync_at_start", h.sync_at_start},
                                                           {"async_resync", h.async_resync},
                                                           {"backup_copy", h.backup_copy},
                                                           {"max_snapshots", h.max_snapshots},
                                                           {"keep_fi", h.keep_fi},
                                                           {"dgimport", h.dgimport}};
        tell("step", "record");
        tell("status", "0");
        for (const auto &[name, value] : fields)
            tell("field", name + ("=" + std::to_string(value)));
    }

    void ckpt(const char *file) {
        char *text = nullptr;
        step<decltype(TimeFinder_ckpt)>("ckpt", "TimeFinder_ckpt", handle(), &text);
        if (text != nullptr) std::ofstream(file) << text;
        free(text);
    }

    void rebuild(const char *file) {
        std::ifstream in(file);
        if (!in) give_up(std::string("no file ") + file);
        std::string text((std::istreambuf_iterator<char>(in)), {});
        step<decltype(TimeFinder_rebuild)>("rebuild", "TimeFinder_rebuild", &handle(), text.data());
    }

    void volumes() {
        char path[TF_VOLPATH_SIZE] = "";
        int32_t count = -1;
        step<decltype(TimeFinder_volumes)>("volumes", "TimeFinder_volumes", handle(), path, &count);
        tell("volpath", path);
        tell("nvols", std::to_string(count));
    }

    void init(bool number, bool logmsg, bool errmsg) {
        step<decltype(TimeFinder_init)>("init", "TimeFinder_init", number ? &number_ : nullptr,
                                        logmsg ? logmsg_ : nullptr, errmsg ? errmsg_ : nullptr);
    }
    void set_logf(bool sink, int32_t level) {
        step<decltype(TimeFinder_set_logf)>("set_logf", "TimeFinder_set_logf",
                                            sink ? log_line : nullptr, level);
    }
    void set_locale(const char *messages, const char *logging) {
        step<decltype(TimeFinder_set_locale)>("set_locale", "TimeFinder_set_locale", messages,
                                              logging);
    }
    void query() {
        int32_t words[16];
        memset(words, 0x5a, sizeof words);
        step<decltype(TimeFinder_query)>("query", "TimeFinder_query", static_cast<void *>(words));
        for (size_t i = 0; i < std::size(words); ++i) {
            if (words[i] != 0x5a5a5a5a)
                tell("field", std::to_string(i * sizeof words[0]) + "=" + std::to_string(words[i]));
        }
    }
    void freeze_with(const char *config, const char *source, const char *fifs, bool nvols,
                     int32_t flag, bool with_handle) {
        int32_t volumes = -1;
        step<decltype(TimeFinder_freeze)>("freeze", "TimeFinder_freeze", config, source, fifs,
                                          nullptr, nvols ? &volumes : nullptr, flag,
                                          with_handle ? &handle() : nullptr);
        tell("nvols", std::to_string(volumes));
    }
    void ckpt_with(bool text) {
        char *given = nullptr;
        step<decltype(TimeFinder_ckpt)>("ckpt", "TimeFinder_ckpt", handle(),
                                        text ? &given : nullptr);
        free(given);
    }
    void rebuild_with(bool with_handle, const char *text) {
        std::string writable = text == nullptr ? "" : text;
        step<decltype(TimeFinder_rebuild)>("rebuild", "TimeFinder_rebuild",
                                           with_handle ? &handle() : nullptr,
                                           text == nullptr ? nullptr : writable.data());
    }
    void volumes_with(bool volpath, bool nvols) {
        char path[TF_VOLPATH_SIZE] = "";
        int32_t count = -1;
        step<decltype(TimeFinder_volumes)>("volumes", "TimeFinder_volumes", handle(),
                                           volpath ? path : nullptr, nvols ? &count : nullptr);
    }
    void foreign_handle() { handle() = &nobodys_; }
    void whole_record();
    void parse(const char *options, const char *text) const {
        tell("step", "parse");
        for (const auto &[key, value] : parse_result(library_, options, text))
            tell(key.c_str(), value);
    }
    void utilities(const std::vector<std::string> &lines) const {
        const auto changes = phase::call_utilities(library_, lines, log_line);
        tell("step", "utilities");
        tell("status", "0");
        for (const std::string &change : changes) tell("changed", change);
    }

    void ctl(int32_t code) {
        step<decltype(TimeFinder_ctl)>("ctl", "TimeFinder_ctl", handle(), code);
    }
    void commit() {
        step<decltype(TimeFinder_freeze_commit)>("commit", "TimeFinder_freeze_commit", handle());
    }
    void thaw() { step<decltype(TimeFinder_thaw)>("thaw", "TimeFinder_thaw", handle()); }
    void thaw_commit() {
        step<decltype(TimeFinder_thaw_commit)>("thaw_commit", "TimeFinder_thaw_commit", handle());
    }
    // Every object that the process froze or rebuilt has a handle of its own.
    void object(int number) {
        if (number < 0 || static_cast<size_t>(number) >= most_objects) give_up("no such object");
        object_ = static_cast<size_t>(number);
    }
    void rollback() {
        if (handle() == nullptr) return;
        thaw();
        thaw_commit();
    }

    void close() {
        dlclose(library_);
        library_ = nullptr;
        tell("step", "close");
        tell("status", is_mapped("libtimefinder_fim") ? "1" : "0");
        // The preload that makes sleeping short keeps a connection of its own.
        const char *const preload = getenv("LD_PRELOAD");
        const size_t own = preload != nullptr && strstr(preload, "tflabsleep") != nullptr ? 1 : 0;
        for (const std::string &change : before_load_.changes(phase::HostState(), own)) {
            tell("changed", change);
        }
    }

    bool failed() const { return failed_; }

    // Whether the steps end here.
    bool or_give_up() {
        if (!failed_) return false;
        for (object_ = 0; object_ < most_objects; ++object_) {
            if (handle() != nullptr) thaw();
        }
        for (object_ = 0; object_ < most_objects; ++object_) {
            if (handle() != nullptr) thaw_commit();
        }
        return true;
    }

  private:
    hdef *&handle() { return handles_[object_]; }

    static bool is_mapped(const char *library) {
        std::ifstream maps("/proc/self/maps");
        for (std::string line; std::getline(maps, line);) {
            if (line.find(library) != std::string::npos) return true;
        }
        return false;
    }

    template <class Entry>
    Entry *entry(const char *symbol) const {
        void *found = dlsym(library_, symbol);
        if (found == nullptr) give_up(dlerror());
        return reinterpret_cast<Entry *>(found);
    }

    static void log_line(const char *line) {
        if (surroundings.ordinary()) return tell("log", line);
        surroundings.print(line);
        kept_log.emplace_back(line);
    }
    static void tell_kept_log() {
        for (const std::string &line : kept_log) tell("log", line);
        kept_log.clear();
    }

    const phase::HostState before_load_;
    void *library_;
    int32_t number_ = no_number;
    char errmsg_[TF_MESSAGE_SIZE] = "", logmsg_[TF_MESSAGE_SIZE] = "";
    bool failed_ = false;
    size_t object_ = 0;
    hdef *handles_[most_objects] = {};
    hdef nobodys_ = {};
};

void Method::whole_record() {
    if (handle() == nullptr) give_up("there is no record");
    tell("step", "whole_record");
    tell("status", "0");
    for (const std::string &field : fields_of(*handle())) tell("field", field);
}

// Takes the steps one after the other from the arguments.
class Steps {
  public:
    explicit Steps(char **rest) : rest_(rest) {}
    bool more() const { return *rest_ != nullptr; }
    void end() {
        while (more()) ++rest_;
    }
    const char *next() {
        if (!more()) give_up("an argument is missing");
        return *rest_++;
    }
    // A text, or a null pointer where the word is "null".
    const char *text() {
        const char *word = next();
        return strcmp(word, "null") == 0 ? nullptr : word;
    }
    bool given() { return text() != nullptr; }

  private:
    char **rest_;
};

void run_line(const char *line) {
    const int status = system(line);
    if (status != 0) give_up(std::string("failed: ") + line);
}

// The steps that give single arguments; false when it is none of them.
bool take_with(const std::string &name, Method &method, Steps &steps) {
    if (name == "init") {
        const bool number = steps.given(), logmsg = steps.given();
        method.init(number, logmsg, steps.given());
    } else if (name == "set_logf") {
        const bool sink = steps.given();
        method.set_logf(sink, atoi(steps.next()));
    } else if (name == "set_locale") {
        const char *messages = steps.text();
        method.set_locale(messages, steps.text());
    } else if (name == "query") {
        method.query();
    } else if (name == "freeze_with") {
        const char *config = steps.text(), *source = steps.text(), *fifs = steps.text();
        const bool nvols = steps.given();
        const int32_t flag = atoi(steps.next());
        method.freeze_with(config, source, fifs, nvols, flag, steps.given());
    } else if (name == "ckpt_with") {
        method.ckpt_with(steps.given());
    } else if (name == "rebuild_with") {
        const bool handle = steps.given();
        method.rebuild_with(handle, steps.text());
    } else if (name == "volumes_with") {
        const bool volpath = steps.given();
        method.volumes_with(volpath, steps.given());
    } else if (name == "parse") {
        const char *options = steps.text();
        method.parse(options, steps.text());
    } else if (name == "utilities") {
        std::vector<std::string> lines;
        for (std::string line; (line = steps.next()) != "end";) lines.push_back(line);
        method.utilities(lines);
    } else {
        return false;
    }
    return true;
}

// Says to whoever looks from outside what the process is at: its name is the step's, and between
// two steps its own.
class Told {
  public:
    explicit Told(const std::string &step) { prctl(PR_SET_NAME, step.c_str()); }
    ~Told() { prctl(PR_SET_NAME, "tfphase"); }
    Told(const Told &) = delete;
    Told &operator=(const Told &) = delete;
};

void take(Method &method, Steps &steps) {
    const std::string name = steps.next();
    const Told told(name);
    if (take_with(name, method, steps)) return;
    if (name == "freeze" || name == "freeze_no_wait") {
        const char *config = steps.next(), *source = steps.next();
        return method.freeze(config, source, steps.next(),
                             name == "freeze" ? TF_FREEZE_WAIT : TF_FREEZE_NO_WAIT);
    }
    if (name == "record") return method.record();
    if (name == "whole_record") return method.whole_record();
    if (name == "foreign_handle") return method.foreign_handle();
    if (name == "ctl") return method.ctl(atoi(steps.next()));
    if (name == "commit") return method.commit();
    if (name == "ckpt") return method.ckpt(steps.next());
    if (name == "rebuild") return method.rebuild(steps.next());
    if (name == "volumes") return method.volumes();
    if (name == "thaw") return method.thaw();
    if (name == "thaw_commit") return method.thaw_commit();
    if (name == "object") return method.object(atoi(steps.next()));
    if (name == "rollback") return method.rollback();
    if (name == "close") return method.close();
    if (name == "or_give_up") {
        if (method.or_give_up()) steps.end();
        return;
    }
    if (name == "or_stop") {
        if (method.failed()) steps.end();
        return;
    }
    if (name == "run") return run_line(steps.next());
    if (name == "accept_qzfs") return phase::accept_qzfs();
    if (name == "own_network") return phase::enter_own_network(steps.next());
    give_up("unknown step " + name);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3) give_up("usage: tfphase REPORT LEVEL STEP...");
    report = fopen(argv[1], "we");
    if (report == nullptr) give_up(std::string("cannot write ") + argv[1]);
    Method method;
    const bool bare = argc > 3 && strcmp(argv[3], "bare") == 0;
    if (!bare) method.begin(atoi(argv[2]));
    Steps steps(argv + (bare ? 4 : 3));
    while (steps.more()) take(method, steps);
    return 0;
}
