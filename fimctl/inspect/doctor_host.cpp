// What the examination looks for in the host's own files: tools, folders, the mount table.
#include <mntent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>

#include "fimctl/command.h"
#include "fimctl/hooks.h"
#include "fimctl/inspect/doctor.h"
#include "fimctl/paths.h"
#include "fimctl/source.h"

namespace fimctl {
namespace {

struct Tool {
    const char *program;
    bool every_snapshot;  // else of volumes only
    const char *purpose;
};

constexpr Tool tools[] = {
    {path::device_information_tool, true, "names a device's array, for its lock"},
    {"fsck", true, "checks a copy before it is mounted"},
    {"mount", true, "mounts a copy"},
    {"umount", true, "unmounts a copy"},
    {path::clone_tool, false, "lists and clones disk groups"},
    {path::disk_group_tool, false, "imports and deports disk groups"},
    {path::disk_tool, false, "defines the mirrors as disks"},
    {path::daemon_tool, false, "restarts the volume manager's daemon"},
    {path::volume_tool, false, "starts volumes"},
    {path::volume_set_tool, false, "lists volume sets"},
};

// A folder that must be there before the first snapshot: the method makes none of these.
void examine_lock_folder(const char *folder, Findings &findings) {
    struct stat status = {};
    const std::string subject = "lock folder";
    if (stat(folder, &status) != 0 || !S_ISDIR(status.st_mode)) {
        findings.fail(subject, std::string(folder) + ": missing; no snapshot gets its array's lock",
                      std::string("mkdir -p -m 0755 ") + folder);
    } else if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        findings.warn(subject, std::string(folder) + ": others than its owner may write to it",
                      std::string("chmod go-w ") + folder);
    } else if (access(folder, W_OK) != 0) {
        findings.fail(subject, std::string(folder) + ": " + strerror(errno),
                      "see that root may write to it");
    } else {
        findings.ok(subject, folder);
    }
}

// Not looked at: the mode of the database's own folder, which the method makes without search
// permission, as it always has.
void examine_database_folder(Findings &findings) {
    const std::string subject = "array database";
    if (access(path::array_database, F_OK) == 0) {
        findings.ok(subject, path::array_database);
    } else if (access(path::array_root, F_OK) == 0) {
        findings.ok(subject, std::string(path::array_database) +
                                 ": not there yet; the first snapshot makes it");
    } else {
        findings.fail(subject, std::string(path::array_root) + ": missing",
                      std::string("mkdir -m 0755 ") + path::array_root);
    }
}

void examine_state_folder(const std::string &folder, Findings &findings) {
    const std::string subject = "state folder";
    struct stat status = {};
    if (stat(folder.c_str(), &status) != 0) {
        if (errno == ENOENT) {
            findings.ok(subject, folder + ": not there yet; the first snapshot makes it");
        } else {
            findings.fail(subject, folder + ": " + strerror(errno), "see that root may read it");
        }
    } else if (!S_ISDIR(status.st_mode)) {
        findings.fail(subject, folder + ": not a directory", "name another one with --state");
    } else if ((status.st_mode & 077) != 0) {
        findings.warn(subject, folder + ": open to others than its owner", "chmod 700 " + folder);
    } else {
        findings.ok(subject, folder);
    }
}

// One that cannot be read stops every command that works on a snapshot.
void examine_catalogue(const std::string &folder, Findings &findings) {
    const std::string subject = "catalogue";
    if (access(folder.c_str(), R_OK | W_OK | X_OK) != 0) return;
    try {
        if (!Catalogue::exists(folder)) return;
        const size_t count = Catalogue(folder, false).all().size();
        findings.ok(subject, folder + "/" + path::catalogue_file + ": " + std::to_string(count) +
                                 (count == 1 ? " snapshot" : " snapshots"));
    } catch (const Failure &failure) {
        findings.fail(
            subject, failure.what(),
            failure.next.empty() ? remedy_of(failure.step, failure.code, 0) : failure.next);
    }
}

void examine_temporary_folder(Findings &findings) {
    const char *named = getenv("TMPDIR");
    const std::string folder = named != nullptr ? named : P_tmpdir;
    struct stat status = {};
    if (stat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) ||
        access(folder.c_str(), W_OK | X_OK) != 0) {
        findings.fail("temporary folder", folder + ": cannot be written",
                      "mkdir -p -m 1777 " + folder);
    } else if ((status.st_mode & S_IWOTH) != 0 && (status.st_mode & S_ISVTX) == 0) {
        findings.warn("temporary folder", folder + ": anybody may remove the method's files there",
                      "chmod +t " + folder);
    } else {
        findings.ok("temporary folder", folder);
    }
}

