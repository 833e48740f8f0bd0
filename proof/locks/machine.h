// What the points of this row share: the fixed paths in a private root, the bytes of a counter
// file, and the log of the routines under test.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "include/records.h"

namespace locks {

inline constexpr char counter_folder[] = "/usr/quill/tessera/online_util/db_cntl";
inline constexpr char host_lock[] = "/usr/quill/tessera/online_util/fi_cntl/__LOCKFILE__TSR_ARRAY";

// Makes the folders and the device-information tool; everything is gone with the process.
void make_machine();

// The counter file of an array: its serial numbers differ in their last two characters only.
std::string serial_of(int array);
std::string counter_file(int array);

std::string bytes_of(int32_t pid, int32_t objects, int32_t is_split);
bool exists(const std::string &path);
std::string read_all(const std::string &path);
void write_all(const std::string &path, const std::string &bytes);

// The last line that the routines have logged at level 0; empty since forget_log().
const std::string &last_line();
void forget_log();

// One set or clear, as manage_lock makes them: the host-wide lock, the counter file, the change.
int change(prim_mir_info *pm, int mode);

// A child that does nothing until it is ended.
class Idler {
  public:
    Idler();
    ~Idler() { end(); }
    Idler(const Idler &) = delete;
    Idler &operator=(const Idler &) = delete;
    pid_t pid() const { return pid_; }
    void kill_it();  // it has ended then, and nobody has waited for it
    void end();

  private:
    pid_t pid_;
    bool reaped_ = false;
};

}  // namespace locks
