// From a volume to the devices beneath it, as the disk-group clone tool knows them.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "method/capture.h"
#include "method/command.h"
#include "method/descriptor.h"
#include "method/freeze.h"
#include "method/pair_discovery.h"
#include "method/paths.h"
#include "method/report.h"

namespace tf {
namespace {

constexpr char reporter[] = "vol_to_device";

constexpr size_t line_size = 256;
// The message names another number than the line limit; operators know it by this one.
constexpr int quoted_name_limit = 1024;

// The file that the clone tool makes: its name, and its removal on every path.
class ToolOutput {
  public:
    ToolOutput() : name_(temporary_name("EMCTF")) {}
    ~ToolOutput() {
        if (given_to_tool_) unlink(name_.get());
    }
    ToolOutput(const ToolOutput &) = delete;
    ToolOutput &operator=(const ToolOutput &) = delete;

    const char *name() const { return name_.get(); }
    // Whether the tool may make its file. It would write into whatever it finds, so nothing may
    // stand there before it; what does stays. errno says why not.
    bool give_to_tool() {
        struct stat status = {};
        if (lstat(name_.get(), &status) == 0) {
            errno = EEXIST;
        } else {
            given_to_tool_ = errno == ENOENT;
        }
        return given_to_tool_;
    }

  private:
    HeapOwner<char> name_;
    bool given_to_tool_ = false;
};

// Anybody may put something in the place of a temporary file, so a link is not followed, and what
// is not a regular file counts as one that cannot be opened. errno says why.
FILE *open_regular(const char *name) {
    FILE *const file = open_for_reading(name);
    if (file == nullptr) return nullptr;
    struct stat status = {};
    const bool known = fstat(fileno(file), &status) == 0;
    if (known && S_ISREG(status.st_mode)) return file;
    const int error = known ? EINVAL : errno;
    fclose(file);
    errno = error;
    return nullptr;
}

// With the group's import every device of the group is wanted, otherwise those of the volume.
int32_t run_clone_tool(const hdef *h, const char *output) {
    if (h->dgimport == 1) {
        return run_tool(h, "%s -g %s -f %s -p %s", path::clone_tool, h->vol_group, output,
                        g_plexname);
    }
    return run_tool(h, "%s -g %s -n %s -f %s -p %s", path::clone_tool, h->vol_group, h->vol_name,
                    output, g_plexname);
}

// Takes the newline off. Returns whether there was one.
bool cut_newline(char *line) {
    const size_t length = strlen(line);
    if (length == 0 || line[length - 1] != '\n') return false;
    line[length - 1] = '\0';
    return true;
}

int32_t fill_device(prim_mir_info &pm, const char *raw) {
    put(pm.dev_raw_device, raw);
    put(pm.p_dev_raw_device, raw);
    if (rawtoblock(raw, pm.dev_block_device, sizeof pm.dev_block_device) == nullptr) {
        return fail(ErrorNumber::operation, msg::cannot_map_raw_to_block, reporter, raw);
    }
    return success;
}

// One device a line: the first fills the record that is there, every further one a new record at
// the tail.
int32_t read_devices(hdef *h, FILE *file, const char *name) {
    char line[line_size] = "";
    prim_mir_info *tail = nullptr;
    while (fgets(line, sizeof line, file) != nullptr) {
        if (!cut_newline(line)) {
            return fail(ErrorNumber::limit, msg::device_name_too_long, reporter, quoted_name_limit);
        }
        prim_mir_info *pm = h->pminfo_list;
        if (tail != nullptr) {
            pm = make_zeroed<prim_mir_info>();
            if (pm == nullptr) {
                return fail(ErrorNumber::memory, msg::no_memory, reporter,
                            freeze_line::further_device);
            }
            tail->next = pm;
        }
        tail = pm;
        if (fill_device(*pm, line) != success) return failure;
    }
    // A list that breaks off would freeze a part of the volume as if it were the whole.
    if (ferror(file) != 0) {
        return fail(ErrorNumber::limit, msg::cannot_open_file, reporter, name);
    }
    if (tail == nullptr) {
        return fail(ErrorNumber::limit, msg::no_devices_of_volume, reporter, h->vol_name);
    }
    return success;
}

int32_t list_devices(hdef *h) {
    ToolOutput output;
    if (output.name() == nullptr) {
        return fail(ErrorNumber::memory, msg::no_memory, reporter, freeze_line::output_name);
    }
    if (!output.give_to_tool()) {
        return fail(ErrorNumber::limit, msg::cannot_open_file, reporter, output.name());
    }
    if (run_clone_tool(h, output.name()) != success) return failure;
    const StreamOwner file(open_regular(output.name()));
    if (!file) {
        return fail(ErrorNumber::limit, msg::cannot_open_file, reporter, output.name());
    }
    return read_devices(h, file.get(), output.name());
}

}  // namespace

int32_t vol_to_device(hdef *h) {
    if (list_devices(h) == success) return success;
    return fail(ErrorNumber::operation, msg::cannot_discover_volume, reporter);
}

}  // namespace tf
