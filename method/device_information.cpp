#include "method/device_information.h"

#include <cstring>

#include "method/capture.h"
#include "method/command.h"
#include "method/descriptor.h"
#include "method/paths.h"
#include "method/report.h"
#include "method/text.h"

namespace {

constexpr char reporter[] = "find_device";

constexpr size_t line_size = 1024;
// The line of the source that this message has always quoted.
constexpr int record_allocation_line = 1230;

bool is_of_interest(const char *line) {
    if (line[0] == '\0' || line[0] == '#' || line[0] == '\n') return false;
    return strstr(line, "EMC") != nullptr;
}

void store(device_info *info, const char *key, const char *value) {
    if (strcmp(key, "p") == 0) tf::put(info->devpath, value);
    if (strcmp(key, "s") == 0) tf::put(info->serial, value);
}

// Cuts text at the first of the ends and returns what stands behind it; null when there is none.
char *cut_at(char *text, const char *ends) {
    char *const end = text + strcspn(text, ends);
    if (*end == '\0') return nullptr;
    *end = '\0';
    return end + 1;
}

// Takes a line apart from its first key on: the character before the first "=" alone, whatever
// stands in front of it. A value may be empty. Returns whether the line has a key at all.
bool take_line(device_info *info, char *line) {
    char *const equals = strchr(line, '=');
    if (equals == nullptr || equals == line) return false;
    char *key = equals - 1;
    while (key != nullptr) {
        char *const value = cut_at(key, "=");
        if (value == nullptr) break;
        char *const next = cut_at(value, " \t\n");
        store(info, key, value);
        key = next;
    }
    return true;
}

// A line that makes no sense ends the reading; what was collected before it decides.
void read_lines(device_info *info, FILE *stream) {
    char line[line_size];
    while (fgets(line, sizeof line, stream) != nullptr) {
        if (!is_of_interest(line)) continue;
        if (!take_line(info, line)) {
            tf::fail(tf::ErrorNumber::limit, tf::msg::cannot_process_device, reporter);
            return;
        }
    }
}

}  // namespace

device_info *find_device(const hdef *h, const char *device) {
    if (tf::run_tool(h, "%s -f -p %s -o -", tf::path::device_information_tool, device) !=
        tf::success) {
        return nullptr;
    }
    const char *const output = tf::capture_name(h->out_file);
    const tf::StreamOwner stream(tf::open_for_reading(output));
    if (!stream) {
        tf::fail(tf::ErrorNumber::limit, tf::msg::cannot_open_file, reporter, output);
        return nullptr;
    }
    tf::HeapOwner<device_info> info(tf::make_zeroed<device_info>());
    if (!info) {
        tf::fail(tf::ErrorNumber::memory, tf::msg::no_memory, reporter, record_allocation_line);
        return nullptr;
    }
    read_lines(info.get(), stream.get());
    if (info->devpath[0] == '\0' || info->serial[0] == '\0') {
        tf::fail(tf::ErrorNumber::limit, tf::msg::no_devpath_or_serial, reporter);
        return nullptr;
    }
    return info.release();
}
