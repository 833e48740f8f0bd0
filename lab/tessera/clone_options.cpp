#include "lab/tessera/clone_options.h"

#include <algorithm>
#include <map>

namespace tessera {

const char usage_text[] =
    "usage: tqdgclone -g GROUP [-n VOLUME] -f FILE -p PLEX\n"
    "       tqdgclone -g GROUP -n VOLUME,... -d PRIMARY,BCV:... -i FILE -p PLEX\n"
    "       tqdgclone -g GROUP -n VOLUME,... -d PRIMARY,BCV:... -p PLEX\n"
    "       tqdgclone -g GROUP -n VOLUME,... -d PRIMARY,BCV:... -i FILE -r HOST\n"
    "       tqdgclone -g GROUP -n VOLUME -c CLONE\n";

namespace {

constexpr char known_options[] = "gnfpdirc";
constexpr size_t kept_name_length = 25;

std::vector<std::string> split(const std::string &text, char separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t end; (end = text.find(separator, start)) != std::string::npos; start = end + 1) {
        parts.push_back(text.substr(start, end - start));
    }
    parts.push_back(text.substr(start));
    return parts;
}

std::vector<std::string> volume_list(const std::string &text) {
    std::vector<std::string> names = split(text, ',');
    if (std::find(names.begin(), names.end(), "") != names.end()) {
        throw UsageError("-n " + text + ": a name is empty");
    }
    return names;
}

std::vector<DevicePair> device_list(const std::string &text) {
    std::vector<DevicePair> pairs;
    for (const std::string &piece : split(text, ':')) {
        const std::vector<std::string> names = split(piece, ',');
        if (names.size() != 2 || names[0].empty() || names[1].empty()) {
            throw UsageError("-d " + text + ": '" + piece + "' is no pair PRIMARY,BCV");
        }
        pairs.push_back({names[0], names[1]});
    }
    return pairs;
}

// Options by their letters.
using Given = std::map<char, std::string>;

Given read(const std::vector<std::string> &arguments) {
    Given given;
    for (size_t i = 0; i < arguments.size(); i += 2) {
        const std::string &word = arguments[i];
        const bool is_option = word.size() == 2 && word[0] == '-' &&
                               std::string(known_options).find(word[1]) != std::string::npos;
        if (!is_option) throw UsageError("unknown option '" + word + "'");
        if (i + 1 == arguments.size() || arguments[i + 1].empty()) {
            throw UsageError(word + " has no value");
        }
        if (!given.emplace(word[1], arguments[i + 1]).second) {
            throw UsageError(word + " is given twice");
        }
    }
    return given;
}

CloneForm form_of(const Given &given) {
    std::string letters;
    for (const auto &option : given) letters += option.first;
    if (letters == "fgp" || letters == "fgnp") return CloneForm::list;
    if (letters == "dginp") return CloneForm::describe;
    if (letters == "dgnp") return CloneForm::clone_here;
    if (letters == "dginr") return CloneForm::clone_described;
    if (letters == "cgn") return CloneForm::clean_up;
    throw UsageError(letters.empty() ? "no options" : "these options do not belong together");
}

}  // namespace

CloneOptions parse_clone_options(const std::vector<std::string> &arguments) {
    Given given = read(arguments);
    CloneOptions options;
    options.form = form_of(given);
    options.group = given['g'];
    if (!given['n'].empty()) options.volumes = volume_list(given['n']);
    if (!given['d'].empty()) options.devices = device_list(given['d']);
    options.output = given['f'];
    options.information = given['i'];
    options.plex = given['p'];
    options.host = given['r'];
    options.clone = given['c'];
    const bool one_volume = options.form == CloneForm::list || options.form == CloneForm::clean_up;
    if (one_volume && options.volumes.size() > 1) throw UsageError("-n names one volume here");
    return options;
}

std::string clone_group_name(const std::string &host, const std::string &group) {
    const std::string whole = host.empty() ? group : host + "_" + group;
    return whole.substr(0, kept_name_length) + "_clone";
}

}  // namespace tessera
