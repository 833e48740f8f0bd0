#include "tests/method/name_mapping.h"

#include "snap/snap.h"

extern "C" {
char *__real_blocktoraw(const char *block, char *out, size_t size);
char *__wrap_blocktoraw(const char *block, char *out, size_t size);
}

namespace {
bool next_one_fails = false;
}

namespace test {

void fail_block_mapping() {
    next_one_fails = true;
}

}  // namespace test

char *__wrap_blocktoraw(const char *block, char *out, size_t size) {
    if (!next_one_fails) return __real_blocktoraw(block, out, size);
    next_one_fails = false;
    return nullptr;
}
