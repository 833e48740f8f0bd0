#include "proof/mutation/choice.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace mutation {

namespace {
// As long as no record is asked for, what is seen goes here.
unsigned char nowhere[MUTATION_PLACES];
}  // namespace

int chosen = -1;
unsigned char *seen = nowhere;

namespace {

// Before anything of the program runs: it is about to enter a root of its own, where the record
// would be out of reach. The record is written through the mapping, by children too.
[[gnu::constructor]] void choose() {
    if (const char *number = getenv("MUTATION_CHOSEN")) {
        chosen = static_cast<int>(strtol(number, nullptr, 10));
    }
    const char *const path = getenv("MUTATION_RECORD");
    if (path == nullptr) return;
    const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ftruncate(fd, sizeof nowhere) != 0) _exit(70);
    void *const mapped = mmap(nullptr, sizeof nowhere, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) _exit(70);
    close(fd);
    seen = static_cast<unsigned char *>(mapped);
}

}  // namespace
}  // namespace mutation
