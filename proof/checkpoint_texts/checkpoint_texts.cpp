// The row "checkpoint texts": records that are written and rebuilt, and texts damaged in every way
// of a list. What has to come of each text is worked out a second time by a model of the format;
// what the library does to its host is watched by a machine that it cannot leave. See fuzz/support.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>

#include "fuzz/support/damage.h"
#include "fuzz/support/random_record.h"
#include "proof/checkpoint_texts/leaks.h"
#include "proof/kit/row.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

namespace fs = std::filesystem;

constexpr int records = 5000;
constexpr size_t sample = 15000;
constexpr size_t batch = 500;
constexpr unsigned hangs_after = 20;  // seconds
constexpr int leaks_status = 3;       // of a process that found a leak
constexpr const char *record_prefix = "record ";

std::string read_file(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// The whole texts that are damaged, by their names, in the order of the names.
std::map<std::string, std::string> whole_texts() {
    std::map<std::string, std::string> texts;
    for (const auto &file : fs::directory_iterator(TF_SOURCE_DIR "/fuzz/seeds/checkpoint_text")) {
        const std::string text = read_file(file.path());
        // One that is oversized already is not made larger still; as it is it is judged as a seed.
        if (text.size() <= 2048) texts[file.path().filename().string()] = text;
    }
    if (texts.empty()) throw std::runtime_error("there are no texts");
    return texts;
}

// All points, and of each damaged text what it says.
struct Points {
    std::vector<std::string> names;
    std::map<std::string, std::string> texts;
};

Points all_points() {
    Points all;
    for (const auto &[name, text] : whole_texts()) {
        for (fuzz::Damaged &damaged : fuzz::every_damage(text)) {
            all.names.push_back(name + "/" + damaged.name);
            all.texts[all.names.back()] = std::move(damaged.text);
        }
    }
    for (int i = 1; i <= records; ++i) all.names.push_back(record_prefix + std::to_string(i));
    return all;
}

void judge(const Points &points, const std::string &point) {
    const size_t prefix = strlen(record_prefix);
    if (point.starts_with(record_prefix)) {
        fuzz::round_trip(std::stoull(point.substr(prefix)));
        return;
    }
    const std::string &text = points.texts.at(point);
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(text.data()), text.size());
}

// The same several times, since a block that is left each time is a leak.
void judge_with_blocks(const Points &points, const std::string &point) {
    const long leaked = proof::leaked_blocks([&] { judge(points, point); });
    if (leaked == 0) return;
    fprintf(stderr, "%ld blocks more are held each time\n", leaked);
    _exit(leaks_status);
}

// What a process said on its error stream.
class Said {
  public:
    Said() : fd_(memfd_create("said", MFD_CLOEXEC)) {}
    ~Said() { close(fd_); }
    Said(const Said &) = delete;
    Said &operator=(const Said &) = delete;

    void begin() const { dup2(fd_, STDERR_FILENO); }
    std::string text() const {
        char part[2000];
        const ssize_t size = pread(fd_, part, sizeof part, 0);
        return std::string(part, size > 0 ? static_cast<size_t>(size) : 0);
    }

  private:
    int fd_;
};

// Runs points in processes of their own, many in one: a finding ends the process, and the next one
// goes on behind the point that led to it.
class Judges {
  public:
    Judges(const Points &points, const std::vector<std::string> &chosen)
        : points_(points), chosen_(chosen) {
        void *const memory =
            mmap(nullptr, sizeof *done_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
        done_ = new (memory) std::atomic<size_t>(0);
    }
    ~Judges() { munmap(done_, sizeof *done_); }
    Judges(const Judges &) = delete;
    Judges &operator=(const Judges &) = delete;

    void judge_all(proof::Row *row) {
        while (*done_ < chosen_.size()) {
            const size_t first = *done_;
            const std::string wrong = judge_some(first);
            for (size_t i = first; i < *done_; ++i) row->held(chosen_[i]);
            if (!wrong.empty()) row->failed(chosen_[(*done_)++], wrong);
        }
    }

  private:
    // Says what ended the process before all was judged; *done_ is then the point that did.
    std::string judge_some(size_t first) {
        const Said said;
        fflush(stdout);
        const pid_t pid = fork();
        if (pid < 0) throw std::runtime_error("cannot fork");
        if (pid == 0) {
            said.begin();
            for (size_t i = first; i < chosen_.size() && i < first + batch; ++i) {
                alarm(hangs_after);
                judge_with_blocks(points_, chosen_[i]);
                *done_ = i + 1;
            }
            _exit(0);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        if (status == 0) return "";
        const std::string end = WIFSIGNALED(status)
                                    ? "ended by signal " + std::to_string(WTERMSIG(status))
                                    : "ended with status " + std::to_string(status >> 8);
        return end + ": " + said.text();
    }

    const Points &points_;
    const std::vector<std::string> &chosen_;
    std::atomic<size_t> *done_;
};

int run(int argc, char **argv) {
    const proof::Options options =
        proof::options_of(argc, argv, "Records that survive, and damaged texts of them");
    proof::Row row("checkpoint_texts", options, proof::shipped_libraries());
    const Points points = all_points();
    const std::vector<std::string> chosen = row.choose(points.names, sample);
    Judges(points, chosen).judge_all(&row);
    return row.finish(std::to_string(points.texts.size()) + " damaged texts, " +
                      std::to_string(records) + " records");
}

}  // namespace

int main(int argc, char **argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        fprintf(stderr, "checkpoint_texts: %s\n", error.what());
        return proof::row_missed;
    }
}
