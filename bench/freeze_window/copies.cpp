#include "bench/freeze_window/copies.h"

#include <sys/mount.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <stdexcept>

#include "bench/freeze_window/probe.h"
#include "lab/host/host.h"
#include "lab/host/loops.h"
#include "lab/host/places.h"
#include "lab/host/system.h"

namespace bench {
namespace {

namespace place = tflab::place;

// The first is frozen first, and the last is thawed last or frozen last.
std::vector<std::string> watched(const FileSystems &systems) {
    if (systems.seen.size() == 1) return systems.seen;
    return {systems.seen.front(), systems.seen.back()};
}

std::vector<std::string> command(std::vector<std::string> words,
                                 const std::vector<std::string> &more, const std::string &last) {
    words.insert(words.end(), more.begin(), more.end());
    if (!last.empty()) words.push_back(last);
    return words;
}

// Flushed beforehand, as fimctl does it, too: it keeps the window short.
void freeze(const std::vector<std::string> &paths) {
    must_run(command({"sync", "-f"}, paths, ""));
    for (const std::string &path : paths) must_run({"fsfreeze", "--freeze", path});
}

void thaw(const std::vector<std::string> &paths) {
    for (const std::string &path : paths) must_run({"fsfreeze", "--unfreeze", path});
}

// Journals of the copies are played back by the check, as the method's check does it.
void check_and_mount(const std::vector<std::string> &images, const std::string &folder,
                     std::vector<std::string> *mounted) {
    for (const std::string &image : images) {
        tflab::fs::path node;
        const tflab::Fd device = tflab::attach_loop(image, "/dev", &node);
        const auto log = place::base / "fsck.log";
        const int status = tflab::run({"fsck.ext4", "-p", node}, log);
        if (status > 1) throw std::runtime_error("a copy is damaged: " + tflab::read_text(log));
        const std::string point = folder + "/mounted." + std::to_string(mounted->size());
        tflab::make_folder(point);
        must_run({"mount", node, point});
        mounted->push_back(point);
    }
}

// Freezes, makes copies of the images below the folder by the function, thaws, checks and mounts.
Copied by_images(const Ground &ground, const std::function<void(const std::string &)> &copy) {
    const std::string folder = place::store / "copies";
    tflab::make_folder(folder);
    std::vector<std::string> images, mounted;
    for (const std::string &file : ground.plain.files) {
        images.push_back(folder + "/" + tflab::fs::path(file).filename().string());
    }
    Copied copied;
    Probes probes(watched(ground.plain));
    const double begin = now();
    freeze(ground.plain.paths);
    copy(folder);
    thaw(ground.plain.paths);
    check_and_mount(images, folder, &mounted);
    copied.ready = now() - begin;
    copied.window = probes.window();
    for (const std::string &point : mounted) must_run({"umount", point});
    tflab::fs::remove_all(folder);
    return copied;
}

}  // namespace

Copied by_method(const Ground &ground) {
    const auto ready = place::exchange / "ready";
    tflab::fs::remove(ready);
    Copied copied;
    Probes probes(watched(ground.on_array));
    const std::chrono::duration<double> begin = std::chrono::system_clock::now().time_since_epoch();
    std::vector<std::string> words =
        command({"fimctl", "--quiet", "run"}, ground.on_array.paths, "--");
    // The command runs when all copies are mounted.
    for (const char *word : {"sh", "-c", "date +%s.%N >/exchange/ready"}) words.emplace_back(word);
    if (tflab::execute_in_host(bench_host, words) != 0) throw std::runtime_error("fimctl failed");
    copied.window = probes.window();
    copied.ready = strtod(tflab::read_text(ready).c_str(), nullptr) - begin.count();
    return copied;
}

Copied by_reflink(const Ground &ground) {
    return by_images(ground, [&](const std::string &folder) {
        must_run(command({"cp", "--reflink=always"}, ground.plain.files, folder));
    });
}

Copied by_dd(const Ground &ground) {
    return by_images(ground, [&](const std::string &folder) {
        for (size_t i = 0; i < ground.plain.nodes.size(); ++i) {
            const auto name = tflab::fs::path(ground.plain.files[i]).filename().string();
            must_run({"dd", "if=" + ground.plain.nodes[i], "of=" + folder + "/" + name, "bs=1M",
                      "conv=sparse"});
        }
    });
}

Copied by_rsync(const Ground &ground) {
    const std::string folder = place::store / "tree";
    tflab::make_folder(folder);
    Copied copied;
    Probes probes(watched(ground.plain));
    const double begin = now();
    freeze(ground.plain.paths);
    must_run(command({"rsync", "-a"}, ground.plain.paths, folder));
    thaw(ground.plain.paths);
    copied.ready = now() - begin;
    copied.window = probes.window();
    tflab::fs::remove_all(folder);
    return copied;
}

}  // namespace bench
