// tfwriter: a program that keeps a file system busy in a way that can be checked afterwards.
//
// "write" changes and creates files, one numbered step after the other, and keeps a witness of the
// steps elsewhere. "verify" tells from files alone after which step they were taken, compares every
// byte with the state after that step, and holds the step against the witness.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <limits>
#include <stdexcept>
#include <string>
#include <system_error>

#include "lab/host/record_files.h"
#include "lab/host/witness.h"

namespace {

namespace fs = std::filesystem;
using namespace tfwriter;

volatile sig_atomic_t stop_asked = 0;

void ask_to_stop(int) {
    stop_asked = 1;
}

void must(bool good, const std::string &what) {
    if (!good) throw std::system_error(errno, std::generic_category(), "cannot " + what);
}

// Writes it in one call, since one call is one step.
void write_at(int fd, const std::string &text, off_t offset, const std::string &name) {
    const ssize_t written = offset < 0 ? write(fd, text.data(), text.size())
                                       : pwrite(fd, text.data(), text.size(), offset);
    must(written == static_cast<ssize_t>(text.size()), "write " + name);
}

class Writer {
  public:
    Writer(const fs::path &folder, const fs::path &witness) : folder_(folder), witness_(witness) {
        fs::create_directories(folder_ / "new");
        fs::create_directories(folder_ / "kept");
        journal_ = open_new("journal", O_APPEND);
        slots_ = open_new("slots", 0);
        for (uint64_t slot = 0; slot < slots; ++slot) {
            write_at(slots_, slot_block(0), static_cast<off_t>(slot * slot_size), "slots");
        }
        const int top = open(folder_.c_str(), O_RDONLY | O_CLOEXEC);
        must(top >= 0 && syncfs(top) == 0, "write back " + folder_.string());
        close(top);
    }

    void run() {
        for (uint64_t step = 1; stop_asked == 0; ++step) {
            witness_.begins(step);
            take((step - 1) / steps_a_round + 1, static_cast<Step>((step - 1) % steps_a_round));
            witness_.ended(step);
        }
    }

