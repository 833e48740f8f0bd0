// Allocations that fail on demand: malloc, calloc, realloc, strdup and tempnam as called by the
// code under test. Nothing inside the C and C++ libraries is affected.
#pragma once

namespace test {

// The n-th allocation from now on fails once (1 is the next one).
void fail_allocation(int n);
// Every allocation from the n-th on fails.
void fail_allocations_from(int n);
// The n-th tempnam from now on gives no name (1 is the next one).
void fail_temporary_name(int n);
// The n-th tempnam from now on gives this name, whatever stands under it.
void name_temporary_file(int n, const char *path);
// Ends whatever was asked for.
void no_more_faults();
// Allocations since the last of the calls above.
int allocations_seen();

}  // namespace test
