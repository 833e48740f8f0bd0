// Checkpoint texts damaged in every way of a list. Each is judged by the target.
//
//     text_mutations FILE...
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "fuzz/support/damage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        std::ifstream in(argv[i], std::ios::binary);
        const std::string text{std::istreambuf_iterator<char>(in), {}};
        if (text.empty()) {
            fprintf(stderr, "text_mutations: cannot read %s\n", argv[i]);
            return 1;
        }
        printf("%s\n", argv[i]);
        fflush(stdout);
        for (const fuzz::Damaged &damaged : fuzz::every_damage(text)) {
            const std::string &bytes = damaged.text;
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
            ++count;
        }
    }
    printf("%d texts\n", count);
    return count == 0 ? 1 : 0;
}
