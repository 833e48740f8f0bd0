// SHA-256, to tell whether a text is the one that was written.
#pragma once

#include <string>

namespace fimctl {

// 64 hexadecimal digits.
std::string sha256(const std::string &text);

}  // namespace fimctl
