#include "bench/array_daemon/data.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/array_daemon/arrays.h"
#include "bench/kit/comparison.h"
#include "bench/kit/statistics.h"
#include "include/symapi.h"
#include "lab/array/model/records.h"
#include "lab/host/places.h"
#include "lab/host/system.h"

namespace bench {
namespace {

namespace fs = std::filesystem;
namespace place = tflab::place;
using lab::BcvAction;

// Of each device. Little, so that one run stays well below the memory that it may fill.
constexpr size_t content = 1 << 20, changed = 256 << 10;
constexpr off_t changed_at = content / 2;
constexpr off_t most_written = off_t{2} << 30;

double seconds_of(const std::function<void()> &work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - begin;
    return wall.count();
}

// No block of it is zero or like another.
std::vector<char> fresh_data(size_t size) {
    static std::mt19937_64 random;  // the same in every run
    std::vector<char> data(size);
    for (char &byte : data) byte = static_cast<char>(random() | 1);
    return data;
}

void write_at(const std::string &path, off_t at, const std::vector<char> &data) {
    const tflab::Fd file = tflab::open_file(path, O_WRONLY | O_CREAT);
    if (pwrite(file.get(), data.data(), data.size(), at) != static_cast<ssize_t>(data.size()) ||
        fsync(file.get()) != 0) {
        tflab::fails("write to " + path);
    }
}

// What an earlier copy left behind is written now and not during the next measurement.
void settle() {
    const tflab::Fd store = tflab::open_file(place::store, O_RDONLY | O_DIRECTORY);
    if (syncfs(store.get()) != 0) tflab::fails("write the store back");
}

// The pairs of one array, and files with the same data for the commands.
class Ground {
  public:
    explicit Ground(const Kind &kind);

    // Each device, and each file, holds other data from now on.
    void change();
    void control(BcvAction action);
    void copy_by(const std::vector<std::string> &options, const std::string &folder,
                 const std::string &target);
    void clone_bare();

    const std::string files, changes;  // folders: whole, and with nothing but what is changed

    // Throws unless the last device's BCV holds what was written to the device last.
    void check_last_copy() const;

