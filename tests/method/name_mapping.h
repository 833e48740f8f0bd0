// The mapping of block to raw names, which has no way to fail of its own.
#pragma once

namespace test {

// The next block name has no raw twin.
void fail_block_mapping();

}  // namespace test
