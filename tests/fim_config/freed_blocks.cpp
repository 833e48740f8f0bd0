// free() of the code under test, watched.
#include <malloc.h>

#include <algorithm>
#include <cstring>

#include "tests/fim_config/fim_config_fixture.h"

extern "C" {
void __real_free(void *block);
void __wrap_free(void *block);
}

namespace {
std::vector<test::FreedBlock> blocks;
bool watching = false;
}  // namespace

namespace test {

const std::vector<FreedBlock> &freed_blocks() {
    return blocks;
}
void watch_freed_blocks() {
    blocks.clear();
    watching = true;
}
void stop_watching() {
    watching = false;
}

}  // namespace test

void __wrap_free(void *block) {
    if (watching && block != nullptr) {
        uint32_t first = 0;
        memcpy(&first, block, std::min(malloc_usable_size(block), sizeof first));
        blocks.push_back({block, first});
    }
    __real_free(block);
}
