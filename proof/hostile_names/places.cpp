#include "proof/hostile_names/places.h"

namespace hostile {
namespace {

using Put = std::function<void(Setting *, const std::string &)>;

constexpr size_t field = 1023;     // of the method's records
constexpr size_t array_path = 47;  // of the array's records
constexpr size_t array_name = 4, array_id = 12, array_group = 63;
constexpr size_t host_name = 64;
constexpr size_t configuration = 1024;
constexpr size_t listed_line = 254;  // of the clone tool's output, with its newline
constexpr size_t serial_size = 255;
constexpr size_t table_name = 900;

// Behind a fixed folder less of a name fits.
constexpr size_t behind(const char *folder, size_t size = field) {
    return size - std::char_traits<char>::length(folder);
}

std::string trimmed(const std::string &text) {
    const char *const blanks = " \t\v\f\r";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// A text of the checkpoint. A newline ends it, and what follows is a line of its own.
Place text_value(const std::string &key, std::vector<std::string> operations) {
    std::string name = key;
    for (char &c : name) {
        if (c == '-') c = '_';
    }
    return {name, std::move(operations),
            [key](Setting *setting, const std::string &text) { setting->values[key] = text; },
            field, "\n"};
}

const std::vector<std::string> from_texts = {"text_clone", "text_import", "text_thaw",
                                             "text_restore"};
const std::vector<std::string> frozen_volumes = {"volume", "volume_for_import"};
const std::vector<std::string> everything = {"plain_device", "volume",      "volume_for_import",
                                             "text_clone",   "text_import", "text_thaw",
                                             "text_restore", "text_device"};

void add_texts(std::vector<Place> *places) {
    std::vector<std::string> also_device = from_texts;
    also_device.push_back("text_device");
    for (const char *key :
         {"HDEF-mount_point", "HDEF-primary_host", "HDEF-fstype", "HDEF-dev_raw_device",
          "HDEF-dev_block_device", "PMINFO-symid", "PMINFO-dev_sym_devname",
          "PMINFO-dev_raw_device", "PMINFO-bcvdev_sym_devname"}) {
        places->push_back(text_value(key, also_device));
    }
    for (const char *key : {"HDEF-vol_group", "HDEF-vol_name", "HDEF-clone_group"}) {
        places->push_back(text_value(key, from_texts));
    }
    for (const char *key : {"HDEF-fs_path", "PMINFO-p_dev_raw_device", "PMINFO-bcv_raw_device",
                            "NO-such_key", "HDEF-is_vol"}) {
        places->push_back(text_value(key, {"text_clone"}));
    }
    places->push_back({"stale_transfer_file",
                       {"text_clone"},
                       [](Setting *setting, const std::string &name) { setting->stale = name; },
                       field,
                       "\n"});
    places->push_back(
        {"clone_line",
         {"text_clone"},
         [](Setting *setting, const std::string &name) { setting->clone_line = name; },
         field,
         "\n"});
}

void add_arguments(std::vector<Place> *places) {
    places->push_back({"source",
                       {"plain_device", "quiesce"},
                       [](Setting *s, const std::string &name) { s->source = name; },
                       field,
                       ""});
    places->push_back(
        {"source_device",
         {"plain_device"},
         [](Setting *s, const std::string &name) { s->source = s->device = "/dev/qz/dmp/" + name; },
         behind("/dev/qz/dmp/"),
         ""});
    places->push_back({"mount_point",
                       {"plain_device", "volume", "volume_for_import", "quiesce"},
                       [](Setting *s, const std::string &name) { s->mount_point = name; },
                       field,
                       ""});
    places->push_back({"plexname", frozen_volumes,
                       [](Setting *s, const std::string &name) {
                           s->config +=
                               std::string(s->config.empty() ? "" : ",") + "plexname=" + name;
                       },
                       configuration, ","});
    places->push_back({"alternate_backup_client",
                       {"volume_for_import"},
                       [](Setting *s, const std::string &name) {
                           s->config = "alternate_backup_client=" + name;
                           // Not every name can be a key of the host's configuration.
                           const bool is_key = !name.empty() &&
                                               name.find_first_of("=,\n") == std::string::npos &&
                                               name == trimmed(name);
                           s->host_entries = is_key ? "dgimport_" + name + "=1\n" : "dgimport=1\n";
                       },
                       configuration,
                       ","});
    places->push_back({"configuration",
                       {"plain_device"},
                       [](Setting *s, const std::string &name) { s->config = "x=" + name; },
                       configuration,
                       ","});
    places->push_back(
        {"temporary_folder", everything,
         [](Setting *s, const std::string &name) { s->temporary_folder = "/tmp/" + name; },
         behind("/tmp/"), ""});
    places->push_back({"bare_temporary_folder",
                       {"plain_device", "text_clone"},
                       [](Setting *s, const std::string &name) { s->temporary_folder = name; },
                       field,
                       ""});
}

void add_host(std::vector<Place> *places) {
    places->push_back({"disk_group", frozen_volumes,
                       [](Setting *s, const std::string &name) { put_on_volume(s, name, "vol1"); },
                       behind("/dev/qz/dsk//vol1"), "/\n"});
    places->push_back(
        {"volume", frozen_volumes,
         [](Setting *s, const std::string &name) { put_on_volume(s, "datadg", name); },
         behind("/dev/qz/dsk/datadg/"), "/\n"});
    places->push_back(
        {"mounted_device",
         {"plain_device"},
         [](Setting *s, const std::string &name) { s->device = "/dev/qz/dmp/" + name; },
         behind("/dev/qz/dmp/"),
         "/\n"});
    places->push_back({"file_system_type",
                       {"plain_device", "volume"},
                       [](Setting *s, const std::string &name) {
                           // The table's line ends somewhere, and no type is empty.
                           s->fstype = name.empty() ? "plainword" : name.substr(0, table_name);
                       },
                       table_name,
                       "\n\t \\"});
    places->push_back(
        {"host_name",
         {"volume", "text_device"},
         [](Setting *s, const std::string &name) { s->host = name.substr(0, host_name); },
         host_name,
         "."});
    places->push_back({"listed_device", frozen_volumes,
                       [](Setting *s, const std::string &name) { s->listed_device = name; },
                       listed_line, "\n"});
    places->push_back({"serial_number",
                       {"plain_device", "text_device"},
                       [](Setting *s, const std::string &name) { s->serial = name; },
                       serial_size,
                       " \t\n="});
    places->push_back({"told_device",
                       {"plain_device"},
                       [](Setting *s, const std::string &name) { s->device_path = name; },
                       field,
                       " \t\n="});
    places->push_back({"volume_set",
                       {"quiesce"},
                       [](Setting *s, const std::string &name) { s->set = name; },
                       field,
                       " \t\n\v\f\r"});
    places->push_back({"raw_volume_of_set",
                       {"quiesce"},
                       [](Setting *s, const std::string &name) {
                           s->raw_volume = "/dev/qz/rdsk/" + name + "/vol1";
                       },
                       behind("/vol1"),
                       "/"});
}

void add_array(std::vector<Place> *places) {
    places->push_back({"mirror_path",
                       {"plain_device", "volume", "text_clone", "text_device"},
                       [](Setting *s, const std::string &name) {
                           s->array.bcv_path = name.substr(0, array_path);
                       },
                       array_path,
                       ""});
    places->push_back({"disk_name",
                       {"text_import"},
                       [](Setting *s, const std::string &name) {
                           s->array.bcv_path = ("/dev/rdsk/" + name).substr(0, array_path);
                       },
                       behind("/dev/rdsk/", array_path),
                       ""});
    places->push_back({"mirror_port",
                       {"text_import", "plain_device"},
                       [](Setting *s, const std::string &name) {
                           s->array.port = ("/dev/sd-a/" + name).substr(0, array_path);
                       },
                       behind("/dev/sd-a/", array_path),
                       ""});
    places->push_back({"array_number",
                       {"plain_device"},
                       [](Setting *s, const std::string &name) { s->array.symid = name; },
                       array_id,
                       ""});
    places->push_back(
        {"array_device",
         {"plain_device"},
         [](Setting *s, const std::string &name) { s->array.bcv = name.substr(0, array_name); },
         array_name,
         ""});
    places->push_back({"array_group",
                       {"plain_device"},
                       [](Setting *s, const std::string &name) { s->array.group = name; },
                       array_group,
                       ""});
}

}  // namespace

std::vector<Place> all_places() {
    std::vector<Place> places;
    add_arguments(&places);
    add_host(&places);
    add_array(&places);
    add_texts(&places);
    return places;
}

}  // namespace hostile
