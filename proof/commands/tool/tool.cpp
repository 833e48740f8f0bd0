// Stands at the place of a tool on a host of the lab, runs the real one, and fails at one call as
// the plan says. Everything lies in /usr/lib/tfproof:
//
//   real/NAME  the real tool
//   calls      while it exists, every call adds its line: "NUMBER NAME WORD...", words escaped
//   sizes      with the kind "measure": "NUMBER BYTES" of every output that is read
//   plan       "NUMBER KIND VALUE SCOPE PATH FORM": at the call of this number, and with the scope
//              "good" at all later ones of this form, play KIND
//
// Kinds: "exit" (with that status, nothing done), "done" (the real one runs, then that status),
// "signal" (ended by that signal, nothing done), "hang" (the same after a while without an end),
// "missing" and "denied" (the call before hides the tool at PATH, for good), and about the output
// of the real tool, which is the file behind "-f" or "-i", else its standard output: "empty", "cut"
// after that many bytes, "large" (10 MiB without a newline), "binary". "noise" writes 10 MiB to
// both streams and exits with that status, "loud" runs the real one, writes as much, and exits with
// its status.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

constexpr char calls_file[] = "/usr/lib/tfproof/calls";
constexpr char plan_file[] = "/usr/lib/tfproof/plan";
constexpr char sizes_file[] = "/usr/lib/tfproof/sizes";
constexpr char real_folder[] = "/usr/lib/tfproof/real/";
constexpr int broken = 98;  // the stand-in itself does not work
constexpr size_t large_size = 10 << 20;

[[noreturn]] void give_up(const char *what) {
    fprintf(stderr, "stand-in: cannot %s: %s\n", what, strerror(errno));
    _exit(broken);
}

std::string read_all(int fd) {
    std::string text;
    char piece[65536];
    for (ssize_t length; (length = read(fd, piece, sizeof piece)) > 0;) {
        text.append(piece, static_cast<size_t>(length));
    }
    return text;
}

// Also where the reader has gone: nobody is told then.
void write_all(int fd, const std::string &text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t written = write(fd, text.data() + done, text.size() - done);
        if (written <= 0) return;
        done += static_cast<size_t>(written);
    }
}

std::string escaped(const std::string &word) {
    std::string text;
    for (const char c : word) {
        char code[8];
        const auto byte = static_cast<unsigned char>(c);
        snprintf(code, sizeof code, "\\x%02x", byte);
        text += byte <= ' ' || byte > '~' || c == '\\' ? std::string(code) : std::string(1, c);
    }
    return text.empty() ? "\\e" : text;
}

struct Plan {
    long call = 0;
    std::string kind, scope, path, form;
    long value = 0;
};

