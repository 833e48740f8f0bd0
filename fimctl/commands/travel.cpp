// export and import: a snapshot's way to the backup host and back.
#include "fimctl/travel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <iterator>
#include <memory>

#include "fimctl/commands/command.h"
#include "fimctl/phase.h"

namespace fimctl {
namespace {

struct Options {
    int64_t id = 0;
    std::string output;  // "" for standard output
    std::string file;    // "-" for standard input
    bool force = false;
};

Failure file_failure(const std::string &file, int reason) {
    Failure failure(Step::carry,
                    reason == EEXIST || reason == ENOENT || reason == EISDIR ? ExitCode::usage
                    : reason == EACCES || reason == EPERM                    ? ExitCode::permission
                                                                             : ExitCode::failed,
                    file + ": " + strerror(reason));
    if (reason == EEXIST) {
        failure.next = "name another file, or overwrite this one with --force";
    } else {
        failure.next = "name a file that can be used, then try again";
    }
    return failure;
}

void write_all(int fd, const std::string &text, const std::string &file) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t size = write(fd, text.data() + done, text.size() - done);
        if (size < 0 && errno == EINTR) continue;
        if (size < 0) throw file_failure(file, errno);
        done += static_cast<size_t>(size);
    }
}

// A new file appears under its name as a whole or not at all.
class NewFile {
  public:
    NewFile(const std::string &name, bool force) : name_(name), force_(force) {
        struct stat status = {};
        if (!force && lstat(name.c_str(), &status) == 0) throw file_failure(name, EEXIST);
        if (stat(name.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
            throw file_failure(name, EISDIR);
        }
        part_ = name + ".XXXXXX";
        fd_ = mkostemp(part_.data(), O_CLOEXEC);  // 0600
        if (fd_ < 0) throw file_failure(name, errno);
    }
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;
    ~NewFile() {
        close(fd_);
        if (!part_.empty()) unlink(part_.c_str());
    }

    void write(const std::string &text) {
        write_all(fd_, text, name_);
        if (fsync(fd_) != 0) throw file_failure(name_, errno);
        if (!force_ && link(part_.c_str(), name_.c_str()) == 0) return;
        // A file system without links gets the name in the other way, since it was free just now.
        if (!force_ && errno != EPERM && errno != ENOTSUP) throw file_failure(name_, errno);
        if (rename(part_.c_str(), name_.c_str()) != 0) throw file_failure(name_, errno);
        part_.clear();
    }

  private:
    std::string name_, part_;
    bool force_;
    int fd_ = -1;
};

// What it says is done as root: nobody else may have been able to write it.
void refuse_others_document(const std::string &file, const struct stat &status) {
    const bool ours = status.st_uid == 0 || status.st_uid == geteuid();
    if (!S_ISREG(status.st_mode) || (ours && (status.st_mode & 022) == 0)) return;
    Failure failure(Step::carry, ExitCode::permission,
                    file + ": others than root can have written it");
    failure.next = "see that it is what the other host has exported, then: chown root " + file +
                   "; chmod 600 " + file;
    throw failure;
}

// The file that is looked at is the one that is read, whatever its name stands for meanwhile.
class ReadFile {
  public:
    explicit ReadFile(const std::string &name)
        : name_(name), fd_(open(name.c_str(), O_RDONLY | O_CLOEXEC)) {
        if (fd_ < 0) throw file_failure(name, errno);
    }
    ReadFile(const ReadFile &) = delete;
    ReadFile &operator=(const ReadFile &) = delete;
    ~ReadFile() { close(fd_); }

    std::string content() const {
        struct stat status = {};
        if (fstat(fd_, &status) != 0) throw file_failure(name_, errno);
        refuse_others_document(name_, status);
        std::string text;
        for (char part[65536];;) {
            const ssize_t size = read(fd_, part, sizeof part);
            stop_when_interrupted(Step::carry);
            if (size < 0 && errno == EINTR) continue;
            if (size < 0) throw file_failure(name_, errno);
            if (size == 0) return text;
            text.append(part, static_cast<size_t>(size));
        }
    }

  private:
    std::string name_;
    int fd_;
};

std::string content_of(const std::string &file) {
    if (file != "-") return ReadFile(file).content();
    return {std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
}

void export_one(const Common &common, const Options &options) {
    if (!Catalogue::exists(common.settings.state)) throw no_such_snapshot(options.id);
    Catalogue catalogue(common.settings.state, false);
    // A file that cannot be made is found out before the snapshot is marked.
    const auto file =
        options.output.empty() ? nullptr : std::make_unique<NewFile>(options.output, options.force);
    export_snapshot(common.settings, catalogue, options.id, options.force,
                    [&file](const std::string &text) {
                        if (file == nullptr) {
                            write_all(STDOUT_FILENO, text, "standard output");
                        } else {
                            file->write(text);
                        }
                    });
}

void import_one(const Common &common, const Options &options) {
    const std::string text = content_of(options.file);
    Catalogue catalogue(common.settings.state, true);
    const int64_t id = import_snapshot(common.settings, catalogue, text);
    printf("%lld\n", static_cast<long long>(id));
    tell_result(id, "was taken in", "its number");
}

}  // namespace

void add_travel_commands(Commands &commands) {
    const Common &common = commands.common();
    const auto options = std::make_shared<Options>();
    CLI::App *out =
        commands.add("export", "hand a snapshot to the backup host, or back to the primary host",
                     Access::working, [&common, options] { export_one(common, *options); });
    add_id(out, options->id);
    out->add_option("--output", options->output, "write it there (0600), not to standard output")
        ->type_name("FILE");
    out->add_flag("--force", options->force,
                  "overwrite that file; hand out again what has not come back");
    CLI::App *in =
        commands.add("import", "take in what another host has exported; prints its number here",
                     Access::working, [&common, options] { import_one(common, *options); });
    in->add_option("FILE", options->file,
                   "what \"fimctl export\" has written; - for standard input")
        ->required();
}

}  // namespace fimctl
