// The operations: the whole life of a snapshot in one process, and its later half from a text.
#include <cstdarg>
#include <cstring>
#include <stdexcept>

#include "include/tessera_host.h"
#include "include/timefinder.h"
#include "method/interface.h"
#include "proof/hostile_names/setting.h"
#include "snap/snap.h"

namespace {

// The identifier of the message that the last failure gave.
std::string message_id;

}  // namespace

// The library's calls of these come here.
extern "C" {
unsigned __wrap_sleep(unsigned);
int __wrap_qlgetmsg(const char *id, const char *lc_messages, size_t errmsg_size, char *errmsg,
                    const char *lc_logging, size_t logmsg_size, char *logmsg, const char *format,
                    ...);
int __wrap_qlgetmsg_errno(const char *id, const char *lc_messages, size_t errmsg_size, char *errmsg,
                          const char *lc_logging, size_t logmsg_size, char *logmsg, int errnum,
                          const char *format, ...);
}

unsigned __wrap_sleep(unsigned) {
    return 0;
}

int __wrap_qlgetmsg(const char *id, const char *, size_t errmsg_size, char *errmsg, const char *,
                    size_t logmsg_size, char *logmsg, const char *format, ...) {
    message_id = id;
    va_list args;
    va_start(args, format);
    Q_vsnprintf(errmsg, errmsg_size, format, args);
    va_end(args);
    Q_strlcpy(logmsg, errmsg, logmsg_size);
    return 0;
}

int __wrap_qlgetmsg_errno(const char *id, const char *, size_t errmsg_size, char *errmsg,
                          const char *, size_t logmsg_size, char *logmsg, int errnum,
                          const char *format, ...) {
    message_id = id;
    char text[TF_MESSAGE_SIZE];
    va_list args;
    va_start(args, format);
    Q_vsnprintf(text, sizeof text, format, args);
    va_end(args);
    Q_strlcpy(errmsg, text, errmsg_size);
    Q_strlcpy(logmsg, strerror(errnum), logmsg_size);
    return 0;
}

namespace hostile {
namespace {

// The framework's side: calls, and what they gave.
class Framework {
  public:
    explicit Framework(const Setting &setting) : setting_(setting) {
        bind_array(setting.array);
        resolve_symapi = 1;
        TimeFinder_init(&number_, logmsg_, errmsg_);
        TimeFinder_set_logf([](const char *) {}, 2);
    }

    // Makes the calls one after the other. After one that failed, what a framework does then.
    std::string calls(const std::vector<std::string> &names) {
        for (const std::string &name : names) {
            if (call(name) == 0) continue;
            if (handle_ == nullptr || name == "thaw_commit") break;
            if (name != "thaw") call("thaw");
            call("thaw_commit");
            break;
        }
        free(text_);
        return told_;
    }

  private:
    int32_t call(const std::string &name) {
        number_ = 0;
        errmsg_[0] = '\0';
        message_id.clear();
        const int32_t status = enter(name);
        told_ += (told_.empty() ? "" : ", ") + name + " " + std::to_string(status);
        if (status == 0) return status;
        told_ += " " + std::to_string(number_) + " " + (message_id.empty() ? "-" : message_id);
        return status;
    }

    int32_t enter(const std::string &name) {
        int32_t count = 0;
        char path[TF_VOLPATH_SIZE] = "";
        if (name == "freeze") {
            return TimeFinder_freeze(setting_.config.empty() ? nullptr : setting_.config.c_str(),
                                     setting_.source.c_str(), setting_.mount_point.c_str(), nullptr,
                                     &count, TF_FREEZE_WAIT, &handle_);
        }
        if (name == "rebuild") {
            std::string text = checkpoint_text();
            return TimeFinder_rebuild(&handle_, text.data());
        }
        if (name == "commit") return TimeFinder_freeze_commit(handle_);
        if (name == "ckpt") return TimeFinder_ckpt(handle_, &text_);
        if (name == "volumes") return TimeFinder_volumes(handle_, path, &count);
        if (name == "thaw") return TimeFinder_thaw(handle_);
        if (name == "thaw_commit") return TimeFinder_thaw_commit(handle_);
        throw std::logic_error("no call " + name);
    }

