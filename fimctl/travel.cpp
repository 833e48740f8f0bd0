#include "fimctl/travel.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <set>
#include <sstream>

#include "fimctl/copy_folder.h"
#include "fimctl/disk_group.h"
#include "fimctl/host.h"
#include "fimctl/log.h"
#include "fimctl/lost_copy.h"
#include "fimctl/snapshot_lock.h"
#include "fimctl/source.h"
#include "fimctl/tool.h"
#include "fimctl/travel_document.h"

namespace fimctl {
namespace {

namespace fs = std::filesystem;

Failure refused(const std::string &text, const std::string &next) {
    Failure failure(Step::carry, ExitCode::usage, text);
    failure.next = next;
    return failure;
}

std::string described(const SnapshotRecord &snapshot) {
    return "snapshot " + std::to_string(snapshot.id) + " (" + name_of(snapshot.state) + ")";
}

SnapshotRecord known(Catalogue &catalogue, int64_t id) {
    auto snapshot = catalogue.find(id);
    if (!snapshot) throw no_such_snapshot(id);
    return std::move(*snapshot);
}

// --- export ---

void refuse_to_hand_out(const SnapshotRecord &snapshot, bool again) {
    const std::string id = std::to_string(snapshot.id);
    if (snapshot.state == State::mounting || snapshot.state == State::mounted) {
        throw refused(described(snapshot) + " is in use on this host",
                      "end it here (fimctl release " + id +
                          "), take another one and export that before it is mounted");
    }
    if (snapshot.state != State::frozen || !snapshot.void_reason.empty()) {
        throw refused(described(snapshot) + " has no copy that another host could read",
                      is_over(snapshot.state) ? "take another snapshot: fimctl freeze PATH..."
                      : snapshot.state == State::restoring ? "fimctl restore " + id
                                                           : "fimctl release " + id);
    }
    if (snapshot.is_away() && !again) {
        throw refused(
            "snapshot " + id + " was exported at " + snapshot.exported +
                " and has not come back; it goes to one host at a time",
            "import its return: fimctl import FILE. If the document was lost before any host "
            "imported it: fimctl export " +
                id + " --force");
    }
}

void refuse_to_send_back(const SnapshotRecord &snapshot) {
    if (snapshot.state == State::released) return;
    const std::string id = std::to_string(snapshot.id);
    throw refused(described(snapshot) + " has not been released here",
                  "fimctl release " + id + ", then: fimctl export " + id);
}

TravelDocument out_document(SnapshotRecord snapshot) {
    TravelDocument document;
    document.direction = Direction::out;
    document.origin_host = snapshot.host;
    document.origin_id = snapshot.id;
    document.writer = short_host_name();
    for (ObjectRecord &object : snapshot.objects) {
        object.text = for_backup_host(object.latest_text());
        object.mounted_text.clear();
    }
    document.snapshot = std::move(snapshot);
    return document;
}

TravelDocument back_document(SnapshotRecord snapshot) {
    TravelDocument document;
    document.direction = Direction::back;
    const size_t colon = snapshot.origin.rfind(':');
    document.origin_host = snapshot.origin.substr(0, colon);
    document.origin_id = std::strtoll(snapshot.origin.substr(colon + 1).c_str(), nullptr, 10);
    document.writer = short_host_name();
    for (ObjectRecord &object : snapshot.objects) {
        object.text = for_primary_host(object.latest_text());
        object.mounted_text.clear();
    }
    document.snapshot = std::move(snapshot);
    return document;
}

// --- import on the backup host ---

std::string origin_of(const TravelDocument &document) {
    return document.origin_host + ":" + std::to_string(document.origin_id);
}

void refuse_repeated(const SnapshotRecord &earlier, const TravelDocument &document) {
    const std::string id = std::to_string(earlier.id);
    if (!is_over(earlier.state)) {
        throw refused("it has been imported already, as " + described(earlier),
                      earlier.state == State::frozen ? "fimctl mount " + id
                                                     : "fimctl show " + id + " tells about it");
    }
    if (earlier.exports >= document.snapshot.exports) {
        throw refused("it has been imported already, as " + described(earlier),
                      "send it back to " + document.origin_host + ": fimctl export " + id);
    }
}

Failure strange(const std::string &what) {
    return refused("the document is damaged: " + what,
                   "export the snapshot again on the primary host");
}

// Names are put into lines of texts and of messages, and "inside" behind the copy's directory.
void check_names(const ObjectRecord &object, const CheckpointText &text) {
    for (const std::string *name : {&object.source, &object.kind, &object.inside, &object.mount_dir,
                                    &object.fifs, &object.vol_group, &object.vol_name}) {
        if (name->find('\n') != std::string::npos) throw strange("it holds a name of two lines");
    }
    for (const fs::path &part : fs::path(object.inside)) {
        if (part == "..") throw strange("the path of " + object.source + " leads out of its copy");
    }
    for (const std::string &name : {object.vol_group, object.vol_name, text.value("HDEF-vol_group"),
                                    text.value("HDEF-vol_name")}) {
        const bool leads_away = name.find('/') != std::string::npos || name == "." || name == "..";
        if (!leads_away && !name.starts_with('-')) continue;
        throw strange(name + " is no name of a disk group or a volume");
    }
}

// The rebuild removes the file that a clone block names, as root: what another host has put there
// must be such a file, never one of this host's own.
void check_clone_block(const ObjectRecord &object) {
    constexpr char key[] = "TRANSFER_FILE=";
    constexpr char prefix[] = "EMCTX";
    std::istringstream lines(object.text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with(key)) continue;
        const fs::path file = line.substr(strlen(key));
        const bool fits = file.is_absolute() && file.filename().string().starts_with(prefix);
        if (!fits) throw strange(file.string() + " is no transfer file");
    }
}

void check_text(const ObjectRecord &object) {
    const CheckpointText text(object.text);
    const bool fits = text.is_target() && text.value("HDEF-mount_point") == object.fifs &&
                      text.value("HDEF-restore").empty() && fs::path(object.fifs).is_absolute();
    if (!fits) throw strange("the checkpoint of " + object.source + " does not belong to it");
    check_names(object, text);
    check_clone_block(object);
}

// The directory is named by another host: what is there already must not be hidden by a copy.
void check_folder(const std::string &folder, const std::vector<SnapshotRecord> &others) {
    std::error_code error;
    const std::string real = fs::weakly_canonical(folder, error);
    if (error) throw refused(folder + ": " + error.message(), "see that it can be made");
    if (real != folder) {
        // The method compares it, to the letter, with what the mount table shows.
        throw refused(folder + " is " + real + " on this host, by a link on the way",
                      "make it a directory under its own name, then: fimctl import");
    }
    if (is_mount_point(folder)) {
        throw refused(
            folder + ", where the copy would be mounted, is a mount point already",
            "unmount what is there (umount " + shell_word(folder) + "), then: fimctl import");
    }
    if (fs::exists(folder, error) && !fs::is_empty(folder, error)) {
        throw refused(folder + ", where the copy would be mounted, is not empty",
                      "move away what is there, then: fimctl import");
    }
    refuse_promised(folder, folder, others);
}

void enter_objects(Catalogue &catalogue, int64_t id, std::vector<ObjectRecord> &objects) {
    for (ObjectRecord &object : objects) object.made_fifs = make_folder(object.fifs);
    catalogue.set_objects(id, objects);
    for (size_t i = 0; i < objects.size(); ++i) {
        catalogue.set_text(id, i, objects[i].text);
        catalogue.set_pairs(id, i, objects[i].pairs);
    }
}

int64_t take_in(Catalogue &catalogue, TravelDocument &document) {
    if (document.origin_host == short_host_name()) {
        throw refused("this document goes to the backup host, and this host has written it",
                      "carry it to the backup host and import it there");
    }
    SnapshotRecord &snapshot = document.snapshot;
    Catalogue::Transaction whole(catalogue);
    for (const SnapshotRecord &earlier : catalogue.with_uuid(snapshot.uuid)) {
        refuse_repeated(earlier, document);
    }
    snapshot.origin = origin_of(document);
    snapshot.is_target = true;
    const auto others = catalogue.all();
    refuse_equal_clone_names(snapshot, others);
    std::set<std::string> folders;
    for (const ObjectRecord &object : snapshot.objects) {
        check_text(object);
        check_folder(object.fifs, others);
        folders.insert(object.fifs);
    }
    if (folders.size() != snapshot.objects.size()) {
        throw refused("the document is damaged: two copies in one directory",
                      "export the snapshot again on the primary host");
    }
    const int64_t id = catalogue.enter_imported(snapshot);
    try {
        enter_objects(catalogue, id, snapshot.objects);
        whole.commit();
    } catch (const Failure &) {
        remove_made_folders(snapshot.objects);
        throw;
    }
    return id;
}

// --- import on the primary host ---

void check_return(const SnapshotRecord &own, const TravelDocument &document) {
    const std::string id = std::to_string(own.id);
    if (is_over(own.state)) {
        throw refused(described(own) + " is over", "nothing is left to do for it");
    }
    if (!own.is_away()) {
        throw refused(own.returned.empty()
                          ? "snapshot " + id + " was never exported"
                          : "snapshot " + id + " came back already, at " + own.returned,
                      "fimctl show " + id + " tells about it");
    }
    if (document.snapshot.exports != own.exports) {
        throw refused("this is the return of export " + std::to_string(document.snapshot.exports) +
                          " of snapshot " + id + "; it was exported again since, as export " +
                          std::to_string(own.exports),
                      "import the return of the latest export, from the host that has it");
    }
    if (!is_over(document.snapshot.state)) {
        throw refused("the copy of snapshot " + id + " is still in use on " + document.writer +
                          " (" + name_of(document.snapshot.state) + ")",
                      "on " + document.writer + ": fimctl release, then fimctl export");
    }
    if (document.snapshot.objects.size() != own.objects.size()) {
        throw refused("the document is damaged: it holds other objects than snapshot " + id,
                      "export the snapshot again on " + document.writer);
    }
}

int64_t take_back(const Settings &settings, Catalogue &catalogue, const TravelDocument &document) {
    const auto found = catalogue.with_uuid(document.snapshot.uuid);
    for (const SnapshotRecord &here : found) {
        if (!here.is_target) continue;
        throw refused(
            "this document goes to " + document.origin_host + ", and this host has written it",
            "carry it to " + document.origin_host + " and import it there");
    }
    if (found.empty()) {
        throw refused("this host knows nothing of snapshot " + origin_of(document),
                      "carry the document to " + document.origin_host + " and import it there");
    }
    const int64_t id = found.front().id;
    const SnapshotLock lock(settings.state, id);
    Catalogue::Transaction whole(catalogue);
    check_return(known(catalogue, id), document);
    for (size_t i = 0; i < document.snapshot.objects.size(); ++i) {
        catalogue.set_returned_text(id, i, document.snapshot.objects[i].text);
    }
    catalogue.set_returned(id);
    whole.commit();
    return id;
}

}  // namespace

