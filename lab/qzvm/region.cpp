#include "lab/qzvm/region.h"

#include <sys/random.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <limits>
#include <set>
#include <sstream>
#include <string_view>

namespace qz {
namespace {

constexpr char magic[] = "QZVM-REGION";
constexpr unsigned version = 1;
constexpr uint64_t sector = 512;
constexpr char nothing[] = "-";  // stands for an empty field

// FNV-1a: it finds what a torn or misdirected write does, which is all it is for.
uint64_t checksum_of(std::string_view text) {
    uint64_t sum = 0xcbf29ce484222325;
    for (const char c : text) {
        sum ^= static_cast<unsigned char>(c);
        sum *= 0x100000001b3;
    }
    return sum;
}

std::string hexadecimal(uint64_t number) {
    char text[17];
    snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(number));
    return text;
}

std::string or_nothing(const std::string &field) {
    return field.empty() ? nothing : field;
}

// Why a region is not whole. Never leaves this file.
struct Damage : std::runtime_error {
    using std::runtime_error::runtime_error;
};

uint64_t number_of(std::string_view text, int base = 10) {
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc() || end != text.data() + text.size()) {
        throw Damage("'" + std::string(text) + "' is no number");
    }
    return number;
}

// The fields of one line of a region.
class Line {
  public:
    explicit Line(const std::string &text) : text_(text) {
        std::istringstream in(text);
        for (std::string field; in >> field;) fields_.push_back(field);
    }
    std::string next() {
        if (at_ == fields_.size()) throw Damage("the line '" + text_ + "' is cut short");
        return fields_[at_++];
    }
    std::string next_or_nothing() {
        const std::string field = next();
        return field == nothing ? "" : field;
    }
    std::string next_name() {
        std::string field = next();
        if (!is_name(field)) throw Damage("'" + field + "' is no name");
        return field;
    }
    std::vector<std::string> rest() {
        std::vector<std::string> all;
        do all.push_back(next_name());
        while (at_ < fields_.size());
        return all;
    }
    void expect_end() const {
        if (at_ != fields_.size()) throw Damage("the line '" + text_ + "' says too much");
    }

  private:
    std::string text_;
    std::vector<std::string> fields_;
    size_t at_ = 0;
};

void read_line(const std::string &text, Region *region) {
    Line line(text);
    Group &group = region->group;
    const std::string key = line.next();
    if (key == "group" && group.name.empty()) {
        group.name = line.next_name();
        group.id = line.next_name();
        group.generation = number_of(line.next());
        group.host = line.next_or_nothing();
    } else if (key == "this" && region->disk_id.empty()) {
        region->disk_id = line.next_name();
    } else if (key == "disk") {
        group.disks.push_back({line.next_name(), line.next_name()});
    } else if (key == "volume") {
        Volume volume;
        volume.name = line.next_name();
        volume.start = number_of(line.next());
        volume.length = number_of(line.next());
        volume.fstype = line.next_or_nothing();
        volume.disks = line.rest();
        group.volumes.push_back(std::move(volume));
    } else if (key == "set") {
        VolumeSet set;
        set.name = line.next_name();
        set.volumes = line.rest();
        group.sets.push_back(std::move(set));
    } else {
        throw Damage("the line '" + text + "' is not understood");
    }
    line.expect_end();
}

// What is said only once, and what refers to something else that is said.
void check(const Region &region) {
    const Group &group = region.group;
    if (group.name.empty()) throw Damage("it names no group");
    std::set<std::string> disks, names;
    for (const GroupDisk &disk : group.disks) {
        if (!disks.insert(disk.id).second) throw Damage("disk " + disk.id + " is there twice");
    }
    if (!disks.contains(region.disk_id)) throw Damage("its own disk is not one of the group");
    for (const Volume &volume : group.volumes) {
        if (!names.insert(volume.name).second) {
            throw Damage("volume " + volume.name + " is there twice");
        }
        if (volume.start < region_bytes || volume.length == 0 ||
            (volume.start | volume.length) % sector != 0 ||
            volume.length > std::numeric_limits<uint64_t>::max() - volume.start) {
            throw Damage("volume " + volume.name + " has no place");
        }
        for (const std::string &id : volume.disks) {
            if (!disks.contains(id)) throw Damage("volume " + volume.name + " has a foreign disk");
        }
    }
    const std::set<std::string> volumes = names;
    for (const VolumeSet &set : group.sets) {
        if (!names.insert(set.name).second) throw Damage("set " + set.name + " is there twice");
        for (const std::string &volume : set.volumes) {
            if (!volumes.contains(volume))
                throw Damage("set " + set.name + " has a foreign volume");
        }
    }
}

