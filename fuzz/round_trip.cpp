// Random records that survive checkpoint and rebuild. The seed of the first is printed; the next
// record has the next seed.
//
//     round_trip [RUNS [SEED]]
#include <cstdio>
#include <cstdlib>
#include <random>

#include "fuzz/support/random_record.h"

int main(int argc, char **argv) {
    const long runs = argc > 1 ? strtol(argv[1], nullptr, 10) : 1000;
    const uint64_t seed = argc > 2 ? strtoull(argv[2], nullptr, 10) : std::random_device()();
    printf("seed %lu, %ld records\n", static_cast<unsigned long>(seed), runs);
    fflush(stdout);
    for (long i = 0; i < runs; ++i) fuzz::round_trip(seed + static_cast<unsigned long>(i));
    return 0;
}
