// Runs a target over files, and folders of files, without a fuzzer.
//
//     replay_config_string fuzz/seeds/config_string fuzz/crashes/config_string
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

void replay(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    // Before the run: the input that ends the process is the last one named.
    printf("%s\n", path.c_str());
    fflush(stdout);
    // A block of its own size, as a fuzzer hands it over.
    const std::vector<uint8_t> input(text.begin(), text.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
}

int replay_all(const std::string &place) {
    if (std::filesystem::is_regular_file(place)) {
        replay(place);
        return 1;
    }
    int count = 0;
    std::error_code error;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(place, error)) {
        if (!entry.is_regular_file()) continue;
        replay(entry.path());
        ++count;
    }
    return count;
}

}  // namespace

int main(int argc, char **argv) {
    int count = 0;
    for (int i = 1; i < argc; ++i) count += replay_all(argv[i]);
    if (count == 0) {
        fprintf(stderr, "replay: there is no input in the places that were named\n");
        return 1;
    }
    printf("%d inputs\n", count);
    return 0;
}