void export_snapshot(const Settings &settings, Catalogue &catalogue, int64_t id, bool again,
                     const std::function<void(const std::string &)> &hand_over) {
    log::about(static_cast<long>(id));
    known(catalogue, id);
    const SnapshotLock lock(settings.state, id);
    const SnapshotRecord before = known(catalogue, id);
    if (before.is_target) {
        refuse_to_send_back(before);
    } else {
        refuse_to_hand_out(before, again);
        refuse_lost(catalogue, before);
    }
    // Marked before the document leaves: a command that is killed here leaves a snapshot that
    // counts as away, never one that is released under another host's hands.
    catalogue.set_exported(id);
    try {
        const SnapshotRecord snapshot = known(catalogue, id);
        hand_over(
            write_document(before.is_target ? back_document(snapshot) : out_document(snapshot)));
    } catch (const Failure &) {
        catalogue.take_export_back(id, before);
        throw;
    }
    log::progress(before.is_target ? "on its way back to " + before.origin : "exported");
    if (!before.is_target && before.is_away()) {
        log::problem("the earlier document of snapshot " + std::to_string(id) +
                     " must not be used any more; its return will be refused");
    }
}

int64_t import_snapshot(const Settings &settings, Catalogue &catalogue, const std::string &text) {
    TravelDocument document = read_document(text);
    if (document.direction == Direction::back) return take_back(settings, catalogue, document);
    return take_in(catalogue, document);
}

}  // namespace fimctl
