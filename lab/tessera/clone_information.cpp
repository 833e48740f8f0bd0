#include "lab/tessera/clone_information.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <sstream>

namespace tessera {
namespace {

constexpr char format_name[] = "tessera-clone-information";
constexpr char format_version[] = "1";
constexpr char no_type[] = "-";

using Words = std::vector<std::string>;

[[noreturn]] void refuse(const std::string &why) {
    throw CloneInformationError(why);
}

bool is_word(const std::string &text) {
    return !text.empty() && std::none_of(text.begin(), text.end(),
                                         [](unsigned char c) { return c <= ' ' || c == 0x7f; });
}

std::string checksum(const std::string &text) {
    uint64_t sum = 0xcbf29ce484222325;
    for (const char c : text) {
        sum ^= static_cast<unsigned char>(c);
        sum *= 0x100000001b3;
    }
    char digits[17];
    snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(sum));
    return digits;
}

void write_line(std::string *text, const Words &words) {
    for (size_t i = 0; i < words.size(); ++i) {
        if (!is_word(words[i])) {
            refuse(words.front() + ": '" + words[i] + "' cannot be written down");
        }
        if (i > 0) *text += ' ';
        *text += words[i];
    }
    *text += '\n';
}

Words split(const std::string &line) {
    Words words;
    std::istringstream in(line);
    for (std::string word; in >> word;) words.push_back(word);
    return words;
}

uint64_t number(const std::string &word) {
    uint64_t value = 0;
    const char *const end = word.data() + word.size();
    const auto [at, error] = std::from_chars(word.data(), end, value);
    if (error != std::errc() || at != end) refuse("'" + word + "' is no number");
    return value;
}

// Everything of the text above its last line, which has to be its checksum.
std::string checked_body(const std::string &text) {
    if (text.empty()) refuse("it is empty");
    if (text.compare(0, sizeof format_name, std::string(format_name) + " ") != 0) {
        refuse("it is no clone information");
    }
    const size_t end = text.rfind("\nend ");
    if (end == std::string::npos || text.back() != '\n') refuse("it is not complete");
    std::string body = text.substr(0, end + 1);
    if (text != sealed(body)) refuse("it is damaged");
    return body;
}

void read_volume(CloneInformation *information, const Words &words) {
    CloneVolume volume;
    volume.name = words[1];
    volume.start = number(words[2]);
    volume.length = number(words[3]);
    if (words[4] != no_type) volume.type = words[4];
    volume.disks.assign(words.begin() + 5, words.end());
    information->volumes.push_back(volume);
}

void read_line(CloneInformation *information, const std::string &line) {
    const Words words = split(line);
    const std::string keyword = words.empty() ? "" : words[0];
    if (keyword == "group" && words.size() == 3) {
        information->group = words[1];
        information->group_id = words[2];
    } else if (keyword == "host" && words.size() == 2) {
        information->host = words[1];
    } else if (keyword == "plex" && words.size() == 2) {
        information->plex = words[1];
    } else if (keyword == "disk" && words.size() == 3) {
        information->disks.push_back({words[1], words[2]});
    } else if (keyword == "volume" && words.size() >= 6) {
        read_volume(information, words);
    } else {
        refuse("the line '" + line + "' is not understood");
    }
}

}  // namespace

const CloneDisk *CloneInformation::disk_at(const std::string &path) const {
    for (const CloneDisk &disk : disks) {
        if (disk.path == path) return &disk;
    }
    return nullptr;
}

const CloneVolume *CloneInformation::volume(const std::string &name) const {
    for (const CloneVolume &volume : volumes) {
        if (volume.name == name) return &volume;
    }
    return nullptr;
}

std::string sealed(const std::string &body) {
    return body + "end " + checksum(body) + "\n";
}

std::string to_text(const CloneInformation &information) {
    std::string text;
    write_line(&text, {format_name, format_version});
    write_line(&text, {"group", information.group, information.group_id});
    write_line(&text, {"host", information.host});
    write_line(&text, {"plex", information.plex});
    for (const CloneDisk &disk : information.disks) write_line(&text, {"disk", disk.id, disk.path});
    for (const CloneVolume &volume : information.volumes) {
        Words words = {"volume", volume.name, std::to_string(volume.start),
                       std::to_string(volume.length), volume.type.empty() ? no_type : volume.type};
        words.insert(words.end(), volume.disks.begin(), volume.disks.end());
        write_line(&text, words);
    }
    return sealed(text);
}

CloneInformation parse_clone_information(const std::string &text) {
    std::istringstream lines(checked_body(text));
    std::string line;
    std::getline(lines, line);
    if (line != std::string(format_name) + " " + format_version) {
        refuse("'" + line + "' is a version that this tool does not know");
    }
    CloneInformation information;
    while (std::getline(lines, line)) read_line(&information, line);
    if (information.group.empty() || information.host.empty() || information.disks.empty()) {
        refuse("it is not complete");
    }
    return information;
}

}  // namespace tessera
