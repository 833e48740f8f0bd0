#include "fim_config/qfm_fim_config.h"

#include <climits>
#include <cstdarg>
#include <cstring>

#include "fim_config/parse_table.h"
#include "tessera_host.h"

namespace fcp {

char message[2048];

namespace {

qfm_fcp_log_function log_sink = nullptr;
int32_t log_level = -1;
bool banner_written = false;

// Where a failed allocation is said to have happened. Support staff looks these numbers up, so
// they do not move with the code.
constexpr int place_table = 694;
constexpr int place_entry = 817;
constexpr int place_keyword = 818;

bool logs_at(int32_t level) {
    return log_sink != nullptr && log_level >= level;
}

}  // namespace

bool logs_details = false;

void report(const char *format, ...) {
    va_list args;
    va_start(args, format);
    Q_vsnprintf(message, sizeof message, format, args);
    va_end(args);
    if (logs_at(message_level)) log_sink(message);
}

void trace(const char *format, ...) {
    if (!logs_details) return;
    va_list args;
    va_start(args, format);
    Q_vsnprintf(message, sizeof message, format, args);
    va_end(args);
    log_sink(message);
}

void report_no_memory(const char *function, int place) {
    report("%s: malloc() failure at ../qfm_fim_config.%d", function, place);
}

namespace {

// The refusal of an entry: its status, after its message, or 0.
int32_t check_entry(const qfm_fcp_table *table, int32_t type, const char *keyword, int64_t min,
                    int64_t max) {
    constexpr char name[] = "qfm_fcp_entry_new";
    if (keyword == nullptr) {
        report("%s: No keyword was specified for parse table entry", name);
        return QFM_FCP_NO_KEYWORD;
    }
    if (table == nullptr) {
        report("%s: No table pointer was specified for keyword %s", name, keyword);
        return QFM_FCP_NO_TABLE;
    }
    if (table->magic != magic) {
        report("%s: Invalid parse table was specified for keyword %s; expected %x, got %x", name,
               keyword, magic, table->magic);
        return QFM_FCP_WRONG_MAGIC;
    }
    if (type < type_string || type > type_long) {
        report("%s: Unsupported data type (%d) for keyword %s", name, type, keyword);
        return QFM_FCP_BAD_TYPE;
    }
    if (min > max) {
        report("%s: Minimum (%ld) greater than maximum (%ld) for keyword %s", name, min, max,
               keyword);
        return QFM_FCP_BAD_RANGE;
    }
    return 0;
}

void append(qfm_fcp_table *table, qfm_fcp_entry *entry) {
    if (table->last != nullptr) {
        table->last->next = entry;
    } else {
        table->first = entry;
    }
    table->last = entry;
}

void free_entries(qfm_fcp_entry *entry) {
    while (entry != nullptr) {
        qfm_fcp_entry *next = entry->next;
        free(entry->keyword);
        free(entry);
        entry = next;
    }
}

}  // namespace
}  // namespace fcp

void qfm_fcp_set_logf(qfm_fcp_log_function sink, int32_t level) {
    fcp::log_sink = sink;
    fcp::log_level = level;
    fcp::logs_details = fcp::logs_at(fcp::detail_level);
    if (fcp::logs_at(fcp::message_level) && !fcp::banner_written) {
        // The leading p has always been part of this line; log filters match on it.
        sink("pQfMS FIM config string parser $Revision$");
        fcp::banner_written = true;
    }
}

qfm_fcp_table *qfm_fcp_table_new(int32_t *status) {
    *status = 0;
    auto *table = static_cast<qfm_fcp_table *>(calloc(1, sizeof(qfm_fcp_table)));
    if (table == nullptr) {
        fcp::report_no_memory(__func__, fcp::place_table);
        *status = QFM_FCP_NO_MEMORY;
        return nullptr;
    }
    table->magic = fcp::magic;
    return table;
}

int32_t qfm_fcp_table_delete(qfm_fcp_table *table) {
    if (table == nullptr) {
        fcp::report("%s: No table pointer was specified", __func__);
        return QFM_FCP_NO_TABLE;
    }
    if (table->magic != fcp::magic) {
        fcp::report("%s: Invalid parse table was specified; expected %x, got %x", __func__,
                    fcp::magic, table->magic);
        return QFM_FCP_WRONG_MAGIC;
    }
    // Volatile: as a plain store into memory that is freed next, an optimiser would drop it, and a
    // caller that still holds the pointer would no longer be refused.
    *const_cast<volatile uint32_t *>(&table->magic) = 0;
    fcp::free_entries(table->first);
    free(table);
    return 0;
}

