// How a target says that the code under test did what it must never do.
#pragma once

namespace fuzz {

// Prints the text and aborts; whoever feeds the inputs then keeps the one that led here.
[[noreturn]] void finding(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace fuzz
