// Points about one update of a counter file in every state that it may be found in.
#pragma once

#include <string>
#include <vector>

namespace locks {

// "file/13 bytes/own/count 5/set" and the like.
std::vector<std::string> file_points();
// What is wrong about a point; empty: it holds.
std::string try_file_point(const std::string &point);

// "reuse/...": process ids that the kernel gave out a second time.
std::vector<std::string> reuse_points();
std::string try_reuse_point(const std::string &point);

}  // namespace locks
