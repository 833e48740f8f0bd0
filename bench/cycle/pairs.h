// The pairs that a cycle is about.
#pragma once

namespace bench {

inline constexpr int most_pairs = 2048;
inline constexpr char array_id[] = "000184500123";
inline constexpr char raw_device_format[] = "/dev/qz/rdmp/disk_%d";

}  // namespace bench
