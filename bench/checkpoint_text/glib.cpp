// GLib's key files: a group an object, a group a device.
#include <glib.h>

#include <cstdio>
#include <cstdlib>

#include "bench/checkpoint_text/records.h"
#include "method/text.h"

namespace bench {
namespace {

struct KeyFile {
    KeyFile() : file(g_key_file_new()) {}
    ~KeyFile() { g_key_file_free(file); }
    KeyFile(const KeyFile &) = delete;
    KeyFile &operator=(const KeyFile &) = delete;
    GKeyFile *file;
};

struct Out {
    GKeyFile *file;
    const char *group;
    void operator()(const char *key, int32_t value) const {
        g_key_file_set_integer(file, group, key, value);
    }
    void operator()(const char *key, const char *value) const {
        g_key_file_set_string(file, group, key, value);
    }
};

struct In {
    GKeyFile *file;
    const char *group;
    void operator()(const char *key, int32_t &value) const {
        value = g_key_file_get_integer(file, group, key, nullptr);
    }
    template <size_t N>
    void operator()(const char *key, char (&value)[N]) const {
        char *text = g_key_file_get_string(file, group, key, nullptr);
        tf::put(value, text == nullptr ? "" : text);
        g_free(text);
    }
};

}  // namespace

std::string glib_out(const Records &records) {
    const KeyFile file;
    for_object(records.h, Out{file.file, "HDEF"});
    int number = 0;
    for (const prim_mir_info *pm = records.h.pminfo_list; pm != nullptr; pm = pm->next) {
        char group[32];
        tf::put_format(group, "PMINFO %d", number++);
        if (number == 1) for_owners(*pm, Out{file.file, group});
        for_device(*pm, Out{file.file, group});
    }
    gsize length = 0;
    char *data = g_key_file_to_data(file.file, &length, nullptr);
    std::string text(data, length);
    g_free(data);
    return text;
}

void glib_in(const std::string &text, Records &records) {
    const KeyFile file;
    if (!g_key_file_load_from_data(file.file, text.data(), text.size(), G_KEY_FILE_NONE, nullptr)) {
        abort();
    }
    for_object(records.h, In{file.file, "HDEF"});
    for (int number = 0;; ++number) {
        char group[32];
        tf::put_format(group, "PMINFO %d", number);
        if (!g_key_file_has_group(file.file, group)) return;
        prim_mir_info *pm = records.next_device();
        if (number == 0) for_owners(*pm, In{file.file, group});
        for_device(*pm, In{file.file, group});
    }
}

}  // namespace bench
