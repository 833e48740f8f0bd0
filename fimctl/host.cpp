#include "fimctl/host.h"

#include <sys/random.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "fimctl/failure.h"

namespace fimctl {

std::string short_host_name() {
    std::array<char, 1024> name = {};
    if (gethostname(name.data(), name.size() - 1) != 0) return "host";
    const std::string whole(name.data());
    return whole.substr(0, whole.find('.'));
}

std::string random_uuid() {
    std::array<unsigned char, 16> bytes = {};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw Failure(Step::catalogue, ExitCode::failed,
                      std::string("no random number to be had: ") + strerror(errno));
    }
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0fU) | 0x40U);  // version 4: random
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3fU) | 0x80U);  // the usual variant
    std::string text;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        char digits[3] = "";
        snprintf(digits, sizeof digits, "%02x", bytes[i]);
        text += digits;
    }
    return text;
}

}  // namespace fimctl