    std::string value(const std::string &key) const {
        const auto given = setting_.values.find(key);
        return given != setting_.values.end() ? given->second : "";
    }

    std::string checkpoint_text() const {
        std::string text;
        for (const char *key :
             {"HDEF-is_tgt", "HDEF-sync_at_start", "HDEF-async_resync", "HDEF-is_vol",
              "HDEF-is_mount", "HDEF-object_type", "HDEF-mount_point", "HDEF-vol_group",
              "HDEF-vol_name", "HDEF-clone_group", "HDEF-primary_host", "HDEF-fstype",
              "HDEF-keep_fi", "HDEF-dgimport", "HDEF-fs_path", "HDEF-dev_raw_device",
              "HDEF-dev_block_device", "HDEF-restore", "NO-such_key"}) {
            text += std::string(key) + "=" + value(key) + "\n";
        }
        text += "HDEF-CLONE_INFO_FILE=START\nTRANSFER_FILE=" + setting_.stale + "\n" +
                setting_.clone_line + "\nHDEF-CLONE_INFO_FILE=END\nPRIM_MIR_INFO=START\n";
        for (const char *key :
             {"symid", "dev_sym_devname", "dev_raw_device", "p_dev_raw_device", "bcv_raw_device",
              "bcvdev_sym_devname", "issplit", "sync_at_end", "lock_set"}) {
            text += std::string("PMINFO-") + key + "=" + value(std::string("PMINFO-") + key) + "\n";
        }
        return text + "PRIM_MIR_INFO=NEXT\nPRIM_MIR_INFO=END\n";
    }

