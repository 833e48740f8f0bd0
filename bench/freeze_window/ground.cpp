#include "bench/freeze_window/ground.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "lab/host/host.h"
#include "lab/host/loops.h"
#include "lab/host/places.h"
#include "lab/host/system.h"
#include "lab/host/world.h"

namespace bench {
namespace {

namespace place = tflab::place;

std::string numbered(const char *format, int number) {
    char text[64];
    snprintf(text, sizeof text, format, number);
    return text;
}

// Nothing of it is written later, in the background, where it would disturb a measurement.
const std::vector<std::string> make_file_system = {
    "mkfs.ext4", "-q", "-E", "lazy_itable_init=1,lazy_journal_init=1", "-J", "size=4"};
constexpr char mount_options[] = "noinit_itable";

std::vector<std::string> with(std::vector<std::string> command,
                              std::initializer_list<std::string> more) {
    command.insert(command.end(), more);
    return command;
}

void must_run_in_host(const std::vector<std::string> &command) {
    if (tflab::execute_in_host(bench_host, command) != 0) {
        throw std::runtime_error(command[0] + " " + command.back() + " failed in the host");
    }
}

// Devices of one group, each with a mirror that holds what it holds; changes of a pair take no
// time, so that what is measured is work.
std::string scenario(const Size &size) {
    const std::string bytes = std::to_string(size.device >> 20) + "M";
    std::string text =
        "[settings]\nversion = 0x05000000\nrate = 0\n\n[[array]]\n" +
        std::string("symid = \"000184500123\"\nsize = \"") +
        std::to_string((size.device >> 20) * (static_cast<uint64_t>(size.pairs) + 1)) + "M\"\n";
    std::string masks;
    for (int i = 0; i < size.pairs; ++i) {
        const std::string standard = numbered("%04X", 0x1000 + i);
        const std::string mirror = numbered("%04X", 0x2000 + i);
        text += "\n[[array.device]]\nname = \"" + standard + "\"\nsize = \"" + bytes +
                "\"\ngroup = \"bench\"\n\n[[array.device.bcv]]\nname = \"" + mirror +
                "\"\nlabel = \"TSR-BCV\"\nstate = \"synchronised\"\n";
        masks += "\n[[mask]]\nsymid = \"000184500123\"\ndevice = \"" + standard +
                 "\"\nhost = \"client1\"\npaths = [\"" + numbered("/dev/qz/dmp/p%d", i) + "\", \"" +
                 numbered("/dev/qz/rdmp/p%d", i) +
                 "\"]\n\n[[mask]]\nsymid = \"000184500123\"\ndevice = \"" + mirror +
                 "\"\nhost = \"client1\"\npaths = [\"/dev/sd" + static_cast<char>('b' + i / 26) +
                 static_cast<char>('a' + i % 26) + "\"]\n";
    }
    return text + masks;
}

}  // namespace

void must_run(const std::vector<std::string> &command) {
    const auto log = place::base / "bench.log";
    tflab::fs::remove(log);
    const int status = tflab::run(command, log);
    if (status != 0) {
        throw std::runtime_error(command[0] + " ended with " + std::to_string(status) + ": " +
                                 tflab::read_text(log));
    }
}

Ground::Ground(const Size &given) : size(given) {
    make_array();
    make_plain();
}

Ground::~Ground() {
    for (const std::string &path : plain.paths) umount2(path.c_str(), MNT_DETACH);
}

void Ground::make_array() {
    tflab::start_host(bench_host);
    const auto file = place::base / "bench.toml";
    tflab::write_text(file, scenario(size));
    tflab::administer({"build", file});
    const std::string first = tflab::read_text(place::Host(bench_host).pid);
    for (int i = 0; i < size.pairs; ++i) {
        on_array.paths.push_back(numbered("/data%d", i));
        on_array.nodes.push_back(numbered("/dev/qz/dmp/p%d", i));
        on_array.seen.push_back("/proc/" + first + "/root" + on_array.paths.back());
        must_run_in_host(with(make_file_system, {on_array.nodes.back()}));
        must_run_in_host({"mkdir", on_array.paths.back()});
        must_run_in_host(
            {"mount", "-o", mount_options, on_array.nodes.back(), on_array.paths.back()});
    }
}

void Ground::make_plain() {
    tflab::make_folder(place::store / "plain");
    tflab::make_folder(place::base / "plain");
    for (int i = 0; i < size.pairs; ++i) {
        const auto image = place::store / "plain" / std::to_string(i);
        const auto path = place::base / "plain" / std::to_string(i);
        const tflab::Fd file = tflab::open_file(image, O_RDWR | O_CREAT | O_EXCL);
        if (ftruncate(file.get(), static_cast<off_t>(size.device)) != 0)
            tflab::fails("make an image");
        tflab::fs::path node;
        tflab::Fd device = tflab::attach_loop(image, "/dev", &node);
        must_run(with(make_file_system, {node}));
        tflab::make_folder(path);
        must_run({"mount", "-o", mount_options, node, path});
        plain.files.push_back(image);
        plain.nodes.push_back(node);
        plain.paths.push_back(path);
    }
    plain.seen = plain.paths;
}

void change_data(const Size &size, const std::vector<std::string> &directories, int round) {
    constexpr size_t piece = 1 << 20;
    std::vector<uint64_t> words(piece / sizeof(uint64_t));
    uint64_t state = 0x9e3779b97f4a7c15U + static_cast<uint64_t>(round);
    for (const std::string &directory : directories) {
        const tflab::Fd file = tflab::open_file(directory + "/data", O_WRONLY | O_CREAT);
        for (uint64_t done = 0; done < size.changed;) {
            for (uint64_t &word : words)
                word = state = state * 6364136223846793005U + 1442695040888963407U;
            const uint64_t bytes = std::min<uint64_t>(piece, size.changed - done);
            const ssize_t written =
                pwrite(file.get(), words.data(), bytes, static_cast<off_t>(done));
            if (written <= 0) tflab::fails("write to " + directory);
            done += static_cast<uint64_t>(written);
        }
    }
}

}  // namespace bench