  private:
    int open_new(const std::string &name, int flags) {
        const int fd =
            open((folder_ / name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | flags, 0644);
        must(fd >= 0, "create " + name);
        return fd;
    }

    void take(uint64_t record, Step step) {
        const std::string name = file_name(record);
        switch (step) {
        case append_record:
            write_at(journal_, journal_line(record), -1, "journal");
            break;
        case change_slot:
            write_at(slots_, slot_block(record), static_cast<off_t>(record % slots * slot_size),
                     "slots");
            break;
        case create_file:
            file_ = open_new("new/" + name, 0);
            break;
        case fill_file:
            write_at(file_, file_text(record), 0, name);
            break;
        case rename_file:
            must(rename((folder_ / "new" / name).c_str(), (folder_ / "kept" / name).c_str()) == 0,
                 "rename " + name);
            // Some records are forced out, some stay in memory: a copy has to hold both.
            if (record % 4 == 0) must(fsync(file_) == 0 && fsync(journal_) == 0, "fsync " + name);
            close(file_);
            break;
        case remove_file:
            if (record > kept_files) {
                const fs::path old = folder_ / "kept" / file_name(record - kept_files);
                must(unlink(old.c_str()) == 0, "remove " + old.string());
            }
            break;
        case steps_a_round:
            break;
        }
    }

    fs::path folder_;
    WitnessWriter witness_;
    int journal_ = -1, slots_ = -1, file_ = -1;
};

int write_until_stopped(const fs::path &folder, const fs::path &witness) {
    signal(SIGTERM, ask_to_stop);
    signal(SIGINT, ask_to_stop);
    Writer(folder, witness).run();
    return 0;
}

// The steps after which the files look like this: from..to, since some steps change nothing.
struct Found {
    uint64_t from = 0, to = 0;
    bool any = false;
};

Found find_step(const Content &content) {
    const auto journal = content.find("journal");
    const uint64_t records =
        journal == content.end() ? 0 : journal->second.size() / journal_line(1).size();
    Found found;
    const uint64_t first = records > 0 ? (records - 1) * steps_a_round : 0;
    for (uint64_t step = first; step <= (records + 1) * steps_a_round; ++step) {
        if (content_after(step) != content) continue;
        if (!found.any) found.from = step;
        found.to = step;
        found.any = true;
    }
    return found;
}

void print_differences(const Content &content, uint64_t step) {
    const Content expected = content_after(step);
    fprintf(stderr, "no step leaves these files; compared with the state after step %llu:\n",
            static_cast<unsigned long long>(step));
    for (const auto &[name, text] : expected) {
        const auto found = content.find(name);
        if (found == content.end())
            fprintf(stderr, "  missing   %s\n", name.c_str());
        else if (found->second != text)
            fprintf(stderr, "  different %s\n", name.c_str());
    }
    for (const auto &[name, text] : content) {
        if (!expected.contains(name)) fprintf(stderr, "  too much  %s\n", name.c_str());
    }
}

struct Verify {
    std::string folder, witness;
    int64_t not_before = 0, not_after = std::numeric_limits<int64_t>::max();
};

int verify(const Verify &wanted) {
    const Content content = read_content(wanted.folder);
    const Found found = find_step(content);
    if (!found.any) {
        const uint64_t records =
            content.contains("journal") ? content.at("journal").size() / journal_line(1).size() : 0;
        print_differences(content, records * steps_a_round);
        return 1;
    }
    const Witness witness = Witness::read(wanted.witness);
    const uint64_t must_be_in = witness.ended_at(wanted.not_before);
    const uint64_t may_be_in = witness.begun_at(wanted.not_after), next = may_be_in + 1;
    printf("step=%llu files=%zu ended_before=%llu begun_after=%llu taken_in_all=%llu\n",
           static_cast<unsigned long long>(found.to), content.size(),
           static_cast<unsigned long long>(must_be_in), static_cast<unsigned long long>(next),
           static_cast<unsigned long long>(witness.ended()));
    if (found.to < must_be_in) {
        fprintf(stderr, "step %llu had ended before and is missing\n",
                static_cast<unsigned long long>(must_be_in));
        return 1;
    }
    if (found.from > may_be_in) {
        fprintf(stderr, "step %llu began afterwards and is there\n",
                static_cast<unsigned long long>(found.from));
        return 1;
    }
    return 0;
}

int print_steps(const std::string &witness) {
    printf("%llu\n", static_cast<unsigned long long>(Witness::read(witness).ended()));
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"Keeps a file system busy so that a copy of it can be checked.", "tfwriter"};
    app.require_subcommand(1);
    std::string folder, witness;
    Verify wanted;
    int status = 0;

    CLI::App *write = app.add_subcommand("write", "write until SIGTERM or SIGINT");
    write->add_option("folder", folder, "what to keep busy")->required();
    write->add_option("--witness", witness, "file outside of it that tells the steps")->required();
    write->callback([&] { status = write_until_stopped(folder, witness); });

    CLI::App *check = app.add_subcommand(
        "verify", "tell after which step the files were taken, and compare every byte");
    check->add_option("folder", wanted.folder, "the files")->required();
    check->add_option("--witness", wanted.witness, "the witness of the writer")->required();
    check->add_option("--not-before", wanted.not_before,
                      "every step that had ended by this time must be in the files");
    check->add_option("--not-after", wanted.not_after,
                      "no step that began after this time may be in the files");
    check->callback([&] { status = verify(wanted); });

    CLI::App *steps = app.add_subcommand("steps", "print how many steps a witness has seen end");
    steps->add_option("witness", witness, "the witness")->required();
    steps->callback([&] { status = print_steps(witness); });

    app.add_subcommand("now", "print the time of the witness's clock")->callback([] {
        printf("%lld\n", static_cast<long long>(now()));
    });
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error);
    } catch (const std::exception &error) {
        fprintf(stderr, "tfwriter: %s\n", error.what());
        return 2;
    }
    return status;
}