Plan read_plan() {
    Plan plan;
    const int fd = open(plan_file, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return plan;
    const std::string text = read_all(fd);
    close(fd);
    char kind[32] = "", scope[32] = "", path[256] = "";
    int end = 0;
    if (sscanf(text.c_str(), "%ld %31s %ld %31s %255s %n", &plan.call, kind, &plan.value, scope,
               path, &end) != 5) {
        give_up("read the plan");
    }
    plan.kind = kind;
    plan.scope = scope;
    plan.path = path;
    plan.form = text.substr(static_cast<size_t>(end));
    while (plan.form.ends_with("\n")) plan.form.pop_back();
    return plan;
}

bool is_fixed(const std::string &word) {
    for (const char *known :
         {"import", "deport", "list", "startall", "define", "online", "enable", "RAW", "QzVM"}) {
        if (word == known) return true;
    }
    return word.size() > 1 && word[0] == '-';
}

// What every command line of this kind has in common.
std::string form_of(const std::string &name, int argc, char **argv) {
    std::string form = name;
    for (int i = 1; i < argc; ++i) {
        if (is_fixed(argv[i])) form += std::string(" ") + argv[i];
    }
    return form;
}

// Writes the call down and returns its number; 0 when nobody counts.
long count(const std::string &name, int argc, char **argv) {
    const int fd = open(calls_file, O_RDWR | O_CLOEXEC);
    if (fd < 0) return 0;
    if (flock(fd, LOCK_EX) != 0) give_up("lock the calls");
    long number = 1;
    for (const char c : read_all(fd)) number += c == '\n' ? 1 : 0;
    std::string line = std::to_string(number) + " " + name;
    for (int i = 1; i < argc; ++i) line += " " + escaped(argv[i]);
    write_all(fd, line + "\n");
    close(fd);
    return number;
}

[[noreturn]] void run_real(const std::string &name, char **argv) {
    const std::string path = real_folder + name;
    argv[0] = const_cast<char *>(path.c_str());
    execv(path.c_str(), argv);
    give_up("run the real tool");
}

int status_of(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

int run_and_wait(const std::string &name, char **argv, int out = STDOUT_FILENO) {
    const pid_t pid = fork();
    if (pid < 0) give_up("fork");
    if (pid == 0) {
        if (out != STDOUT_FILENO) dup2(out, STDOUT_FILENO);
        run_real(name, argv);
    }
    return status_of(pid);
}

const char *output_file(int argc, char **argv) {
    for (int i = 1; i + 1 < argc; ++i) {
        if (strcmp(argv[i], "-f") == 0 || strcmp(argv[i], "-i") == 0) {
            if (argv[i + 1][0] == '/') return argv[i + 1];
        }
    }
    return nullptr;
}

// Whether somebody reads what this call writes.
bool is_read(const std::string &name, int argc, char **argv) {
    if (name == "tqtpcinfo" || name == "qzvset") return true;
    bool has_plex = false;
    for (int i = 1; i < argc; ++i) has_plex = has_plex || strcmp(argv[i], "-p") == 0;
    return name == "tqdgclone" && has_plex && output_file(argc, argv) != nullptr;
}

void measure(const Plan &plan, const std::string &output) {
    const int fd = open(sizes_file, O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0) give_up("write a size");
    write_all(fd, std::to_string(plan.call) + " " + std::to_string(output.size()) + "\n");
    close(fd);
}

std::string changed(const Plan &plan, const std::string &output) {
    if (plan.kind == "measure") {
        measure(plan, output);
        return output;
    }
    if (plan.kind == "empty") return "";
    if (plan.kind == "cut") return output.substr(0, static_cast<size_t>(plan.value));
    if (plan.kind == "large") return std::string(large_size, 'x');
    std::string text;
    uint32_t state = 1;
    while (text.size() < 4096) {
        state = state * 1664525U + 1013904223U;
        text += static_cast<char>(state >> 24);
    }
    return text;
}

[[noreturn]] void change_output(const Plan &plan, const std::string &name, int argc, char **argv) {
    const char *const file = output_file(argc, argv);
    int status = 0;
    if (file != nullptr) {
        status = run_and_wait(name, argv);
        const int fd = open(file, O_RDWR | O_CLOEXEC);
        if (fd < 0) give_up("open the output");
        const std::string text = changed(plan, read_all(fd));
        if (ftruncate(fd, 0) != 0 || lseek(fd, 0, SEEK_SET) != 0) give_up("change the output");
        write_all(fd, text);
    } else {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) give_up("open a pipe");
        const pid_t pid = fork();
        if (pid == 0) {
            dup2(ends[1], STDOUT_FILENO);
            run_real(name, argv);
        }
        close(ends[1]);
        const std::string output = read_all(ends[0]);
        status = status_of(pid);
        write_all(STDOUT_FILENO, changed(plan, output));
    }
    _exit(status);
}

[[noreturn]] void end_by(int number) {
    const rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    signal(number, SIG_DFL);
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, number);
    sigprocmask(SIG_UNBLOCK, &one, nullptr);
    raise(number);
    give_up("end");
}

[[noreturn]] void hang(int number) {
    const pid_t hanging = getpid();
    if (fork() == 0) {
        const timespec a_while = {0, 50'000'000};
        nanosleep(&a_while, nullptr);
        kill(hanging, number);
        _exit(0);
    }
    for (;;) pause();
}

void make_noise() {
    const std::string text(large_size, 'x');
    write_all(STDOUT_FILENO, text);
    write_all(STDERR_FILENO, text);
}

[[noreturn]] void play(const Plan &plan, const std::string &name, int argc, char **argv) {
    const int value = static_cast<int>(plan.value);
    if (plan.kind == "signal") end_by(value);
    if (plan.kind == "hang") hang(value);
    if (plan.kind == "exit") {
        write_all(STDERR_FILENO, "stand-in: told to fail\n");
        _exit(value);
    }
    if (plan.kind == "noise") {
        make_noise();
        _exit(value);
    }
    if (plan.kind == "loud") {
        const int status = run_and_wait(name, argv);
        make_noise();
        _exit(status);
    }
    if (plan.kind == "done") {
        run_and_wait(name, argv);
        _exit(value);
    }
    change_output(plan, name, argc, argv);
}

// From the next call on the tool is not there, or is no program.
void hide(const Plan &plan) {
    const bool hidden = plan.kind == "missing"
                            ? rename(plan.path.c_str(), (plan.path + ".hidden").c_str()) == 0
                            : chmod(plan.path.c_str(), 0644) == 0;
    if (!hidden) give_up("hide the tool");
}

}  // namespace

int main(int argc, char **argv) {
    const std::string path = argc > 0 ? argv[0] : "";
    const std::string name = path.substr(path.rfind('/') + 1);
    const long number = count(name, argc, argv);
    if (number == 0) run_real(name, argv);
    Plan plan = read_plan();
    if (plan.kind == "measure" && is_read(name, argc, argv)) {
        plan.call = number;
        change_output(plan, name, argc, argv);
    }
    const bool hides = plan.kind == "missing" || plan.kind == "denied";
    if (hides && number == plan.call - 1) hide(plan);
    if (plan.call == 0 || hides) run_real(name, argv);
    const bool again =
        plan.scope == "good" && number > plan.call && plan.form == form_of(name, argc, argv);
    if (number != plan.call && !again) run_real(name, argv);
    if (form_of(name, argc, argv) != plan.form) {
        errno = EINVAL;
        give_up("find the call of the plan");
    }
    play(plan, name, argc, argv);
}
