// The arrays that are measured: in one world, behind one daemon, one for each number and size of
// pairs, since the copies of an array are cut together.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

struct Kind {
    std::string symid;
    int pairs = 0;
    uint64_t size = 0;  // bytes of a device
};

const std::vector<Kind> &kinds();

std::string standard_name(int pair);
std::string bcv_name(int pair);
// Where this process finds the standard device, and the file that holds what its BCV holds.
std::string standard_node(const Kind &kind, int pair);
std::string bcv_file(const Kind &kind, int pair);

// Makes them in the world of the calling process, which may then use the host library: it is the
// host. Changes of a pair take no time of the array's clock, so that only work is measured.
void build_arrays();

// Opens a session; throws when it is refused.
int32_t open_session();
// Throws unless the array's answer is the expected one.
void expect(const char *what, int answer, int expected = 0);

}  // namespace bench
