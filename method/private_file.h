// The method's own files: how they are opened, made and removed so that nobody else's file is
// touched and nobody's output ends in them.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

namespace tf {

// open, closed to other programs and never in the place of a standard stream: in a process that
// runs without one of them, whatever anybody prints would end in the file. Returns a descriptor
// above 2, or -1 with errno set.
int open_file(const char *path, int flags, mode_t mode = 0);

// Makes a file that must not exist, for its owner alone, and opens it for writing. Returns the
// descriptor, or -1 with errno set.
int create_private(const char *path);
// The same, closed again. Returns whether it was made.
bool create_private_file(const char *path);

// A regular file of the effective user with one name: the only thing that is written into when it
// is there already.
bool is_own_plain_file(const struct stat &status);

// Removes a file that was made under a temporary name; null is none. What is no file is left alone:
// a link or a pipe that somebody put in its place.
void remove_private_file(const char *path);

}  // namespace tf
