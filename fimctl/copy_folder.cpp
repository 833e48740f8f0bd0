#include "fimctl/copy_folder.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "fimctl/failure.h"

namespace fimctl {
namespace {

Failure unusable(const std::string &text) {
    return Failure(Step::check, ExitCode::usage, text);
}

}  // namespace

bool make_folder(const std::string &folder) {
    struct stat status = {};
    if (stat(folder.c_str(), &status) == 0) {
        if (!S_ISDIR(status.st_mode)) throw unusable(folder + ": not a directory");
        return false;
    }
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(folder).parent_path(), error);
    if (error) throw unusable(folder + ": " + error.message());
    if (mkdir(folder.c_str(), 0700) != 0) throw unusable(folder + ": " + strerror(errno));
    return true;
}

void refuse_promised(const std::string &what, const std::string &real,
                     const std::vector<SnapshotRecord> &others) {
    for (const SnapshotRecord &snapshot : others) {
        if (is_over(snapshot.state)) continue;
        for (const ObjectRecord &object : snapshot.objects) {
            if (object.fifs != real) continue;
            const std::string id = std::to_string(snapshot.id);
            Failure failure = unusable(what + " is for the copy of snapshot " + id);
            failure.next = "name another directory, or end that one first: fimctl release " + id;
            throw failure;
        }
    }
}

}  // namespace fimctl