  private:
    const Kind &kind_;
    const int32_t session_ = open_session();
    std::vector<std::string> names_, bcv_names_;
    std::vector<const char *> name_list_, bcv_list_;
    std::vector<char> last_;  // written to the last device
};

std::string folder_of(const Kind &kind, const char *name) {
    const fs::path folder = place::store / "bench" / kind.symid / name;
    tflab::make_folder(folder);
    return folder;
}

std::string in(const std::string &folder, int pair) {
    return folder + "/" + standard_name(pair);
}

void make_sparse(const std::string &path, uint64_t size) {
    const tflab::Fd file = tflab::open_file(path, O_WRONLY | O_CREAT);
    if (ftruncate(file.get(), static_cast<off_t>(size)) != 0) tflab::fails("make " + path);
}

Ground::Ground(const Kind &kind)
    : files(folder_of(kind, "files")), changes(folder_of(kind, "changes")), kind_(kind) {
    for (int i = 0; i < kind.pairs; ++i) {
        make_sparse(in(files, i), kind.size);
        make_sparse(in(changes, i), kind.size);
        const std::vector<char> data = fresh_data(content);
        write_at(in(files, i), 0, data);
        write_at(standard_node(kind, i), 0, data);
        names_.push_back(standard_name(i));
        bcv_names_.push_back(bcv_name(i));
    }
    for (const std::string &name : names_) name_list_.push_back(name.c_str());
    for (const std::string &name : bcv_names_) bcv_list_.push_back(name.c_str());
    name_list_.push_back(nullptr);
    bcv_list_.push_back(nullptr);
    control(BcvAction::full_establish);
}

void Ground::change() {
    for (int i = 0; i < kind_.pairs; ++i) {
        last_ = fresh_data(changed);
        for (const std::string &path : {standard_node(kind_, i), in(files, i), in(changes, i)}) {
            write_at(path, changed_at, last_);
        }
    }
    settle();
}

void Ground::control(BcvAction action) {
    expect("SymDevListBcvControl",
           SymDevListBcvControl(session_, kind_.symid.c_str(), kind_.pairs, name_list_.data(),
                                bcv_list_.data(), static_cast<int>(action), 0, 0));
}

void Ground::check_last_copy() const {
    const tflab::Fd file = tflab::open_file(bcv_file(kind_, kind_.pairs - 1), O_RDONLY);
    std::vector<char> found(last_.size());
    if (pread(file.get(), found.data(), found.size(), changed_at) !=
            static_cast<ssize_t>(found.size()) ||
        found != last_) {
        throw std::runtime_error("a split copy does not hold what was written");
    }
}

void Ground::copy_by(const std::vector<std::string> &options, const std::string &folder,
                     const std::string &target) {
    std::vector<std::string> command = {"cp"};
    command.insert(command.end(), options.begin(), options.end());
    for (int i = 0; i < kind_.pairs; ++i) command.push_back(in(folder, i));
    command.push_back(folder_of(kind_, target.c_str()));
    if (tflab::run(command) != 0) throw std::runtime_error("cp has failed");
}

void Ground::clone_bare() {
    const std::string target = folder_of(kind_, "cloned");
    for (int i = 0; i < kind_.pairs; ++i) {
        const tflab::Fd from = tflab::open_file(in(files, i), O_RDONLY);
        const tflab::Fd to = tflab::open_file(in(target, i), O_WRONLY | O_CREAT);
        if (ioctl(to.get(), FICLONE, from.get()) != 0) tflab::fails("clone a file");
    }
}

struct Times {
    std::vector<double> split, full, full_split, incremental;
    std::vector<double> reflink, clone, sparse, sparse_changes;
};

const std::vector<std::string> by_reflink = {"--reflink=always"};
const std::vector<std::string> by_copy = {"--sparse=always", "--reflink=never"};

// The pairs are joined before and after it.
void measure_round(Ground *ground, Times *times) {
    const auto take = [](std::vector<double> *into, const std::function<void()> &work) {
        into->push_back(seconds_of(work));
        settle();
    };
    ground->change();
    take(&times->split, [&] { ground->control(BcvAction::split); });
    ground->check_last_copy();
    take(&times->reflink, [&] { ground->copy_by(by_reflink, ground->files, "shared"); });
    take(&times->clone, [&] { ground->clone_bare(); });
    ground->change();
    take(&times->incremental, [&] { ground->control(BcvAction::incremental_establish); });
    take(&times->sparse_changes, [&] { ground->copy_by(by_copy, ground->changes, "few"); });
    ground->control(BcvAction::split);
    take(&times->full, [&] { ground->control(BcvAction::full_establish); });
    take(&times->sparse, [&] { ground->copy_by(by_copy, ground->files, "copied"); });
    ground->change();
    times->full_split.push_back(times->full.back() +
                                seconds_of([&] { ground->control(BcvAction::split); }));
    ground->control(BcvAction::incremental_establish);
}

std::string text_of(const Kind &kind) {
    const uint64_t mib = kind.size >> 20;
    return std::to_string(kind.pairs) + (kind.pairs == 1 ? " pair" : " pairs") + " of " +
           (mib >= 1024 ? std::to_string(mib >> 10) + " GiB" : std::to_string(mib) + " MiB");
}

std::string kib_text(const Kind &kind, size_t bytes) {
    return std::to_string(static_cast<size_t>(kind.pairs) * bytes >> 10) + " KiB";
}

void print_times(const Kind &kind, const Times &times) {
    const auto line = [&](const std::string &what, const std::vector<double> &own,
                          const char *against, const std::vector<double> &others,
                          const char *besides, const std::vector<double> &third,
                          const std::string &note) {
        Result result;
        result.row = "array daemon";
        result.what = what + ", " + text_of(kind);
        result.measure = "wall time";
        result.subject = "the array";
        result.against = against;
        result.ratio = median_ratio(own, others);
        result.beside = {{besides, median_ratio(own, third)}};
        result.note = note;
        print(result);
    };
    const std::string held = kib_text(kind, content) + " written in all";
    const std::string part = kib_text(kind, changed) + " changed";
    line("split", times.split, "cp --reflink", times.reflink, "bare FICLONE", times.clone, part);
    line("incremental establish", times.incremental, "cp --sparse", times.sparse_changes,
         "cp --reflink", times.reflink, part);
    line("full establish", times.full, "cp --sparse", times.sparse, "cp --reflink", times.reflink,
         held);
    line("full establish and split", times.full_split, "cp --sparse", times.sparse, "cp --reflink",
         times.reflink, held);
}

// The blocks of the store's image are memory.
void check_memory() {
    struct stat image = {};
    if (stat(place::store_image.c_str(), &image) != 0) tflab::fails("look at the store");
    if (image.st_blocks * 512 > most_written) throw std::runtime_error("too much was written");
}

}  // namespace

void measure_data(int repetitions, const std::string &only) {
    for (const Kind &kind : kinds()) {
        if (text_of(kind).find(only) == std::string::npos) continue;
        Ground ground(kind);
        Times times;
        measure_round(&ground, &times);  // makes what the later ones replace
        times = {};
        for (int i = 0; i < repetitions; ++i) measure_round(&ground, &times);
        print_times(kind, times);
        check_memory();
    }
}

}  // namespace bench
