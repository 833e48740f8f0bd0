// The files of the busy program, as a function of how many steps it has taken.
//
// Every step is one system call that changes the file system, so that a file system stopped at any
// instant holds the state after exactly n steps, for one n; and what that state is can be computed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>

namespace tfwriter {

// The steps of one round, in order. Round r writes record r.
enum Step : uint64_t {
    append_record,  // to the journal
    change_slot,    // overwrites the block of record r % slots
    create_file,    // empty, as new/r
    fill_file,      // in one write
    rename_file,    // new/r -> kept/r
    remove_file,    // kept/(r - kept_files), from round kept_files + 1 on
    steps_a_round
};

constexpr uint64_t slots = 32, slot_size = 4096, kept_files = 64;

// The content that belongs to a record.
std::string journal_line(uint64_t record);
std::string slot_block(uint64_t record);
std::string file_text(uint64_t record);
std::string file_name(uint64_t record);

// Path (folders end in "/") -> content of everything that the file system holds after n steps.
using Content = std::map<std::string, std::string>;
Content content_after(uint64_t steps);
Content read_content(const std::filesystem::path &folder);

}  // namespace tfwriter
