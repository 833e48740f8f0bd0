#include "fimctl/inspect/private_folder.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "fimctl/failure.h"

namespace fimctl {

PrivateFolder::PrivateFolder() {
    const char *named = getenv("TMPDIR");
    path_ = std::string(named != nullptr ? named : P_tmpdir) + "/fimctl.XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) {
        throw Failure(Step::inspect, ExitCode::failed, path_ + ": " + strerror(errno));
    }
}

PrivateFolder::~PrivateFolder() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
}

}  // namespace fimctl
