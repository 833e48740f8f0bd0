#include "lab/qzvm/error.h"

#include <cerrno>
#include <cstring>

namespace qz {

void fails(const std::string &what) {
    const int number = errno;
    throw Error("cannot " + what + ": " + strerror(number));
}

}  // namespace qz
