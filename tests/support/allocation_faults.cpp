#include "tests/support/allocation_faults.h"

#include <cerrno>
#include <climits>
#include <cstddef>

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);
char *__real_strdup(const char *text);
char *__real_tempnam(const char *dir, const char *prefix);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
void *__wrap_realloc(void *block, size_t size);
char *__wrap_strdup(const char *text);
char *__wrap_tempnam(const char *dir, const char *prefix);
}

namespace {

int first_failing = INT_MAX;
int last_failing = INT_MAX;
int seen = 0;
int failing_name = INT_MAX;
int names_seen = 0;
int given_name = INT_MAX;
const char *name_to_give;

bool fails() {
    ++seen;
    if (seen < first_failing || seen > last_failing) return false;
    errno = ENOMEM;
    return true;
}

}  // namespace

namespace test {

void fail_allocation(int n) {
    no_more_faults();
    first_failing = last_failing = n;
}

void fail_allocations_from(int n) {
    no_more_faults();
    first_failing = n;
}

void fail_temporary_name(int n) {
    no_more_faults();
    failing_name = n;
}

void name_temporary_file(int n, const char *path) {
    no_more_faults();
    given_name = n;
    name_to_give = path;
}

void no_more_faults() {
    first_failing = last_failing = failing_name = given_name = INT_MAX;
    seen = names_seen = 0;
}

int allocations_seen() {
    return seen;
}

}  // namespace test

void *__wrap_malloc(size_t size) {
    return fails() ? nullptr : __real_malloc(size);
}
void *__wrap_calloc(size_t count, size_t size) {
    return fails() ? nullptr : __real_calloc(count, size);
}
void *__wrap_realloc(void *block, size_t size) {
    return fails() ? nullptr : __real_realloc(block, size);
}
char *__wrap_strdup(const char *text) {
    return fails() ? nullptr : __real_strdup(text);
}
char *__wrap_tempnam(const char *dir, const char *prefix) {
    if (++names_seen == failing_name) {
        errno = EEXIST;
        return nullptr;
    }
    if (names_seen == given_name) return __real_strdup(name_to_give);
    return __real_tempnam(dir, prefix);
}
