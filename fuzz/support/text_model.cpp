#include "fuzz/support/text_model.h"

#include <cstdlib>
#include <map>
#include <string_view>
#include <vector>

#include "fuzz/support/input.h"

namespace fuzz {
namespace {

constexpr int32_t failed = 11;

// A key of the text; the size of its field, or 0 for an integer.
struct Key {
    const char *name;
    size_t size;
};
constexpr Key object_keys[] = {
    {"HDEF-sync_at_start", 0},
    {"HDEF-async_resync", 0},
    {"HDEF-is_vol", 0},
    {"HDEF-is_mount", 0},
    {"HDEF-object_type", 0},
    {"HDEF-mount_point", 1024},
    {"HDEF-vol_group", 1024},
    {"HDEF-vol_name", 1024},
    {"HDEF-clone_group", 1024},
    {"HDEF-primary_host", 1024},
    {"HDEF-fstype", 1024},
    {"HDEF-keep_fi", 0},
    {"HDEF-dgimport", 0},
    {"HDEF-fs_path", 1024},
    {"HDEF-dev_raw_device", 1024},
    {"HDEF-dev_block_device", 1024},
};
constexpr Key owner_keys[] = {
    {"PMINFO-dev_raw_uid", 0},
    {"PMINFO-dev_raw_gid", 0},
    {"PMINFO-dev_blk_uid", 0},
    {"PMINFO-dev_blk_gid", 0},
};
constexpr Key device_keys[] = {
    {"PMINFO-symid", 13},
    {"PMINFO-dev_sym_devname", 5},
    {"PMINFO-dev_raw_device", 1024},
    {"PMINFO-p_dev_raw_device", 1024},
    {"PMINFO-bcv_raw_device", 1024},
    {"PMINFO-bcvdev_sym_devname", 5},
    {"PMINFO-issplit", 0},
    {"PMINFO-sync_at_end", 0},
    {"PMINFO-lock_set", 0},
};

using Values = std::map<std::string, std::string>;

std::string integer(const std::string &text) {
    return std::to_string(static_cast<int32_t>(strtol(text.c_str(), nullptr, 10)));
}

// Stores a value the way its field holds it. Returns whether the key is one of these.
template <size_t N>
bool store(Values &values, const Key (&keys)[N], const std::string &name, const std::string &text) {
    for (const Key &key : keys) {
        if (name != key.name) continue;
        values[name] = key.size == 0 ? integer(text) : text.substr(0, key.size - 1);
        return true;
    }
    return false;
}

template <size_t N>
std::string lines(const Values &values, const Key (&keys)[N]) {
    std::string text;
    for (const Key &key : keys) {
        const auto found = values.find(key.name);
        const std::string value = found != values.end() ? found->second : key.size == 0 ? "0" : "";
        text += std::string(key.name) + "=" + value + "\n";
    }
    return text;
}

bool contains(const std::string &text, const char *part) {
    return text.find(part) != std::string::npos;
}

// The path of a mirror on this host.
std::string mirror_path(const std::string &name) {
    if (contains(name, "hid")) return "/dev/rdsk/cXtXdX";
    if (contains(name, "5")) return "/dev/sdq";
    return (contains(name, "7") ? "/dev/s" : "/dev/rdsk/") + name;
}

class Rebuild {
  public:
    // False: the rebuild ends here with a failure.
    bool take(const std::string &line) {
        if (line == "HDEF-CLONE_INFO_FILE=START") return in_clone_ = true;
        if (line == "HDEF-CLONE_INFO_FILE=END") {
            in_clone_ = file_open_ = false;
            return true;
        }
        if (in_clone_) return take_clone_line(line);
        if (line == "PRIM_MIR_INFO=START" || line == "PRIM_MIR_INFO=END") return true;
        return line == "PRIM_MIR_INFO=NEXT" ? commit() : convert(line);
    }
    bool finish() {
        if (!is_set(added_, "HDEF-is_tgt") && !lock()) return false;
        if (is_set(added_, "HDEF-restore") && !is_set(object_, "HDEF-dgimport")) return false;
        return last_line_good_;
    }
    std::string text() {
        std::string text = lines(object_, object_keys) + "PRIM_MIR_INFO=START\n";
        if (!is_set(object_, "HDEF-is_vol") && !devices_.empty()) {
            text += lines(devices_[0], owner_keys);
        }
        for (const Values &device : devices_) {
            text += lines(device, device_keys) + "PRIM_MIR_INFO=NEXT\n";
        }
        return text + "PRIM_MIR_INFO=END\n";
    }

    const std::string &clone_information() const { return clone_information_; }
    const std::vector<std::string> &deleted() const { return deleted_; }

  private:
    static bool is_set(const Values &values, const char *key) {
        const auto found = values.find(key);
        return found != values.end() && found->second != "0";
    }

    bool take_clone_line(const std::string &line) {
        constexpr std::string_view stale = "TRANSFER_FILE=";
        if (line.starts_with(stale)) {
            deleted_.push_back(line.substr(stale.size()));
            return true;
        }
        if (file_open_) clone_information_ += line + "\n";
        return file_open_;
    }
    bool convert(const std::string &line) {
        const size_t equals = line.find('=');
        const std::string name = line.substr(0, equals);
        const std::string value = equals == std::string::npos ? "" : line.substr(equals + 1);
        if (equals != std::string::npos && (name == "HDEF-is_tgt" || name == "HDEF-restore")) {
            added_[name] = integer(value);
            return true;
        }
        last_line_good_ = equals != std::string::npos;
        if (!last_line_good_) return true;
        store(object_, object_keys, name, value) || store(scratch_, owner_keys, name, value) ||
            store(scratch_, device_keys, name, value);
        return true;
    }
    bool commit() {
        const std::string primary = scratch_["PMINFO-dev_sym_devname"];
        const std::string mirror = scratch_["PMINFO-bcvdev_sym_devname"];
        const bool imports = is_set(object_, "HDEF-dgimport") && is_set(added_, "HDEF-is_tgt");
        if (imports && !contains(primary, "!") && !contains(primary, "hid")) return false;
        if (contains(mirror, "!")) return false;
        scratch_["PMINFO-bcv_raw_device"] = mirror_path(mirror);
        devices_.push_back(scratch_);
        scratch_.clear();
        return true;
    }
    bool lock() {
        int locks = 0;
        for (Values &device : devices_) {
            const std::string path = device["PMINFO-dev_raw_device"];
            device["PMINFO-p_dev_raw_device"] = path;
            if (!is_set(device, "PMINFO-lock_set")) continue;
            if (contains(path, "unknown")) return false;
            device["PMINFO-issplit"] = locks++ == 0 ? "0" : "1";
        }
        return true;
    }

    std::string clone_information_;
    std::vector<std::string> deleted_;
    Values object_, added_, scratch_;
    std::vector<Values> devices_;
    bool in_clone_ = false, file_open_ = true, last_line_good_ = true;
};

}  // namespace

Expected expected_rebuild(const std::string &text) {
    Rebuild rebuild;
    std::string rest = text;
    // What follows the last newline is no line.
    while (rest.find('\n') != std::string::npos) {
        if (!rebuild.take(take_line_off(rest))) return {failed, "", "", rebuild.deleted()};
    }
    if (!rebuild.finish()) return {failed, "", "", rebuild.deleted()};
    return {0, rebuild.text(), rebuild.clone_information(), rebuild.deleted()};
}

}  // namespace fuzz
