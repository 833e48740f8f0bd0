// The pairs that a cycle is about.
#pragma once

namespace bench {

inline constexpr int most_pairs = 2048;
inline constexpr char array_id[] = "000184500123";
inline constexpr char raw_device_format[] = "/dev/qz/rdmp/disk_%d";
// Asked for every device, and what it says of each.
inline constexpr char device_tool[] = "/usr/quill/tessera/bin/tqtpcinfo";
inline constexpr char device_answer[] = "EMC SYMMETRIX p=/dev/x s=0001845001230001\n";

}  // namespace bench
