#include "proof/system_calls/faults.h"

#include <netdb.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace proof {
namespace {

#define FAILS(function, error, why) \
    { function, "fail", #error, error, true, why }
#define FAILS_ONCE(function, error, why) \
    { function, "fail", #error, error, false, why }
#define FAILS_AFTER(function, error, lasts, why) \
    { function, "fail_after", #error, error, lasts, why }
#define FALLS_SHORT(function, bytes, why) \
    { function, "lie", "short_" #bytes, bytes, true, why }

// One function's rows stand together; the first of them stands for all at a place's later calls and
// for good. What is left out cannot happen to these calls: a wrong
// pointer, a descriptor that is not open, a signal while a regular file is read.
constexpr Fault faults[] = {
    FAILS("open", EMFILE, "the framework has used its descriptors up"),
    FAILS("open", ENOENT, "the file went away between two looks"),
    FAILS("open", EACCES, "a security module, or root squashed on a network file system"),
    FAILS("open", EIO, "the disk below is dying"),
    FAILS("open", ELOOP, "a link stands where the file was"),

    FAILS("create", ENOSPC, "the disk is full, or out of inodes"),
    FAILS("create", ENOENT, "the folder went away"),
    FAILS("create", EACCES, "a security module, or root squashed on a network file system"),
    FAILS("create", EEXIST, "somebody else made the name"),
    FAILS("create", EMFILE, "the framework has used its descriptors up"),
    FAILS("create", EROFS, "the file system went read-only behind an error"),
    FAILS("create", ELOOP, "a link stands in the file's place"),

    FAILS_AFTER("close", EIO, true, "what was written could not be stored"),
    FAILS_AFTER("close", EINTR, false, "a signal of the framework's; the descriptor is gone"),

    FAILS("read", EIO, "the disk below is dying"),
    FALLS_SHORT("read", 0, "the file was cut between two looks"),
    FALLS_SHORT("read", 2, "the file ends in the middle of a number"),

    FAILS("write", ENOSPC, "the disk is full"),
    FAILS("write", EIO, "the disk below is dying"),
    FAILS("write", EDQUOT, "the user's share of the disk is used up"),
    FAILS("write", EFBIG, "the process's limit of file sizes"),
    FALLS_SHORT("write", 0, "no room for a single byte"),
    FALLS_SHORT("write", 2, "room for a part"),

    FAILS("lseek", ESPIPE, "something else stands in the file's place"),
    FAILS("ftruncate", EIO, "the disk below is dying"),
    FAILS("ftruncate", EPERM, "the file is append-only or immutable"),

    FAILS("lock", EDEADLK, "two processes of the framework wait for each other"),
    FAILS("lock", ENOLCK, "the kernel or a lock server is out of locks"),
    FAILS_ONCE("lock", EINTR, "a signal of the framework's"),
    FAILS("duplicate", EMFILE, "the framework has used its descriptors up"),

    FAILS("stat", EIO, "the disk below is dying"),
    FAILS("stat", ENOENT, "the file went away between two looks"),
    FAILS("stat", EACCES, "a folder that may not be searched"),
    FAILS("stat", ENOMEM, "the kernel is out of memory"),
    FAILS("lstat", EIO, "the disk below is dying"),
    FAILS("lstat", ENOENT, "the file went away between two looks"),
    FAILS("lstat", EACCES, "a folder that may not be searched"),
    FAILS("fstat", EIO, "the disk below is dying"),
    FAILS("fstat", ENOMEM, "the kernel is out of memory"),
    FAILS("access", EIO, "the disk below is dying"),
    FAILS("access", ENOENT, "the file went away between two looks"),
    FAILS("access", EACCES, "a folder that may not be searched"),

    FAILS("unlink", EROFS, "the file system went read-only behind an error"),
    FAILS("unlink", ENOENT, "somebody else cleans up, too"),
    FAILS("unlink", EACCES, "a security module"),
    FAILS("unlink", EIO, "the disk below is dying"),
    FAILS("mkdir", ENOSPC, "the disk is full"),
    FAILS("mkdir", EACCES, "a security module"),
    FAILS("mkdir", EROFS, "the file system went read-only behind an error"),
    FAILS("mkdir", EEXIST, "the array's own tools made it meanwhile"),
    FAILS("chown", EROFS, "the file system went read-only behind an error"),
    FAILS("chown", EPERM, "no right to give files away in a user namespace"),
    FAILS("chown", ENOENT, "the device node went away"),
    FAILS("chown", EIO, "the disk below is dying"),
    FAILS("realpath", EACCES, "a folder that may not be searched"),
    FAILS("realpath", ENOENT, "the directory went away"),
    FAILS("realpath", ENOMEM, "no memory"),

    FAILS("tempnam", EEXIST, "no name is free"),
    FAILS("tempnam", ENOENT, "there is no folder for temporary files"),
    FAILS("tempnam", ENOMEM, "no memory"),

    FAILS("fopen", EMFILE, "the framework has used its descriptors up"),
    FAILS("fopen", ENOENT, "the file is not there"),
    FAILS("fopen", EACCES, "a security module"),
    FAILS("fopen", ENOMEM, "no memory"),
    FAILS("fdopen", ENOMEM, "no memory"),
    FAILS_AFTER("fclose", EIO, true, "the disk below is dying"),
    FAILS("fgets", EIO, "the disk below is dying"),
    FAILS("getc", EIO, "the disk below is dying"),
    FAILS_ONCE("getc", EINTR, "a signal of the framework's while a command is silent"),
    FAILS("getline", EIO, "the disk below is dying"),
    FAILS("getline", ENOMEM, "no memory for a line"),
    FAILS("setmntent", EMFILE, "the framework has used its descriptors up"),
    FAILS("setmntent", ENOENT, "no mount table"),
    FAILS("setmntent", EACCES, "a security module"),
    FAILS("getmntent", EIO, "the mount table breaks off"),

    FAILS("system", EAGAIN, "the limit of processes"),
    FAILS("system", ENOMEM, "no memory for another process"),
    FAILS_AFTER("system", ECHILD, true, "the framework ignores its children: the status is lost"),
    FAILS("popen", EAGAIN, "the limit of processes"),
    FAILS("popen", EMFILE, "the framework has used its descriptors up"),
    FAILS("popen", ENOMEM, "no memory"),
    FAILS_AFTER("pclose", ECHILD, true, "the framework ignores its children"),
    FAILS("posix_spawn", EAGAIN, "the limit of processes"),
    FAILS("posix_spawn", ENOMEM, "no memory for another process"),
    FAILS("posix_spawn", ENOENT, "the program is not installed"),
    FAILS("posix_spawn", EACCES, "the program may not be executed"),
    FAILS("posix_spawn_file_actions_addopen", ENOMEM, "no memory"),
    FAILS("posix_spawn_file_actions_adddup2", ENOMEM, "no memory"),
    FAILS("posix_spawn_file_actions_addclosefrom_np", ENOMEM, "no memory"),
    // Not ECHILD: a handler that reaps every child is held off until the status is there.
    FAILS_ONCE("waitpid", EINTR, "a signal of the framework's"),
    FAILS("getpgid", ESRCH, "the process has ended"),
    FAILS("getpgid", EPERM, "a security module hides other processes"),

    FAILS("gethostname", ENAMETOOLONG, "a name longer than the system allows"),
    FAILS("getaddrinfo", EAI_AGAIN, "the name service does not answer"),
    FAILS("getaddrinfo", EAI_NONAME, "the name service does not know the host"),
    FAILS("getaddrinfo", EAI_MEMORY, "no memory"),
    FAILS("getifaddrs", EMFILE, "the framework has used its descriptors up"),
    FAILS("getifaddrs", ENOMEM, "no memory"),

    FAILS("dlopen", ENOENT, "the library is not installed, or one that it needs"),
    FAILS_AFTER("dlclose", EINVAL, true, "the linker refuses"),
    FAILS("ioctl", ENOTTY, "the file system does not know the request"),
    FAILS("ioctl", EBUSY, "it is frozen already"),
    FAILS("ioctl", EIO, "the disk below is dying"),
};

}  // namespace

std::span<const Fault> faults_of(const std::string &function) {
    const auto is_its = [&function](const Fault &fault) { return function == fault.function; };
    const Fault *const first = std::find_if(std::begin(faults), std::end(faults), is_its);
    const Fault *const end = std::find_if_not(first, std::end(faults), is_its);
    return {first, end};
}

}  // namespace proof
