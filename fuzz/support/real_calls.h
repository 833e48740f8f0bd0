// The real functions behind those that the fake machine replaces, and the replacements. The linker
// sends the library's calls to __wrap_NAME (see fuzz/CMakeLists.txt).
#pragma once

#include <sys/stat.h>

#include <cstdio>

extern "C" {
int __real_open(const char *path, int flags, ...);
int __real_unlink(const char *path);
int __real_stat(const char *path, struct stat *status);
int __real_lstat(const char *path, struct stat *status);
int __real_fstat(int fd, struct stat *status);
int __real_access(const char *path, int mode);
int __real_mkdir(const char *path, mode_t mode);
int __real_chown(const char *path, uid_t uid, gid_t gid);
char *__real_realpath(const char *path, char *resolved);
FILE *__real_setmntent(const char *path, const char *mode);
char *__real_tempnam(const char *folder, const char *prefix);
int __real_system(const char *line);
FILE *__real_popen(const char *line, const char *mode);
int __real_pclose(FILE *stream);
unsigned __real_sleep(unsigned seconds);
pid_t __real_getpgid(pid_t pid);
int __real_ioctl(int fd, unsigned long request, ...);
void __real_sync();
void *__real_dlopen(const char *path, int flags);

int __wrap_open(const char *path, int flags, ...);
int __wrap_unlink(const char *path);
int __wrap_stat(const char *path, struct stat *status);
int __wrap_lstat(const char *path, struct stat *status);
int __wrap_fstat(int fd, struct stat *status);
int __wrap_access(const char *path, int mode);
int __wrap_mkdir(const char *path, mode_t mode);
int __wrap_chown(const char *path, uid_t uid, gid_t gid);
char *__wrap_realpath(const char *path, char *resolved);
char *__wrap___realpath_chk(const char *path, char *resolved, size_t size);
FILE *__wrap_setmntent(const char *path, const char *mode);
char *__wrap_tempnam(const char *folder, const char *prefix);
int __wrap_system(const char *line);
FILE *__wrap_popen(const char *line, const char *mode);
int __wrap_pclose(FILE *stream);
unsigned __wrap_sleep(unsigned seconds);
pid_t __wrap_getpgid(pid_t pid);
int __wrap_ioctl(int fd, unsigned long request, ...);
void __wrap_sync();
void *__wrap_dlopen(const char *path, int flags);
}
