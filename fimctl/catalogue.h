// The catalogue: every snapshot that was begun, with its checkpoint texts, in one SQLite file.
//
// A snapshot is entered before the array is touched, so nothing that was begun can be forgotten,
// whatever happens to the process.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fimctl/checkpoint_text.h"

struct sqlite3;

namespace fimctl {

// begun -> cutting -> frozen -> mounting -> mounted -> releasing -> released
// begun, cutting -> failed (rolled back); mounting -> frozen (rolled back)
enum class State {
    begun,      // entered; the array has not been asked to split anything
    cutting,    // the split is under way, or was when the process died: no text yet
    frozen,     // the copy exists; its texts are kept
    mounting,   // the copy is being brought up
    mounted,    // the copy can be read
    releasing,  // the release has begun
    released,   // over
    failed      // over: rolled back before there was a copy
};
const char *name_of(State state);
bool is_over(State state);

constexpr long state_unknown = -1;

struct PairRecord {
    Pair pair;
    long before = state_unknown;  // pair state just before the commit
    long after = state_unknown;   // and after it
};

struct ObjectRecord {
    std::string source, fifs;
    std::string kind;    // "file system", "block device", "raw device"
    std::string inside;  // the source below the root of its file system
    int64_t device = 0;  // device number of the source on this host
    bool made_fifs = false;
    std::string text;          // of the freeze process
    std::string mounted_text;  // of the process that brought the copy up; replaces text
    std::string copy;          // what a backup reads, while it is mounted
    std::vector<PairRecord> pairs;

    const std::string &latest_text() const { return mounted_text.empty() ? text : mounted_text; }
};

struct SnapshotRecord {
    int64_t id = 0;
    std::string created;  // UTC
    State state = State::begun;
    std::string config;
    bool quiesced = false;
    double frozen_ms = 0;
    std::string void_reason;  // why the copy must not be used; "" for a good one
    std::string note;         // the last failure
    std::vector<ObjectRecord> objects;
};

class Catalogue {
  public:
    // Opens the catalogue below a state directory. create: makes both when they are missing (the
    // directory with 0700). Throws Failure.
    Catalogue(const std::string &directory, bool create);
    ~Catalogue();
    Catalogue(const Catalogue &) = delete;
    Catalogue &operator=(const Catalogue &) = delete;

    // Enters a snapshot in state begun and returns its number.
    int64_t enter(const std::string &config);
    void set_objects(int64_t id, const std::vector<ObjectRecord> &objects);
    void set_state(int64_t id, State state);
    void set_note(int64_t id, const std::string &note);
    void set_cut(int64_t id, bool quiesced, double frozen_ms);
    void set_void(int64_t id, const std::string &reason);
    void set_text(int64_t id, size_t object, const std::string &text);
    void set_mounted(int64_t id, size_t object, const std::string &text, const std::string &copy);
    void clear_mounted(int64_t id);
    void set_pairs(int64_t id, size_t object, const std::vector<PairRecord> &pairs);

    std::optional<SnapshotRecord> find(int64_t id);
    std::vector<SnapshotRecord> all();

    // Whether a state directory has a catalogue.
    static bool exists(const std::string &directory);

  private:
    class Statement;
    void run(const char *sql);
    void prepare_schema();
    void load_objects(SnapshotRecord &snapshot);

    sqlite3 *database_ = nullptr;
};

}  // namespace fimctl