Region read_body(const std::string &body) {
    Region region;
    std::istringstream lines(body);
    for (std::string line; std::getline(lines, line);) read_line(line, &region);
    check(region);
    return region;
}

// The head line, and behind it as many bytes as it says.
Region read_whole(const std::string &text) {
    const size_t end = text.find('\n');
    if (end == std::string::npos) throw Damage("its first line has no end");
    Line head(text.substr(0, end));
    head.next();
    const uint64_t given = number_of(head.next());
    if (given != version) {
        throw Damage("it has version " + std::to_string(given) + ", and " +
                     std::to_string(version) + " is known here");
    }
    const uint64_t length = number_of(head.next());
    const uint64_t sum = number_of(head.next(), 16);
    head.expect_end();
    if (length > text.size() - (end + 1)) throw Damage("it is cut short");
    const std::string body = text.substr(end + 1, length);
    if (checksum_of(body) != sum) throw Damage("its checksum is wrong");
    return read_body(body);
}

}  // namespace

const Volume *Group::volume(const std::string &wanted) const {
    const auto found = std::find_if(volumes.begin(), volumes.end(),
                                    [&](const Volume &one) { return one.name == wanted; });
    return found == volumes.end() ? nullptr : &*found;
}

const VolumeSet *Group::set(const std::string &wanted) const {
    const auto found = std::find_if(sets.begin(), sets.end(),
                                    [&](const VolumeSet &one) { return one.name == wanted; });
    return found == sets.end() ? nullptr : &*found;
}

bool is_name(const std::string &text) {
    const auto belongs = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '.' || c == '_' || c == '-';
    };
    return !text.empty() && text.size() <= longest_name && text[0] != '.' && text[0] != '-' &&
           std::all_of(text.begin(), text.end(), belongs);
}

std::string new_id() {
    uint64_t number = 0;
    if (getrandom(&number, sizeof number, 0) != sizeof number) fails("get a random number");
    return hexadecimal(number);
}

std::string to_text(const Region &region) {
    const Group &group = region.group;
    std::ostringstream body;
    body << "group " << group.name << ' ' << group.id << ' ' << group.generation << ' '
         << or_nothing(group.host) << "\nthis " << region.disk_id << '\n';
    for (const GroupDisk &disk : group.disks)
        body << "disk " << disk.id << ' ' << disk.name << '\n';
    for (const Volume &volume : group.volumes) {
        body << "volume " << volume.name << ' ' << volume.start << ' ' << volume.length << ' '
             << or_nothing(volume.fstype);
        for (const std::string &id : volume.disks) body << ' ' << id;
        body << '\n';
    }
    for (const VolumeSet &set : group.sets) {
        body << "set " << set.name;
        for (const std::string &volume : set.volumes) body << ' ' << volume;
        body << '\n';
    }
    const std::string text = body.str();
    const std::string head = std::string(magic) + ' ' + std::to_string(version) + ' ' +
                             std::to_string(text.size()) + ' ' + hexadecimal(checksum_of(text));
    if (head.size() + 1 + text.size() > region_bytes) {
        throw Error("group " + group.name + " is too large for a private region");
    }
    return head + '\n' + text;
}

Found parse(const std::string &text) {
    Found found;
    if (!text.starts_with(std::string(magic) + ' ')) return found;
    try {
        found.region = read_whole(text);
        found.content = Content::good;
    } catch (const Damage &damage) {
        found.content = Content::damaged;
        found.reason = damage.what();
    }
    return found;
}

}  // namespace qz
