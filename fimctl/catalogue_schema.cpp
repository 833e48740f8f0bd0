// The tables of the catalogue, and how older ones become these.
#include "fimctl/catalogue_statement.h"
#include "fimctl/host.h"

namespace fimctl {
namespace {

constexpr int64_t schema_version = 2;

constexpr char schema[] = R"(
CREATE TABLE snapshot (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    created TEXT NOT NULL DEFAULT (strftime('%Y-%m-%dT%H:%M:%SZ', 'now')),
    state INTEGER NOT NULL DEFAULT 0,
    config TEXT NOT NULL DEFAULT '',
    quiesced INTEGER NOT NULL DEFAULT 0,
    frozen_ms REAL NOT NULL DEFAULT 0,
    void_reason TEXT NOT NULL DEFAULT '',
    note TEXT NOT NULL DEFAULT '');
CREATE TABLE object (
    snapshot INTEGER NOT NULL REFERENCES snapshot (id),
    number INTEGER NOT NULL,
    source TEXT NOT NULL, fifs TEXT NOT NULL, kind TEXT NOT NULL, inside TEXT NOT NULL,
    device INTEGER NOT NULL, made_fifs INTEGER NOT NULL,
    text TEXT NOT NULL DEFAULT '', mounted_text TEXT NOT NULL DEFAULT '',
    copy TEXT NOT NULL DEFAULT '',
    PRIMARY KEY (snapshot, number));
CREATE TABLE pair (
    snapshot INTEGER NOT NULL, object INTEGER NOT NULL, number INTEGER NOT NULL,
    symid TEXT NOT NULL, device TEXT NOT NULL, bcv TEXT NOT NULL,
    before INTEGER NOT NULL, after INTEGER NOT NULL,
    PRIMARY KEY (snapshot, object, number));
)";

// Version 2: a snapshot can be carried to another host and back, and knows its volumes.
constexpr char to_version_2[] = R"(
ALTER TABLE snapshot ADD COLUMN uuid TEXT NOT NULL DEFAULT '';
ALTER TABLE snapshot ADD COLUMN host TEXT NOT NULL DEFAULT '';
ALTER TABLE snapshot ADD COLUMN origin TEXT NOT NULL DEFAULT '';
ALTER TABLE snapshot ADD COLUMN target INTEGER NOT NULL DEFAULT 0;
ALTER TABLE snapshot ADD COLUMN exported TEXT NOT NULL DEFAULT '';
ALTER TABLE snapshot ADD COLUMN returned TEXT NOT NULL DEFAULT '';
ALTER TABLE snapshot ADD COLUMN exports INTEGER NOT NULL DEFAULT 0;
ALTER TABLE snapshot ADD COLUMN restore_form TEXT NOT NULL DEFAULT '';
ALTER TABLE object ADD COLUMN mount_dir TEXT NOT NULL DEFAULT '';
ALTER TABLE object ADD COLUMN vol_group TEXT NOT NULL DEFAULT '';
ALTER TABLE object ADD COLUMN vol_name TEXT NOT NULL DEFAULT '';
ALTER TABLE object ADD COLUMN returned_text TEXT NOT NULL DEFAULT '';
CREATE INDEX snapshot_uuid ON snapshot (uuid);
)";

}  // namespace

// A new catalogue goes the same way as an old one, so that both end with the same tables.
void Catalogue::bring_schema_up_to_date(int64_t version) {
    if (version == 0) run(schema);
    run(to_version_2);
    std::vector<int64_t> old;
    {
        Statement rows(database_, "SELECT id FROM snapshot");
        while (rows.step()) old.push_back(rows.integer());
    }
    for (const int64_t id : old) {
        Statement(database_, "UPDATE snapshot SET uuid = ?, host = ? WHERE id = ?")
            .bind(random_uuid())
            .bind(short_host_name())
            .bind(id)
            .step();
    }
    {
        // Nothing but the texts knew of volumes.
        Statement rows(database_, "SELECT snapshot, number, text FROM object");
        while (rows.step()) {
            const int64_t id = rows.integer();
            const int64_t number = rows.integer();
            const CheckpointText text(rows.text());
            if (!text.is_volume()) continue;
            Statement(database_,
                      "UPDATE object SET vol_group = ?, vol_name = ? WHERE snapshot = ? AND "
                      "number = ?")
                .bind(text.value("HDEF-vol_group"))
                .bind(text.value("HDEF-vol_name"))
                .bind(id)
                .bind(number)
                .step();
        }
    }
    run(("PRAGMA user_version = " + std::to_string(schema_version)).c_str());
}

void Catalogue::prepare_schema() {
    run("PRAGMA synchronous = FULL");
    Transaction whole(*this);
    int64_t version = 0;
    {
        Statement statement(database_, "PRAGMA user_version");
        if (statement.step()) version = statement.integer();
    }
    if (version > schema_version) {
        throw Failure(Step::catalogue, ExitCode::failed,
                      "the catalogue has version " + std::to_string(version) +
                          "; this fimctl knows version " + std::to_string(schema_version));
    }
    if (version < schema_version) bring_schema_up_to_date(version);
    whole.commit();
}

}  // namespace fimctl