    const Setting &setting_;
    hdef *handle_ = nullptr;
    char *text_ = nullptr;
    int32_t number_ = 0;
    char errmsg_[TF_MESSAGE_SIZE] = "", logmsg_[TF_MESSAGE_SIZE] = "";
    std::string told_;
};

void prepare_plain(Setting *) {}

void prepare_volume(Setting *setting) {
    put_on_volume(setting, "datadg", "vol1");
}

void prepare_import(Setting *setting) {
    prepare_volume(setting);
    setting->config = "alternate_backup_client=backup1";
    setting->host_entries = "dgimport=1\n";
}

// The texts are about a volume that was read as a file system, with its lock held.
void prepare_text(Setting *setting) {
    setting->array.state = 5;
    setting->values = {{"HDEF-sync_at_start", "0"},
                       {"HDEF-async_resync", "0"},
                       {"HDEF-is_mount", "0"},
                       {"HDEF-keep_fi", "0"},
                       {"HDEF-dgimport", "0"},
                       {"HDEF-is_vol", "1"},
                       {"HDEF-is_tgt", "0"},
                       {"HDEF-object_type", "3"},
                       {"HDEF-mount_point", "/copy"},
                       {"HDEF-vol_group", "datadg"},
                       {"HDEF-vol_name", "vol1"},
                       {"HDEF-primary_host", "client1"},
                       {"HDEF-fstype", "ext4"},
                       {"HDEF-fs_path", "/data"},
                       {"HDEF-dev_raw_device", "/dev/qz/rdsk/datadg/vol1"},
                       {"HDEF-dev_block_device", "/dev/qz/dsk/datadg/vol1"},
                       {"HDEF-restore", "0"},
                       {"PMINFO-symid", "000184500123"},
                       {"PMINFO-dev_sym_devname", "00A1"},
                       {"PMINFO-dev_raw_device", "/dev/qz/rdmp/p0"},
                       {"PMINFO-p_dev_raw_device", "/dev/qz/rdmp/p0"},
                       {"PMINFO-bcv_raw_device", "/dev/sdq"},
                       {"PMINFO-bcvdev_sym_devname", "01A1"},
                       {"PMINFO-issplit", "1"},
                       {"PMINFO-sync_at_end", "1"},
                       {"PMINFO-lock_set", "1"}};
}

void prepare_text_import(Setting *setting) {
    prepare_text(setting);
    setting->array.bcv_path = "/dev/rdsk/c2t0d1";
    setting->array.shows_primary = false;
    setting->values["HDEF-is_tgt"] = setting->values["HDEF-dgimport"] = "1";
}

void prepare_text_restore(Setting *setting) {
    prepare_text(setting);
    setting->values["HDEF-dgimport"] = setting->values["HDEF-restore"] = "1";
}

// The copy is known to be mounted and its group to be up.
void prepare_text_thaw(Setting *setting) {
    prepare_text(setting);
    setting->values["HDEF-is_mount"] = "1";
    setting->values["HDEF-clone_group"] = "client1_datadg_clone";
}

void prepare_text_device(Setting *setting) {
    prepare_text(setting);
    setting->values["HDEF-is_vol"] = "0";
    setting->values["HDEF-vol_group"] = "__NOT_VOL__GRP__";
    setting->values["HDEF-vol_name"] = "";
}

std::string whole_life(const Setting &setting) {
    return Framework(setting).calls({"freeze", "commit", "ckpt", "volumes", "thaw", "thaw_commit"});
}

// The copy is shown by another host.
std::string frozen(const Setting &setting) {
    return Framework(setting).calls({"freeze", "commit", "ckpt", "thaw", "thaw_commit"});
}

std::string shown(const Setting &setting) {
    return Framework(setting).calls({"rebuild", "volumes", "thaw", "thaw_commit"});
}

std::string released(const Setting &setting) {
    return Framework(setting).calls({"rebuild", "thaw", "thaw_commit"});
}

// Diagnostic lines about commands.
int told_of_commands;

int count_line(int, const char *text, int length) {
    const std::string line(text, static_cast<size_t>(length));
    if (line.starts_with("system command ") || line.starts_with("exec of command ")) {
        ++told_of_commands;
    }
    return length;
}

// What an exported function gave, and how many lines it told of commands.
std::string gave(const char *name, int result) {
    std::string text = std::string(name) + " " + std::to_string(result);
    if (told_of_commands != 0) text += " told " + std::to_string(told_of_commands);
    told_of_commands = 0;
    return text;
}

// The exported names that a framework asks for by itself.
std::string quiesced(const Setting &setting) {
    sn_set_errf(count_line, 2, 0);
    char *dir = nullptr, *type = nullptr, *kind = nullptr, *raw = nullptr, *block = nullptr;
    std::string path = setting.raw_volume;
    std::string told = gave("rawtofs", rawtofs(path.c_str(), &dir, &type));
    // Whether a set was found; its mount is not looked for in vain.
    told += dir != nullptr ? std::string(" ") + dir : std::string();
    told += ", " +
            gave("fsdevinfo", fsdevinfo(setting.source.c_str(), &kind, &raw, &block, &dir, &type));
    const char *mount = setting.mount_point.c_str();
    told += ", " + gave("lock_fs", lock_fs(mount, "ufs"));
    told += ", " + gave("unlock_fs", unlock_fs(mount, "ufs", -1));
    told += ", " + gave("locksnap", locksnap(mount, 1, 0));
    return told + ", " + gave("unlocksnap", unlocksnap(mount, 1, 0));
}

}  // namespace

const std::vector<Operation> &operations() {
    static const std::vector<Operation> all = {
        {"plain_device", prepare_plain, whole_life},
        {"volume", prepare_volume, whole_life},
        {"volume_for_import", prepare_import, frozen},
        {"text_clone", prepare_text, shown},
        {"text_import", prepare_text_import, shown},
        {"text_thaw", prepare_text_thaw, released},
        {"text_restore", prepare_text_restore, released},
        {"text_device", prepare_text_device, shown},
        {"quiesce", prepare_plain, quiesced},
    };
    return all;
}

const Operation &operation(const std::string &name) {
    for (const Operation &one : operations()) {
        if (name == one.name) return one;
    }
    throw std::logic_error("no operation " + name);
}

}  // namespace hostile
