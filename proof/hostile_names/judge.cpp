#include "proof/hostile_names/judge.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <regex>

namespace hostile {
namespace {

constexpr char counters[] = "/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_";
constexpr char host_lock[] = "/usr/quill/tessera/online_util/fi_cntl/__LOCKFILE__TSR_ARRAY";

std::string replaced(std::string text, const std::string &from, const std::string &to) {
    for (size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

// The six characters that make a temporary name are never the same.
std::string without_chance(const std::string &text) {
    static const std::regex temporary("(QfMS|EMCTX|EMCTF)[A-Za-z0-9]{6}");
    return std::regex_replace(text, temporary, "$1??????");
}

// A word of the run with the ordinary name, and what may stand in its place.
class Word {
  public:
    Word(const Place &place, const std::string &name, std::string base)
        : place_(place), name_(name), ordinary_(ordinary_for(name)), base_(std::move(base)) {}

    bool may_be(const std::string &word) const {
        if (word == base_ || is_temporary(word)) return true;
        // What stands for a mirror that has no path.
        if (name_.empty() && (word == with("/dev/sdX") || word == with("/dev/rdsk/cXtXdX"))) {
            return true;
        }
        if (!place_.fits(name_) && name_.find(word) != std::string::npos) return true;
        if (!place_.fits(name_) && is_put_together(word)) return true;
        if (base_.find(ordinary_) == std::string::npos) return false;
        if (is_cut(word, with(name_)) || is_cut(word, with(name_.substr(0, place_.limit)))) {
            return true;
        }
        return !place_.fits(name_) && holds_a_part(word);
    }
    // An empty name is no word at all, and a type that is none needs no option.
    bool may_be_missing() const {
        return (base_ == ordinary_ || base_ == "-t") && (name_.empty() || !place_.fits(name_));
    }

  private:
    static constexpr size_t field = 1023;
    static bool is_cut(const std::string &word, const std::string &expected) {
        return word == expected || (expected.size() > field && word == expected.substr(0, field));
    }
    // With this name instead. Names of clone groups are cut at 25 characters of host and group.
    std::string with(const std::string &name) const {
        std::string word = base_;
        const std::string clone = ordinary_ + "_clone", of_host = ordinary_ + "_datadg_clone";
        word = replaced(word, "client1_" + clone, ("client1_" + name).substr(0, 25) + "_clone");
        word = replaced(word, clone, name.substr(0, 25) + "_clone");
        word = replaced(word, of_host, (name + "_datadg").substr(0, 25) + "_clone");
        return replaced(word, ordinary_, name);
    }
    // With any part of the name instead; behind it nothing may stand where a buffer ended.
    bool holds_a_part(const std::string &word) const {
        const std::string before = base_.substr(0, base_.find(ordinary_));
        if (!word.starts_with(before)) return false;
        for (size_t length = std::min(name_.size(), word.size() - before.size()) + 1;
             length-- > 0;) {
            const std::string middle = word.substr(before.size(), length);
            if (name_.find(middle) != std::string::npos && with(middle).starts_with(word)) {
                return true;
            }
        }
        return false;
    }
    // Parts of the name and of what stood there: a path that was taken apart at its slashes, a
    // list of several devices, the name of a clone group.
    bool is_put_together(const std::string &word) const {
        for (size_t at = 0; at <= word.size();) {
            const size_t end = std::min(word.find_first_of("/:,", at), word.size());
            std::string piece = word.substr(at, end - at);
            if (piece.ends_with("_clone")) piece.resize(piece.size() - strlen("_clone"));
            if (name_.find(piece) == std::string::npos && base_.find(piece) == std::string::npos) {
                return false;
            }
            at = end + 1;
        }
        return true;
    }
    // A folder that cannot be used is not where temporary files are made.
    bool is_temporary(const std::string &word) const {
        if (place_.name.find("temporary_folder") == std::string::npos) return false;
        const size_t base_slash = base_.rfind('/'), slash = word.rfind('/');
        if (base_slash == std::string::npos || slash == std::string::npos) return false;
        if (base_.compare(base_slash + 1, 4, "EMCT") != 0) return false;
        if (base_.substr(base_slash) != word.substr(slash)) return false;
        const std::string folder = word.substr(0, slash);
        return folder == "/tmp" || with(name_).starts_with(folder);
    }

    const Place &place_;
    const std::string &name_;
    std::string ordinary_, base_;
};

bool stands_for(const Place &place, const Words &run, const Words &base, const std::string &name) {
    size_t next = 0;
    for (const std::string &one : base) {
        const Word word(place, name, without_chance(one));
        if (next < run.size() && word.may_be(without_chance(run[next]))) {
            ++next;
        } else if (!word.may_be_missing()) {
            return false;
        }
    }
    return next == run.size();
}

std::string shown(const Words &words) {
    std::string text;
    for (const std::string &word : words) text += "[" + word.substr(0, 200) + "]";
    return text;
}

// Every run has its counterpart among those with the ordinary name, in the same order.
std::string judged_runs(const Place &place, const Name &name, const Seen &seen, const Seen &same) {
    size_t next = 0;
    // Every line of the clone tool's list is a device.
    const size_t repeated = (place.name == "listed_device" || place.name == "volume_set") &&
                                    name.text.find('\n') != std::string::npos
                                ? 1
                                : 0;
    for (const Words &run : seen.runs) {
        // What is a folder counts as mounted.
        if (place.name == "HDEF_dev_block_device" && run[0] == "umount") continue;
        size_t at = next - std::min(next, repeated);
        while (at < same.runs.size() && !stands_for(place, run, same.runs[at], name.text)) ++at;
        if (at == same.runs.size()) {
            std::string why = "unexpected command " + shown(run) + "; with an ordinary name:";
            for (const Words &base : same.runs) why += " " + shown(base);
            return why;
        }
        next = at + 1;
    }
    // What no file can be called is not there, so nothing is unmounted.
    const bool may_be_missing = place.name.find("mount_point") != std::string::npos ||
                                place.name == "HDEF_dev_block_device";
    const size_t unmounts = may_be_missing ? 1 : 0;
    if (!name.text.empty() && place.fits(name.text) && seen.outcome == same.outcome &&
        seen.runs.size() + unmounts < same.runs.size()) {
        return std::to_string(seen.runs.size()) + " commands and not " +
               std::to_string(same.runs.size());
    }
    return "";
}

// A folder or file by its plain name; what is relative begins where the calls are made.
std::string plain_path(const std::string &path) {
    const std::filesystem::path whole = path.starts_with("/") ? path : "/data/" + path;
    std::string plain = whole.lexically_normal().string();
    while (plain.size() > 1 && plain.back() == '/') plain.pop_back();
    return plain;
}

// Temporary files are made in TMPDIR, and in /tmp where that is no folder.
std::string temporary_kind(const std::string &path, const std::string &folder) {
    static const std::regex name("(QfMS|EMCTX|EMCTF)[A-Za-z0-9]{6}");
    std::smatch found;
    const size_t slash = path.rfind('/');
    const std::string file = path.substr(slash + 1);
    if (!std::regex_match(file, found, name)) return "";
    const std::string parent = plain_path(path.substr(0, slash + 1));
    const bool is_expected = parent == "/tmp" || (!folder.empty() && parent == plain_path(folder));
    return is_expected ? found[1].str() : "";
}

// What a change is, when it is one that the calls are there to make.
std::string kind_of_change(const Setting &setting, const std::string &path) {
    const std::string temporary = temporary_kind(path, setting.temporary_folder);
    if (!temporary.empty()) return temporary;
    if (path == host_lock) return "host-lock";
    if (path == counters + setting.serial) return "counter";
    if (path.starts_with(counters) && path.find('/', sizeof counters - 1) == std::string::npos) {
        return "counter";
    }
    // The mirror gets the primary's owner, the stale file of a text goes.
    for (const std::string &mirror : {setting.array.bcv_path, setting.array.port}) {
        if (!mirror.empty() && path == plain_path(mirror)) return "owner";
    }
    const std::string stale = setting.stale.substr(0, setting.stale.find('\n'));
    if (!stale.empty() && path == plain_path(stale)) return "stale";
    return "";
}

}  // namespace

std::string ordinary_for(const std::string &name) {
    return name.starts_with("/") ? "/plainword" : "plainword";
}

std::string outcome_of(const Setting &setting, const Seen &seen) {
    std::vector<std::string> left;
    for (const std::string &path : seen.changed) {
        const std::string kind = kind_of_change(setting, path);
        if (!kind.empty() && kind != "host-lock") left.push_back(kind);
    }
    std::sort(left.begin(), left.end());
    std::string text = seen.outcome + ";";
    for (const std::string &kind : left) text += " " + kind;
    return text;
}

std::string judged(const Place &place, const Setting &setting, const Name &name, const Seen &seen,
                   const Seen &same) {
    if (seen.status != 0) return "the process ended with " + std::to_string(seen.status);
    if (!seen.tripped.empty()) return "a name was run: " + seen.tripped;
    for (const std::string &path : seen.changed) {
        if (kind_of_change(setting, path).empty()) return "touched " + path;
    }
    return judged_runs(place, name, seen, same);
}

}  // namespace hostile
