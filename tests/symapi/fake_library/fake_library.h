// What a test and the fake array library that it loads share: the library's data symbol
// "fake_library", whose address the test gets from dlsym.
#pragma once

#include <cstdint>

struct FakeLibrary {
    uint32_t version;
    const char *version_text, *patch_text;
    int version_result, patch_result, init_result, exit_result;
    int inits, exits, discoveries;
};
