// Everything a test may not leave behind: descriptors, children, mounts, files under /tmp.
#pragma once

#include <string>

namespace test {

// Remembers what the process has now.
void remember_resources();
// What it has now beyond that, in words; empty when nothing was left.
std::string resources_left();

}  // namespace test
