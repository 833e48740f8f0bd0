#include "lab/tessera/clone_copy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <optional>

#include "lab/qzvm/groups.h"
#include "lab/qzvm/volumes.h"

namespace tessera {
namespace {

// Both kinds of files are the caller's temporary ones, in a folder that everybody may write to:
// what stands there has to be a file of the caller's own.
void write_file(const std::string &path, const std::string &text) {
    const int fd =
        open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0) qz::fails("open " + path);
    struct stat status = {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1 ||
        status.st_uid != geteuid()) {
        close(fd);
        throw qz::Error(path + " is not a regular file of this user");
    }
    const bool written = ftruncate(fd, 0) == 0 &&
                         write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if ((close(fd) != 0) || !written) qz::fails("write " + path);
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) qz::fails("open " + path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void check_plex(const CloneOptions &options) {
    if (!qz::is_name(options.plex)) throw qz::Error("'" + options.plex + "' is no plex name");
}

bool has_path(const qz::Disk &disk, const std::string &path) {
    return path == disk.raw || path == disk.block ||
           std::find(disk.paths.begin(), disk.paths.end(), path) != disk.paths.end();
}

const qz::GroupDisk &disk_at(const qz::Imported &imported, const std::string &path) {
    for (size_t i = 0; i < imported.disks.size(); ++i) {
        if (has_path(imported.disks[i], path)) return imported.group.disks.at(i);
    }
    throw qz::Error(path + " is no disk of disk group " + imported.group.name);
}

CloneVolume described(const qz::Volume &volume, const CloneInformation &information) {
    for (const std::string &id : volume.disks) {
        const auto is_listed = [&id](const CloneDisk &disk) { return disk.id == id; };
        if (std::none_of(information.disks.begin(), information.disks.end(), is_listed)) {
            throw qz::Error("volume " + volume.name + " lies on disk " + id +
                            ", which is not listed");
        }
    }
    return {volume.name, volume.start, volume.length, volume.fstype, volume.disks};
}

// What a mirror carries: its group's own region, or that of the copy that it is already.
Mirror read_mirror(const DevicePair &pair) {
    const qz::Found found = qz::read_region(pair.bcv);
    switch (found.content) {
    case qz::Content::good:
        return {pair, found.region};
    case qz::Content::damaged:
        throw qz::Error(pair.bcv + ": its private region is damaged: " + found.reason);
    case qz::Content::none:
        break;
    }
    throw qz::Error(pair.bcv + (qz::capacity_of(pair.bcv) == 0
                                    ? " is not ready: it is joined to its primary"
                                    : " has no private region of the volume manager"));
}

std::vector<Mirror> read_mirrors(const CloneOptions &options) {
    std::vector<Mirror> mirrors;
    for (const DevicePair &pair : options.devices) mirrors.push_back(read_mirror(pair));
    return mirrors;
}

bool all_belong_to(const std::vector<Mirror> &mirrors, const std::string &group) {
    return std::all_of(mirrors.begin(), mirrors.end(), [&group](const Mirror &mirror) {
        return mirror.region.group.name == group;
    });
}

// A copy that was made before, and perhaps left half way. After a restart of the host the volume
// manager does not know its disks.
void start_existing_copy(const std::string &clone, const CloneOptions &options) {
    if (!qz::is_imported(clone)) {
        for (const DevicePair &pair : options.devices) {
            qz::define_disk(pair.bcv);
            qz::online_disk(pair.bcv);
        }
        qz::import_group(clone, {});
    }
    const qz::Imported copy = qz::imported_group(clone);
    for (const std::string &volume : options.volumes) copy.volume(volume);
    qz::start_volumes(clone, options.volumes);
    printf("tqdgclone: %s is there already\n", clone.c_str());
}

void make_copy(const std::string &clone, const CloneOptions &options,
               const std::vector<Mirror> &mirrors) {
    const qz::Group part = part_to_copy(options.group, options.volumes, mirrors);
    std::vector<std::string> disks;
    for (const qz::GroupDisk &disk : part.disks) {
        for (const Mirror &mirror : mirrors) {
            if (mirror.region.disk_id == disk.id) disks.push_back(mirror.pair.bcv);
        }
    }
    qz::clone_group(clone, part, disks);
    qz::start_volumes(clone);
}

CloneInformation read_information(const std::string &path) {
    const std::string text = read_file(path);
    try {
        return parse_clone_information(text);
    } catch (const CloneInformationError &error) {
        throw CloneInformationError(path + ": " + error.what());
    }
}

// The group as its disks say; none when they carry something else by now, as mirrors do that were
// joined to their primaries and split again.
std::optional<qz::Imported> sound_group(const std::string &clone) {
    try {
        return qz::imported_group(clone);
    } catch (const qz::Error &error) {
        printf("tqdgclone: %s\n", error.what());
        return std::nullopt;
    }
}

}  // namespace

void list_devices(const CloneOptions &options) {
    check_plex(options);
    const qz::Exclusive exclusive;
    const qz::Imported imported = qz::imported_group(options.group);
    std::string text;
    if (options.volumes.empty()) {
        for (const qz::Disk &disk : imported.disks) text += disk.raw + "\n";
    } else {
        for (const std::string &id : imported.volume(options.volumes.front()).disks) {
            text += imported.disk(id).raw + "\n";
        }
    }
    write_file(options.output, text);
}

void describe_copy(const CloneOptions &options) {
    check_plex(options);
    const qz::Exclusive exclusive;
    const qz::Imported imported = qz::imported_group(options.group);
    CloneInformation information;
    information.group = imported.group.name;
    information.group_id = imported.group.id;
    // As the product names hosts: without the domain.
    const std::string host = qz::this_host();
    information.host = host.substr(0, host.find('.'));
    information.plex = options.plex;
    for (const DevicePair &pair : options.devices) {
        information.disks.push_back({disk_at(imported, pair.primary).id, pair.primary});
    }
    for (const std::string &name : options.volumes) {
        if (information.volume(name) != nullptr) continue;
        information.volumes.push_back(described(imported.volume(name), information));
    }
    write_file(options.information, to_text(information));
}

void bring_copy_up(const CloneOptions &options) {
    const bool is_described = options.form == CloneForm::clone_described;
    CloneInformation information;
    if (is_described) {
        information = read_information(options.information);
        check_information(information, options);
    } else {
        check_plex(options);
    }
    const std::string clone = clone_group_name(options.host, options.group);
    const qz::Exclusive exclusive;
    const std::vector<Mirror> mirrors = read_mirrors(options);
    if (all_belong_to(mirrors, clone)) return start_existing_copy(clone, options);
    if (is_described) check_mirrors(information, options, mirrors);
    make_copy(clone, options, mirrors);
}

void clean_up(const CloneOptions &options) {
    const std::string &clone = options.clone, &volume = options.volumes.front();
    if (!is_clone_name(clone, options.group)) {
        throw qz::Error(clone + " is no clone of disk group " + options.group);
    }
    const qz::Exclusive exclusive;
    if (!qz::is_imported(clone)) {
        printf("tqdgclone: disk group %s is not here\n", clone.c_str());
        return;
    }
    const std::optional<qz::Imported> copy = sound_group(clone);
    if (!copy) return qz::destroy_group(clone);
    const bool has_volume = copy->group.volume(volume) != nullptr;
    if (has_volume) {
        qz::stop_volumes(clone, {volume});
    } else {
        printf("tqdgclone: disk group %s has no volume %s\n", clone.c_str(), volume.c_str());
    }
    const size_t others = copy->group.volumes.size() - (has_volume ? 1 : 0);
    if (others == 0) return qz::destroy_group(clone);
    if (has_volume) qz::remove_volume(clone, volume);
}

}  // namespace tessera
