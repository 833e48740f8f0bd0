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
// frozen, mounted -> restoring -> restored
// The catalogue holds these numbers: a new state goes to the end.
enum class State {
    begun,      // entered; the array has not been asked to split anything
    cutting,    // the split is under way, or was when the process died: no text yet
    frozen,     // the copy exists; its texts are kept
    mounting,   // the copy is being brought up
    mounted,    // the copy can be read
    releasing,  // the release has begun
    released,   // over
    failed,     // over: rolled back before there was a copy
    restoring,  // the mirrors are being copied back over the primaries
    restored    // over: the primaries hold what the copy held
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
    std::string kind;           // "file system", "block device", "raw device"
    std::string inside;         // the source below the root of its file system
    int64_t device = 0;         // device number of the source on this host
    int64_t made_fifs = 0;      // how many folders were made for the copy: fifs and those above it
    std::string mount_dir;      // where the original was mounted at the cut, or ""
    std::string vol_group;      // disk group and volume of a volume; "" for anything else
    std::string vol_name;       //
    std::string text;           // of the freeze process
    std::string mounted_text;   // of the process that brought the copy up; replaces text
    std::string returned_text;  // as it came back from the backup host
    std::string copy;           // what a backup reads, while it is mounted
    std::vector<PairRecord> pairs;

    const std::string &latest_text() const { return mounted_text.empty() ? text : mounted_text; }
    bool is_volume() const { return !vol_group.empty(); }
    // Whether its disk group is brought up by importing the mirrors; false while there is no text.
    bool is_imported_group() const;
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
    std::string uuid;         // one and the same on every host that the snapshot is carried to
    std::string host;         // of this catalogue, up to the first dot
    std::string origin;       // "HOST:ID" on the primary host; "" for a snapshot of this host's own
    bool is_target = false;   // this host is the one that backs the copy up, not the primary
    std::string exported;     // UTC, when it was last exported; "" for never
    std::string returned;     // UTC, when that export came back; "" for not yet
    int64_t exports = 0;      // how often; only the latest one may come back
    std::string restore_form;  // of a restore that was begun: what it has taken away
    std::vector<ObjectRecord> objects;

    // In the hands of another host: neither released nor restored here without a word about it.
    bool is_away() const { return !is_target && !exported.empty() && returned.empty(); }
    // The arrays that its pairs lie on, each once.
    std::vector<std::string> arrays() const;
};

class Catalogue {
  public:
    // Opens the catalogue below a state directory. create: makes both when they are missing (the
    // directory with 0700). Throws Failure.
    Catalogue(const std::string &directory, bool create);
    ~Catalogue();
    Catalogue(const Catalogue &) = delete;
    Catalogue &operator=(const Catalogue &) = delete;

    // What is done while one exists is done as a whole, or not at all: what it has read nobody else
    // changes. Without commit() nothing is kept. There is one at a time.
    class Transaction {
      public:
        explicit Transaction(Catalogue &catalogue);
        ~Transaction();
        Transaction(const Transaction &) = delete;
        Transaction &operator=(const Transaction &) = delete;
        void commit();

      private:
        Catalogue &catalogue_;
        bool open_ = true;
    };

    // Enters a snapshot of this host in state begun and returns its number.
    int64_t enter(const std::string &config);
    // Enters one that was cut on another host, with everything but its objects: state frozen.
    int64_t enter_imported(const SnapshotRecord &snapshot);
    void set_objects(int64_t id, const std::vector<ObjectRecord> &objects);
    void set_state(int64_t id, State state);
    void set_note(int64_t id, const std::string &note);
    void set_cut(int64_t id, bool quiesced, double frozen_ms);
    void set_void(int64_t id, const std::string &reason);
    void set_text(int64_t id, size_t object, const std::string &text);
    void set_mounted(int64_t id, size_t object, const std::string &text, const std::string &copy);
    void clear_mounted(int64_t id);
    // Marks one as handed to another host and returns which export of it this is, from 1.
    int64_t set_exported(int64_t id);
    // What the marks were before, for a document that never left; its number is used up.
    void take_export_back(int64_t id, const SnapshotRecord &before);
    void set_returned(int64_t id);
    void set_returned_text(int64_t id, size_t object, const std::string &text);
    // State restoring, with what the restore takes away.
    void set_restoring(int64_t id, const std::string &form);
    void set_pairs(int64_t id, size_t object, const std::vector<PairRecord> &pairs);

    std::optional<SnapshotRecord> find(int64_t id);
    std::vector<SnapshotRecord> all();
    std::vector<SnapshotRecord> with_uuid(const std::string &uuid);

    // Whether a state directory has a catalogue.
    static bool exists(const std::string &directory);

  private:
    class Statement;
    void run(const char *sql);
    void prepare_schema();
    void bring_schema_up_to_date(int64_t version);
    std::vector<SnapshotRecord> read(const char *condition, const std::string &value);
    void set_text_of(const char *sql, int64_t id, size_t object, const std::string &text);
    void load_objects(SnapshotRecord &snapshot);

    sqlite3 *database_ = nullptr;
};

}  // namespace fimctl
