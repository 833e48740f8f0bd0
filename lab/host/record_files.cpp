#include "lab/host/record_files.h"

#include <cstdio>
#include <fstream>
#include <iterator>

namespace tfwriter {
namespace {

namespace fs = std::filesystem;

// A sequence of numbers in which every bit depends on the seed: no two records look alike.
class Numbers {
  public:
    explicit Numbers(uint64_t seed) : state_(seed) {}
    uint64_t next() {
        uint64_t z = state_ += 0x9e3779b97f4a7c15ULL;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        return z ^ (z >> 31);
    }

  private:
    uint64_t state_;
};

// Readable text of a given length that names its record on every line.
std::string text_of(const char *kind, uint64_t record, size_t length) {
    Numbers numbers(record * 4 + static_cast<unsigned char>(kind[0]));
    std::string text;
    while (text.size() < length) {
        char line[96];
        snprintf(line, sizeof line, "%s %012llu %016llx%016llx%016llx\n", kind,
                 static_cast<unsigned long long>(record),
                 static_cast<unsigned long long>(numbers.next()),
                 static_cast<unsigned long long>(numbers.next()),
                 static_cast<unsigned long long>(numbers.next()));
        text += line;
    }
    text.resize(length);
    return text;
}

constexpr size_t line_length = 128;

}  // namespace

std::string journal_line(uint64_t record) {
    std::string line = text_of("journal", record, line_length);
    line.back() = '\n';
    return line;
}

std::string slot_block(uint64_t record) {
    return record == 0 ? std::string(slot_size, '\0') : text_of("slot", record, slot_size);
}

std::string file_text(uint64_t record) {
    return text_of("file", record, 1000 + record % 7 * 2500);
}

std::string file_name(uint64_t record) {
    char name[32];
    snprintf(name, sizeof name, "%012llu", static_cast<unsigned long long>(record));
    return name;
}

Content content_after(uint64_t steps) {
    const uint64_t whole = steps / steps_a_round, rest = steps % steps_a_round;
    const auto rounds_past = [whole, rest](Step step) { return whole + (rest > step ? 1 : 0); };
    Content content = {{"new/", ""}, {"kept/", ""}};
    std::string &journal = content["journal"];
    for (uint64_t r = 1; r <= rounds_past(append_record); ++r) journal += journal_line(r);
    std::string &slot_file = content["slots"];
    const uint64_t changed = rounds_past(change_slot);
    for (uint64_t slot = 0; slot < slots; ++slot) {
        // The newest record of this slot; 0 is none.
        const uint64_t behind = (changed + slots - slot) % slots;
        slot_file += slot_block(changed >= behind ? changed - behind : 0);
    }
    const uint64_t removed = rounds_past(remove_file), kept = rounds_past(rename_file);
    for (uint64_t r = removed > kept_files ? removed - kept_files + 1 : 1; r <= kept; ++r) {
        content["kept/" + file_name(r)] = file_text(r);
    }
    if (rest > create_file && rest <= rename_file) {
        content["new/" + file_name(whole + 1)] = rest > fill_file ? file_text(whole + 1) : "";
    }
    return content;
}

Content read_content(const fs::path &folder) {
    Content content;
    for (const auto &entry : fs::recursive_directory_iterator(folder)) {
        const std::string name = fs::relative(entry.path(), folder);
        // The file system's own folder for what a check finds.
        if (name == "lost+found") continue;
        if (entry.is_directory()) {
            content[name + "/"] = "";
        } else {
            std::ifstream in(entry.path(), std::ios::binary);
            content[name] = {std::istreambuf_iterator<char>(in), {}};
        }
    }
    return content;
}

}  // namespace tfwriter
