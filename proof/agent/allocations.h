// The blocks that the shipped libraries hold. A block counts when one of them asked for it itself:
// by malloc, calloc or realloc, or by a function of the C library whose result has to be given back
// with free. Once the method is unloaded there must be none.
#pragma once

namespace agent {

// Whether an address, as of __builtin_return_address(0), lies in the method or in its host library.
bool in_shipped(const void *address);

// Whether a path is the method's.
bool is_method(const char *path);

// Takes note of a block that was got at a call from there; null is none. Returns it.
void *held(void *block, const void *caller);

// Notes "held LIBRARY+OFFSET" for each block that the shipped libraries still hold, the place being
// the one that asked for it, and "unloaded" first, when the method is not loaded any more.
void tell_held();

}  // namespace agent
