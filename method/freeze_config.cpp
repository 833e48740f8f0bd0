// The configuration string of a freeze: its keywords, and the import decision that depends on one.
#include "fim_config/qfm_fim_config.h"
#include "method/freeze.h"
#include "method/log.h"
#include "method/paths.h"
#include "method/report.h"

namespace {

char default_plexname[] = "DEFAULT";

}  // namespace

char *g_plexname = default_plexname;

namespace tf {
namespace {

// The plex name that came from a configuration string; null while the default holds.
HeapOwner<char> configured_plexname;

// A value given in one freeze stays for the later ones; a new one replaces it.
void set_plexname(HeapOwner<char> &name) {
    if (!name) return;
    configured_plexname.reset(name.release());
    g_plexname = configured_plexname.get();
}

class ParseTable {
  public:
    explicit ParseTable(int32_t *status) : table_(qfm_fcp_table_new(status)) {}
    ~ParseTable() {
        if (table_ != nullptr) qfm_fcp_table_delete(table_);
    }
    ParseTable(const ParseTable &) = delete;
    ParseTable &operator=(const ParseTable &) = delete;

    qfm_fcp_table *get() const { return table_; }

  private:
    qfm_fcp_table *table_;
};

// Every keyword, with its range and where its value goes. "keep_fi" sets max_snapshots, as it
// always has: the record's own keep_fi would switch the disk-group import on and is written into
// checkpoints, which configurations in use today do not expect.
bool add_keywords(qfm_fcp_table *table, int32_t *status, Freeze &f, char **plexname) {
    hdef &h = *f.h;
    return qfm_fcp_int_range_new(table, status, "async_resync", &h.async_resync, 0, 1) &&
           qfm_fcp_int_range_new(table, status, "sync_at_start", &h.sync_at_start, 0, 2) &&
           qfm_fcp_string_new(table, status, "alternate_backup_client", f.alternate_client.out()) &&
           qfm_fcp_int_new(table, status, "backup_copy", &h.backup_copy) &&
           qfm_fcp_string_new(table, status, "plexname", plexname) &&
           qfm_fcp_int_range_new(table, status, "max_snapshots", &h.max_snapshots, 0, INT32_MAX) &&
           qfm_fcp_int_range_new(table, status, "keep_fi", &h.max_snapshots, 0, 1);
}

bool host_entry_exists(const char *key) {
    char value[TF_PATH_SIZE] = "";
    return read_AD_HOC_config_entry(path::product_root, key, value, sizeof value) == 0;
}

// Whether the host's configuration has the entry for everybody or the one for this client.
bool host_entry_exists(const char *key, const char *client) {
    // A configuration string holds at most 1024 characters, so the client's name always fits.
    char client_key[config_limit + 64] = "";
    put_format(client_key, "%s_%s", key, client);
    return host_entry_exists(key) || host_entry_exists(client_key);
}

}  // namespace

int32_t read_config(Freeze &f) {
    if (f.config == nullptr) return success;
    log_trace("config =%s", f.config);
    int32_t status = 0;
    HeapOwner<char> plexname;
    const ParseTable table(&status);
    if (table.get() == nullptr || !add_keywords(table.get(), &status, f, plexname.out())) {
        return fail(ErrorNumber::memory, msg::config_parse, freeze_reporter, status, f.config);
    }
    status = qfm_fcp_parse(f.config, nullptr, table.get());
    // Pairs before a failing one have been read, and count.
    set_plexname(plexname);
    if (status != 0) {
        return fail(ErrorNumber::parameter, msg::config_parse, freeze_reporter, status, f.config);
    }
    return success;
}

int32_t decide_import(Freeze &f) {
    const char *const client = f.alternate_client.get();
    if (client != nullptr && qnet_is_local_host(client) == 0) {
        if (f.h->keep_fi != 0 || host_entry_exists("dgimport", client)) f.h->dgimport = 1;
        if (host_entry_exists("no_dgimport", client)) f.h->dgimport = 0;
    }
    log_trace("hdefp->dgimport = %d", f.h->dgimport);
    return success;
}

}  // namespace tf
