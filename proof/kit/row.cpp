#include "proof/kit/row.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cinttypes>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <stdexcept>

namespace proof {
namespace {

// FNV-1a of what the files hold: a name for one build.
std::string build_of(const std::vector<std::filesystem::path> &files) {
    uint64_t hash = 14695981039346656037U;
    for (const auto &file : files) {
        std::ifstream in(file, std::ios::binary);
        if (!in) throw std::runtime_error("cannot read " + file.string() + ": run ./dev build");
        for (std::istreambuf_iterator<char> one(in), end; one != end; ++one) {
            hash = (hash ^ static_cast<unsigned char>(*one)) * 1099511628211U;
        }
    }
    char text[17];
    snprintf(text, sizeof text, "%016" PRIx64, hash);
    return text;
}

std::string last_line(size_t held, size_t points, size_t of, size_t failed,
                      const std::string &note) {
    const nlohmann::ordered_json line = {
        {"held", held}, {"points", points}, {"of", of}, {"failed", failed}, {"note", note}};
    return line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace

Options options_of(int argc, char **argv, const std::string &about) {
    Options options;
    bool quick = false;
    CLI::App app(about);
    auto *full = app.add_flag("--full", options.full, "every point, going on with an earlier run");
    app.add_flag("--quick", quick, "a sample of the points")->excludes(full);
    app.add_option("--seed", options.seed, "which sample")->capture_default_str();
    app.add_option("--state", options.state, "the folder of ledger and logs")->required();
    app.add_option("--point", options.only, "this point alone; may be given several times");
    try {
        app.parse(argc, argv);
        std::filesystem::create_directories(options.state);
    } catch (const CLI::ParseError &error) {
        exit(app.exit(error) == 0 ? 0 : 2);
    } catch (const std::filesystem::filesystem_error &error) {
        fprintf(stderr, "%s: %s\n", argv[0], error.what());
        exit(2);
    }
    return options;
}

Row::Row(std::string name, Options options, const std::vector<std::filesystem::path> &judged)
    : name_(std::move(name)), build_(build_of(judged)), options_(std::move(options)) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (options_.full) read_ledger();
}

Row::~Row() {
    if (ledger_ != nullptr) fclose(ledger_);
}

void Row::read_ledger() {
    const std::filesystem::path file = options_.state / "done";
    std::ifstream in(file);
    std::string line;
    const bool same_build = std::getline(in, line) && line == "build " + build_;
    uintmax_t whole = line.size() + 1;
    // A line that a kill cut short counts for nothing, and goes.
    while (same_build && std::getline(in, line) && !in.eof()) {
        whole += line.size() + 1;
        const size_t blank = line.find(' ');
        if (blank != std::string::npos) {
            before_[line.substr(blank + 1)] = line.substr(0, blank) == "held";
        }
    }
    in.close();
    if (same_build) std::filesystem::resize_file(file, whole);
    ledger_ = fopen(file.c_str(), same_build ? "ae" : "we");
    if (ledger_ == nullptr) throw std::runtime_error("cannot write " + file.string());
    if (!same_build) fprintf(ledger_, "build %s\n", build_.c_str());
    fflush(ledger_);
}

void Row::put_down(const char *result, const std::string &point) {
    ++run_;
    if (ledger_ == nullptr) return;
    fprintf(ledger_, "%s %s\n", result, point.c_str());
    fflush(ledger_);
}

std::vector<std::string> Row::choose(const std::vector<std::string> &points, size_t quick) {
    all_ = points.size();
    const std::set<std::string> names(points.begin(), points.end());
    if (names.size() != all_) throw std::logic_error(name_ + ": two points have one name");
    std::vector<std::string> taken;
    if (verbose()) {
        for (const std::string &name : options_.only) {
            if (!names.contains(name)) throw std::runtime_error("there is no point " + name);
        }
        taken = options_.only;
    } else if (options_.full) {
        for (const std::string &point : points) {
            const auto earlier = before_.find(point);
            if (earlier != before_.end() && earlier->second)
                ++held_before_;
            else
                taken.push_back(point);
        }
    } else {
        std::mt19937_64 draw(options_.seed);
        std::sample(points.begin(), points.end(), std::back_inserter(taken), quick, draw);
    }
    chosen_ = taken.size();
    printf("%s: %zu of %zu points", name_.c_str(), chosen_, all_);
    if (options_.full) printf(", %zu held in earlier runs", held_before_);
    if (!options_.full && !verbose()) printf(", drawn by seed %" PRIu64, options_.seed);
    printf("\n");
    return taken;
}

void Row::held(const std::string &point) {
    put_down("held", point);
    printf("held   %s (%zu of %zu)\n", point.c_str(), run_, chosen_);
}

void Row::failed(const std::string &point, const std::string &why) {
    ++failed_;
    put_down("failed", point);
    printf("FAILED %s (%zu of %zu)\n    %s\n    repeat: ./dev proof %s --point '%s'\n",
           point.c_str(), run_, chosen_, why.c_str(), name_.c_str(), point.c_str());
}

int Row::finish(const std::string &note) {
    const size_t points = run_ + held_before_;
    printf("%s\n", last_line(points - failed_, points, all_, failed_, note).c_str());
    return failed_ == 0 && points > 0 ? row_held : row_missed;
}

int Row::cannot_run(const std::string &why) {
    printf("%s\n", last_line(0, 0, 0, 0, why).c_str());
    return row_cannot_run;
}

std::vector<std::filesystem::path> shipped_libraries() {
    const std::filesystem::path folder = std::filesystem::path(TF_BINARY_DIR) / "lib";
    return {folder / "libtimefinder_fim.so", folder / "libtessera_host.so"};
}

}  // namespace proof