qfm_fcp_entry *qfm_fcp_entry_new(qfm_fcp_table *table, int32_t *status, int32_t type,
                                 const char *keyword, void *target, int64_t min, int64_t max,
                                 int32_t *flag) {
    if (*status != 0) return nullptr;
    fcp::trace("%s: Adding entry for keyword %s", __func__, fcp::shown(keyword));
    *status = fcp::check_entry(table, type, keyword, min, max);
    if (*status != 0) return nullptr;

    // No memory leaves the status at 0: callers add all their entries and look at the status once,
    // and a keyword that could not be entered has never stopped them. Only the null result tells.
    std::unique_ptr<qfm_fcp_entry, fcp::Free> entry(
        static_cast<qfm_fcp_entry *>(calloc(1, sizeof(qfm_fcp_entry))));
    if (entry == nullptr) {
        fcp::report_no_memory(__func__, fcp::place_entry);
        return nullptr;
    }
    entry->keyword = strdup(keyword);
    if (entry->keyword == nullptr) {
        fcp::report_no_memory(__func__, fcp::place_keyword);
        return nullptr;
    }
    entry->target = target;
    entry->type = type;
    entry->min = min;
    entry->max = max;
    entry->flag = flag;
    fcp::append(table, entry.get());
    return entry.release();
}

qfm_fcp_entry *qfm_fcp_string_new(qfm_fcp_table *table, int32_t *status, const char *keyword,
                                  char **target) {
    return qfm_fcp_string_flag_new(table, status, keyword, target, nullptr);
}

qfm_fcp_entry *qfm_fcp_string_flag_new(qfm_fcp_table *table, int32_t *status, const char *keyword,
                                       char **target, int32_t *flag) {
    return qfm_fcp_entry_new(table, status, fcp::type_string, keyword, target, 0, 0, flag);
}

qfm_fcp_entry *qfm_fcp_int_new(qfm_fcp_table *table, int32_t *status, const char *keyword,
                               int32_t *target) {
    return qfm_fcp_int_flag_new(table, status, keyword, target, nullptr);
}

qfm_fcp_entry *qfm_fcp_int_flag_new(qfm_fcp_table *table, int32_t *status, const char *keyword,
                                    int32_t *target, int32_t *flag) {
    return qfm_fcp_int_range_flag_new(table, status, keyword, target, INT32_MIN, INT32_MAX, flag);
}

qfm_fcp_entry *qfm_fcp_int_range_new(qfm_fcp_table *table, int32_t *status, const char *keyword,
                                     int32_t *target, int32_t min, int32_t max) {
    return qfm_fcp_int_range_flag_new(table, status, keyword, target, min, max, nullptr);
}

qfm_fcp_entry *qfm_fcp_int_range_flag_new(qfm_fcp_table *table, int32_t *status,
                                          const char *keyword, int32_t *target, int32_t min,
                                          int32_t max, int32_t *flag) {
    return qfm_fcp_entry_new(table, status, fcp::type_int, keyword, target, min, max, flag);
}

qfm_fcp_entry *qfm_fcp_long_new(qfm_fcp_table *table, int32_t *status, const char *keyword,
                                int64_t *target) {
    return qfm_fcp_long_flag_new(table, status, keyword, target, nullptr);
}

qfm_fcp_entry *qfm_fcp_long_flag_new(qfm_fcp_table *table, int32_t *status, const char *keyword,
                                     int64_t *target, int32_t *flag) {
    return qfm_fcp_long_range_flag_new(table, status, keyword, target, INT64_MIN, INT64_MAX, flag);
}

qfm_fcp_entry *qfm_fcp_long_range_new(qfm_fcp_table *table, int32_t *status, const char *keyword,
                                      int64_t *target, int64_t min, int64_t max) {
    return qfm_fcp_long_range_flag_new(table, status, keyword, target, min, max, nullptr);
}

qfm_fcp_entry *qfm_fcp_long_range_flag_new(qfm_fcp_table *table, int32_t *status,
                                           const char *keyword, int64_t *target, int64_t min,
                                           int64_t max, int32_t *flag) {
    return qfm_fcp_entry_new(table, status, fcp::type_long, keyword, target, min, max, flag);
}
