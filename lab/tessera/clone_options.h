// The command line of tqdgclone, in each of its forms.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace tessera {

struct DevicePair {
    std::string primary, bcv;
};

enum class CloneForm {
    list,             // -g G [-n VOL] -f FILE -p PLEX: the raw devices of a group or of a volume
    describe,         // -g G -n VOLS -d LIST -i FILE -p PLEX: write the clone information
    clone_here,       // -g G -n VOLS -d LIST -p PLEX: bring the copy up where the original is
    clone_described,  // -g G -n VOLS -d LIST -i FILE -r HOST: bring it up from the information
    clean_up,         // -g G -n VOL -c CLONE: end one volume of a copy
};

struct CloneOptions {
    CloneForm form = CloneForm::list;
    std::string group;
    std::vector<std::string> volumes;  // empty: all
    std::vector<DevicePair> devices;
    std::string output, information, plex, host, clone;
};

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

extern const char usage_text[];

// Reads the arguments behind the program's name. An unknown option, one without its value, one
// given twice, a word that belongs to no option, and every mixture that is none of the forms is
// refused.
CloneOptions parse_clone_options(const std::vector<std::string> &arguments);

// The name of the group that a copy becomes: 25 characters of the group's name, or of host and
// group, and "_clone". Two groups whose names differ behind these have one clone name.
std::string clone_group_name(const std::string &host, const std::string &group);

}  // namespace tessera
