// What the row "checkpoint texts" takes for a leak.
#include "proof/checkpoint_texts/leaks.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

TEST(Leaks, a_block_that_stays_each_time_is_a_leak) {
    std::vector<void *> kept;
    kept.reserve(100);
    EXPECT_EQ(proof::leaked_blocks([&kept] { kept.push_back(malloc(1)); }), 1);
    for (void *block : kept) free(block);
}

TEST(Leaks, every_way_to_get_a_block_is_counted) {
    std::vector<void *> kept;
    kept.reserve(100);
    EXPECT_EQ(proof::leaked_blocks([&kept] {
                  kept.push_back(calloc(1, 1));
                  kept.push_back(realloc(malloc(1), 4096));
                  kept.push_back(aligned_alloc(64, 64));
                  kept.push_back(strdup("text"));
              }),
              4);
    for (void *block : kept) free(block);
}

TEST(Leaks, what_is_given_back_is_none) {
    EXPECT_EQ(proof::leaked_blocks([] { free(realloc(malloc(1), 100000)); }), 0);
}

TEST(Leaks, what_is_made_once_is_none) {
    static std::string *once = nullptr;
    EXPECT_EQ(proof::leaked_blocks([] {
                  if (once == nullptr) once = new std::string(100, 'x');
              }),
              0);
    delete once;
}

}  // namespace
