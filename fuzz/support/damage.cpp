#include "fuzz/support/damage.h"

#include <cstddef>
#include <utility>

#include "fuzz/support/input.h"

namespace fuzz {
namespace {

using Lines = std::vector<std::string>;

constexpr const char *hostile_values[] = {
    "",
    "../../../../etc/passwd",
    "/etc/passwd",
    "/",
    ".",
    "-rf",
    "$(touch /tmp/x)",
    "`touch /tmp/x`",
    "a;b|c&d>e<f",
    "a'b\"c\\d",
    " \t ",
    "*?[]{}~",
    "\x01\x1b\x7f\xff",
    "\r",
    "PRIM_MIR_INFO=NEXT",
    "HDEF-CLONE_INFO_FILE=START",
    "%s%n%d",
    "-2147483649",
    "99999999999999999999",
};
// Around the sizes of the fields, of the line buffers, and far beyond.
constexpr size_t lengths[] = {4, 5, 12, 13, 1022, 1023, 1024, 1025, 4096, 65536};

std::string joined(const Lines &lines) {
    std::string text;
    for (const std::string &line : lines) text += line + "\n";
    return text;
}

std::string numbered(size_t i) {
    return "line " + std::to_string(i + 1);
}

void cut_at_every_byte(const std::string &text, std::vector<Damaged> *all) {
    for (size_t length = 0; length <= text.size(); ++length) {
        all->push_back({"cut at " + std::to_string(length), text.substr(0, length)});
    }
}

void move_lines(const Lines &lines, std::vector<Damaged> *all) {
    for (size_t i = 0; i < lines.size(); ++i) {
        const auto at = static_cast<ptrdiff_t>(i);
        Lines damaged = lines;
        damaged.erase(damaged.begin() + at);
        all->push_back({numbered(i) + " missing", joined(damaged)});
        damaged = lines;
        damaged.insert(damaged.begin() + at, lines[i]);
        all->push_back({numbered(i) + " twice", joined(damaged)});
        for (size_t j = i + 1; j < lines.size(); ++j) {
            damaged = lines;
            std::swap(damaged[i], damaged[j]);
            all->push_back({numbered(i) + " swapped with " + numbered(j), joined(damaged)});
        }
    }
}

void change_values(const Lines &lines, std::vector<Damaged> *all) {
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string key = lines[i].substr(0, lines[i].find('=')) + "=";
        Lines damaged = lines;
        int number = 0;
        for (const char *value : hostile_values) {
            damaged[i] = key + value;
            all->push_back(
                {numbered(i) + " with hostile value " + std::to_string(++number), joined(damaged)});
        }
        for (const size_t length : lengths) {
            damaged[i] = key + std::string(length, 'x');
            all->push_back(
                {numbered(i) + " with " + std::to_string(length) + " characters", joined(damaged)});
        }
    }
}

}  // namespace

std::vector<Damaged> every_damage(const std::string &text) {
    std::vector<Damaged> all;
    cut_at_every_byte(text, &all);
    move_lines(lines_of(text), &all);
    change_values(lines_of(text), &all);
    return all;
}

}  // namespace fuzz
