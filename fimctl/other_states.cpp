#include "fimctl/other_states.h"

#include <filesystem>

#include "fimctl/catalogue.h"
#include "fimctl/failure.h"
#include "fimctl/paths.h"
#include "fimctl/snapshot_lock.h"

namespace fimctl {
namespace {

constexpr char what_that_means[] =
    ": snapshots of different state folders do not see each other, and one's freeze may overwrite "
    "the other's copy";

}  // namespace

std::string warning_of_other_states(const std::string &directory) {
    const std::string own = lock_folder_of(directory);
    const std::string usual = path::state_directory;
    if (Catalogue::exists(usual) && lock_folder_of(usual) != own) {
        return "warning: " + usual + " holds a catalogue as well as " + directory + what_that_means;
    }
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator(path::runtime_directory, error)) {
        if (entry.path() == own || !entry.is_directory(error)) continue;
        return "warning: another state folder than " + directory + " was used on this host (" +
               entry.path().string() + ")" + what_that_means;
    }
    return "";
}

}  // namespace fimctl
