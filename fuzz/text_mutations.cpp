// Checkpoint texts damaged in every way of a list: cut off at every byte, every line missing,
// twice, swapped with every other, every value oversized, empty and hostile. Each is judged by the
// target.
//
//     text_mutations FILE...
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/support/input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

using Lines = std::vector<std::string>;

constexpr const char *hostile_values[] = {
    "",
    "../../../../etc/passwd",
    "/etc/passwd",
    "-rf",
    "$(touch /tmp/x)",
    "`touch /tmp/x`",
    "a;b|c&d>e<f",
    "a'b\"c\\d",
    " \t ",
    "*?[]{}~",
    "\x01\x1b\x7f\xff",
    "PRIM_MIR_INFO=NEXT",
    "%s%n%d",
    "-2147483649",
};

int count = 0;

void judge(const std::string &text) {
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(text.data()), text.size());
    ++count;
}

std::string joined(const Lines &lines) {
    std::string text;
    for (const std::string &line : lines) text += line + "\n";
    return text;
}

void cut_at_every_byte(const std::string &text) {
    for (size_t length = 0; length <= text.size(); ++length) judge(text.substr(0, length));
}

void move_lines(const Lines &lines) {
    for (size_t i = 0; i < lines.size(); ++i) {
        Lines damaged = lines;
        damaged.erase(damaged.begin() + static_cast<ptrdiff_t>(i));
        judge(joined(damaged));
        damaged = lines;
        damaged.insert(damaged.begin() + static_cast<ptrdiff_t>(i), lines[i]);
        judge(joined(damaged));
        for (size_t j = i + 1; j < lines.size(); ++j) {
            damaged = lines;
            std::swap(damaged[i], damaged[j]);
            judge(joined(damaged));
        }
    }
}

void change_values(const Lines &lines) {
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string key = lines[i].substr(0, lines[i].find('=')) + "=";
        Lines damaged = lines;
        for (const char *value : hostile_values) {
            damaged[i] = key + value;
            judge(joined(damaged));
        }
        for (const size_t length : {4UL, 5UL, 12UL, 13UL, 1022UL, 1023UL, 1024UL, 4096UL}) {
            damaged[i] = key + std::string(length, 'x');
            judge(joined(damaged));
        }
    }
}

}  // namespace

int main(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        std::ifstream in(argv[i], std::ios::binary);
        const std::string text{std::istreambuf_iterator<char>(in), {}};
        if (text.empty()) {
            fprintf(stderr, "text_mutations: cannot read %s\n", argv[i]);
            return 1;
        }
        printf("%s\n", argv[i]);
        fflush(stdout);
        cut_at_every_byte(text);
        move_lines(fuzz::lines_of(text));
        change_values(fuzz::lines_of(text));
    }
    printf("%d texts\n", count);
    return count == 0 ? 1 : 0;
}