// The mounted devices of a table, each with where it is mounted. False when it cannot be read.
bool read_table(const char *file, std::set<std::pair<std::string, std::string>> &mounts) {
    const std::unique_ptr<FILE, decltype(&endmntent)> table(setmntent(file, "re"), endmntent);
    if (table == nullptr) return false;
    while (const struct mntent *entry = getmntent(table.get())) {
        if (strncmp(entry->mnt_fsname, "/dev/", 5) != 0) continue;
        mounts.emplace(entry->mnt_fsname, entry->mnt_dir);
    }
    return true;
}

std::string missing_from(const std::set<std::pair<std::string, std::string>> &table,
                         const std::set<std::pair<std::string, std::string>> &other) {
    std::string text;
    for (const auto &mount : other) {
        if (table.count(mount) != 0) continue;
        text += (text.empty() ? "" : ", ") + mount.first + " on " + mount.second;
    }
    return text;
}

}  // namespace

void examine_tools(Findings &findings) {
    for (const Tool &tool : tools) {
        const std::string program = tool.program;
        if (can_be_run(program)) {
            findings.ok("tool", program);
        } else if (tool.every_snapshot) {
            findings.fail("tool", program + ": missing; it " + tool.purpose, "install " + program);
        } else {
            findings.warn("tool", program + ": missing; it " + tool.purpose,
                          "install it if volumes are to be snapshot");
        }
    }
    if (access(path::clone_script, F_OK) == 0 && access(path::clone_script, X_OK) != 0) {
        findings.fail("site script",
                      std::string(path::clone_script) +
                          ": there, and not to be executed: every "
                          "mount would fail",
                      std::string("chmod 755 ") + path::clone_script + ", or take it away");
    }
}

void examine_folders(const Settings &settings, Findings &findings) {
    examine_lock_folder(path::host_lock_folder, findings);
    examine_lock_folder(path::counter_folder, findings);
    examine_database_folder(findings);
    examine_state_folder(settings.state, findings);
    examine_catalogue(settings.state, findings);
    examine_temporary_folder(findings);
}

void examine_hooks(const Settings &settings, Findings &findings) {
    const std::string subject = "hooks";
    const HookFiles found = find_hooks(settings);
    for (const HookFiles::Refused &one : found.refused) {
        findings.fail(subject, one.file + ": " + one.why + "; no snapshot is taken", one.remedy);
    }
    if (!found.refused.empty()) return;
    const std::string folder = settings.hooks.empty() ? "none wanted" : settings.hooks;
    findings.ok(subject, folder + ": " + std::to_string(found.files.size()));
}

void examine_mount_table(Findings &findings) {
    const std::string subject = "mount table";
    const std::string file = path::method_mount_table;
    const std::string folder = file.substr(0, file.rfind('/'));
    // What is mounted there is not this host's own, and a link would be written into a copy.
    const std::string remedy =
        is_mount_point(folder) ? "umount " + folder + ": what is mounted there hides the host's own"
                               : "ln -sf ../proc/self/mounts " + file;
    std::set<std::pair<std::string, std::string>> table, kernel;
    if (!read_table(file.c_str(), table)) {
        findings.fail(subject, file + ": " + strerror(errno), remedy);
        return;
    }
    read_table("/proc/self/mounts", kernel);
    const std::string unlisted = missing_from(table, kernel);
    const std::string gone = missing_from(kernel, table);
    if (!unlisted.empty()) {
        findings.fail(subject, file + " does not list " + unlisted, remedy);
    }
    if (!gone.empty()) {
        findings.warn(subject, file + " still lists " + gone, remedy);
    }
    if (unlisted.empty() && gone.empty()) findings.ok(subject, file);
}

}  // namespace fimctl
