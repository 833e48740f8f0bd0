// From a raw device to its mount, also through the volume set that it is a component of.
#include <unistd.h>

#include <cstring>

#include "snap/shell_word.h"
#include "snap/snap_internal.h"

namespace {

constexpr size_t line_size = 1024;
// Room for a disk group and a set, whatever they hold.
constexpr size_t command_size = 2 * snap::longest_quoted(line_size) + 64;

// The output of one volume-set command, read line by line; its heading is skipped.
class SetListing {
  public:
    // set "" for the list of all sets.
    SetListing(const char *group, const char *set) : pipe_(open(group, set)) {
        if (pipe_ != nullptr) read_line();
    }
    ~SetListing() {
        if (pipe_ != nullptr) pclose(pipe_);
    }
    SetListing(const SetListing &) = delete;
    SetListing &operator=(const SetListing &) = delete;

    explicit operator bool() const { return pipe_ != nullptr; }
    // The first word of the next line, "" for a line without one; null at the end of the output.
    const char *next_word() {
        if (!read_line()) return nullptr;
        word_[0] = '\0';
        Q_sscanf(line_, "%1023s", word_);
        return word_;
    }

  private:
    static FILE *open(const char *group, const char *set) {
        const snap::ShellWord group_word(group);
        const snap::ShellWord set_word(set);
        if (group_word.lost() || set_word.lost()) return nullptr;
        char command[command_size];
        Q_snprintf(command, sizeof command, *set == '\0' ? "%s -g %s list%s" : "%s -g %s list %s",
                   snap::volume_set_tool, group_word.text(), set_word.text());
        return popen(command, "re");
    }
    // The rest of a line that is longer than the buffer is dropped; it is not a line of its own.
    // Nor does a NUL end one: what is lost is that line's rest, not the line behind it.
    bool read_line() {
        int c = getc(pipe_);
        if (c == EOF) return false;
        size_t length = 0;
        for (; c != EOF && c != '\n'; c = getc(pipe_)) {
            if (length < sizeof line_ - 1) line_[length++] = static_cast<char>(c);
        }
        line_[length] = '\0';
        return true;
    }

    FILE *pipe_;
    char line_[line_size] = {};
    char word_[line_size] = {};
};

// The names of all volume sets of a disk group.
class NameList {
  public:
    NameList() = default;
    ~NameList() {
        for (size_t i = 0; i < count_; ++i) free(names_[i]);
        free(names_);
    }
    NameList(const NameList &) = delete;
    NameList &operator=(const NameList &) = delete;

    bool add(const char *name) {
        if (count_ == capacity_ && !grow()) return false;
        names_[count_] = strdup(name);
        if (names_[count_] == nullptr) return false;
        ++count_;
        return true;
    }
    size_t count() const { return count_; }
    const char *name(size_t i) const { return names_[i]; }

  private:
    bool grow() {
        const size_t capacity = capacity_ == 0 ? 16 : 2 * capacity_;
        auto **grown = static_cast<char **>(realloc(names_, capacity * sizeof(char *)));
        if (grown == nullptr) return false;
        names_ = grown;
        capacity_ = capacity;
        return true;
    }

    char **names_ = nullptr;
    size_t count_ = 0, capacity_ = 0;
};

// A volume's path taken apart: "/dev/qz/rdsk/GROUP/VOLUME".
struct Volume {
    char text[snap::name_size];
    const char *group;
    const char *name;

    bool read(const char *raw) {
        constexpr size_t prefix_length = 12;  // "/dev/qz/rdsk"
        if (strlen(raw) <= prefix_length || strncmp(raw, "/dev/qz/", 8) != 0) return false;
        // A name that was cut would be another volume's.
        if (Q_strlcpy(text, raw + prefix_length, sizeof text) >= sizeof text) return false;
        char *rest = nullptr;
        group = strtok_r(text, "/", &rest);
        name = group != nullptr ? strtok_r(nullptr, "/", &rest) : nullptr;
        return name != nullptr;
    }
};

// The list of sets ends at a line without a word: what the tool prints behind it is no list.
bool read_set_names(const Volume &volume, NameList &names) {
    SetListing listing(volume.group, "");
    if (!listing) return false;
    for (const char *word = listing.next_word(); word != nullptr && *word != '\0';
         word = listing.next_word()) {
        if (!names.add(word)) return false;
    }
    return true;
}

enum class Membership { member, stranger, unknown };

Membership is_component(const Volume &volume, const char *set) {
    SetListing listing(volume.group, set);
    if (!listing) return Membership::unknown;
    while (const char *word = listing.next_word()) {
        if (strcmp(word, volume.name) == 0) return Membership::member;
    }
    return Membership::stranger;
}

// The raw path of the set that holds the volume, in out; false when there is none or the sets could
// not be listed.
bool find_set(const Volume &volume, char *out, size_t size) {
    NameList names;
    if (!read_set_names(volume, names)) return false;
    for (size_t i = 0; i < names.count(); ++i) {
        const Membership found = is_component(volume, names.name(i));
        if (found == Membership::unknown) return false;
        if (found == Membership::stranger) continue;
        Q_snprintf(out, size, "/dev/qz/rdsk/%s/%s", volume.group, names.name(i));
        snap::diagnose("component volume of vset %s", out);
        return true;
    }
    return false;
}

}  // namespace

int rawtofs(const char *raw, char **dir, char **type) {
    if (find_mnt(raw, dir, type) == SN_OK) return SN_OK;
    if (access(snap::volume_set_tool, F_OK) != 0) return SN_NOT_IN_A_SET;
    Volume volume = {};
    if (!volume.read(raw)) return SN_NOT_IN_A_SET;
    char set_path[snap::name_size];
    if (!find_set(volume, set_path, sizeof set_path)) return SN_NOT_IN_A_SET;
    return find_mnt(set_path, dir, type);
}
