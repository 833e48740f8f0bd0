// A private copy of the machine's file tree for one test process.
//
// The fixed paths of the code under test stay fixed; here they are the test's own. The process sees
// an overlay over the real root: it may write anywhere, and everything is gone when it ends. /dev
// is a private tmpfs with the usual nodes; the source and build folders are the real ones.
#pragma once

#include <string>
#include <vector>

namespace test {

// Moves the calling process into its private root; as root directly, otherwise inside a user
// namespace. Prints why and exits with status 1 when the machine cannot do that.
void enter_private_root();
// Files that this process and its children have made under /tmp and not removed.
std::vector<std::string> files_left_in_tmp();
// Whether the test runs as the machine's root, so that nodes and mounts can be made.
bool is_real_root();

// Writes a file with its folders.
void write_file(const std::string &path, const std::string &text, int mode = 0644);
// Writes an executable shell script: a stand-in for one of the fixed-path commands.
void write_script(const std::string &path, const std::string &body);
std::string read_file(const std::string &path);
bool exists(const std::string &path);
// Replaces /etc/mtab by a regular file with this text.
void write_mount_table(const std::string &text);
// Makes a folder and those above it.
void make_folders(const std::string &path);

}  // namespace test
