// The configuration-string parser of frozen image methods: keyword tables and the parser of
// comma-separated keyword=value strings.
//
// A caller builds a table with one entry per keyword it accepts and parses a string against it:
//
//     int32_t status, resync = 0;
//     qfm_fcp_table *table = qfm_fcp_table_new(&status);
//     qfm_fcp_int_range_new(table, &status, "async_resync", &resync, 0, 1);
//     if (status == 0) status = qfm_fcp_parse("async_resync=1", NULL, table);
//     qfm_fcp_table_delete(table);
//
// The module has its own log sink and its own status codes. Not re-entrant: one sink and one
// message buffer serve the whole module.
#ifndef TIMEFINDER_FIM_CONFIG_QFM_FIM_CONFIG_H
#define TIMEFINDER_FIM_CONFIG_QFM_FIM_CONFIG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

// Status codes of tables and of the parser; 0 is success.
enum {
    QFM_FCP_NO_MEMORY = 1,
    QFM_FCP_STANDALONE_KEYWORD = 2,  // a pair without "=" where that is not allowed
    QFM_FCP_EMPTY_PAIR = 3,          // nothing between two commas where that is not allowed
    QFM_FCP_NOT_A_NUMBER = 4,
    QFM_FCP_BAD_CONTEXT = 5,      // internal state is missing, or an entry's type is unknown
    QFM_FCP_EMPTY_VALUE = 6,      // a keyword without a value where that is not allowed
    QFM_FCP_UNKNOWN_KEYWORD = 7,  // where unknown keywords are rejected
    QFM_FCP_OUT_OF_RANGE = 8,
    QFM_FCP_BAD_TYPE = 9,
    QFM_FCP_NO_KEYWORD = 10,  // an entry without a keyword, or a pair with nothing before "="
    QFM_FCP_BAD_RANGE = 11,   // an entry whose minimum is above its maximum
    QFM_FCP_NO_TABLE = 12,
    QFM_FCP_WRONG_MAGIC = 13  // the table was deleted, or never was one
};

typedef void (*qfm_fcp_log_function)(const char *line);
typedef struct qfm_fcp_table qfm_fcp_table;
typedef struct qfm_fcp_entry qfm_fcp_entry;

// How a string is read. A null record stands for the defaults {0, 1, 0, 0, 0, 0}.
typedef struct qfm_fcp_options {
    int32_t allow_empty_pairs;         // runs of commas are skipped
    int32_t allow_empty_value;         // a keyword may have an empty value, or none
    int32_t allow_standalone_keyword;  // a pair without "=" is a keyword without a value
    int32_t trim_blanks;               // white space around pairs, keywords and values is cut
    int32_t reject_unknown_keywords;   // otherwise they are ignored
    int32_t case_sensitive_keywords;
} qfm_fcp_options;

// Sets the module's log sink (null for none) and level: below 1 nothing is logged, at 1 and above
// the module's banner (once per process) and its messages, at 5 and above its details. A line is
// cut to 2047 characters and lives only until the sink returns.
void qfm_fcp_set_logf(qfm_fcp_log_function sink, int32_t level);

// A new table without entries, to be given back with qfm_fcp_table_delete; null with *status 1 when
// there was no memory. Sets *status (never a null pointer) to 0 first; it is the only function here
// that resets it.
qfm_fcp_table *qfm_fcp_table_new(int32_t *status);
// Frees a table with its entries: 0, QFM_FCP_NO_TABLE for a null table, QFM_FCP_WRONG_MAGIC for one
// that is none. Targets, flags and the texts that a parse stored stay with the caller.
int32_t qfm_fcp_table_delete(qfm_fcp_table *table);

// Each adds a keyword (copied) to the table and returns its entry, which the table owns, or null
// with *status set: QFM_FCP_NO_KEYWORD, QFM_FCP_NO_TABLE, QFM_FCP_WRONG_MAGIC or QFM_FCP_BAD_RANGE.
// While *status is not 0 they do nothing, so a caller may add all keywords and look at the status
// once. A null result with *status 0 means that there was no memory.
// The target must outlive the table's last parse. It receives the value: for strings a new text
// from malloc that the caller frees (what stood there before is not freed), for int 32 bits, for
// long 64 bits. min and max are both allowed values. A flag (null for none) is raised by one each
// time the keyword is found, also when its value is then refused; the caller clears it first.
// Keywords are matched in the order in which they were added; the first match counts.
qfm_fcp_entry *qfm_fcp_string_new(qfm_fcp_table *table, int32_t *status, const char *keyword,
                                  char **target);
qfm_fcp_entry *qfm_fcp_string_flag_new(qfm_fcp_table *table, int32_t *status, const char *keyword,
                                       char **target, int32_t *flag);
qfm_fcp_entry *qfm_fcp_int_new(qfm_fcp_table *table, int32_t *status, const char *keyword,
                               int32_t *target);
qfm_fcp_entry *qfm_fcp_int_flag_new(qfm_fcp_table *table, int32_t *status, const char *keyword,
                                    int32_t *target, int32_t *flag);
qfm_fcp_entry *qfm_fcp_int_range_new(qfm_fcp_table *table, int32_t *status, const char *keyword,
                                     int32_t *target, int32_t min, int32_t max);
qfm_fcp_entry *qfm_fcp_int_range_flag_new(qfm_fcp_table *table, int32_t *status,
                                          const char *keyword, int32_t *target, int32_t min,
                                          int32_t max, int32_t *flag);
qfm_fcp_entry *qfm_fcp_long_new(qfm_fcp_table *table, int32_t *status, const char *keyword,
                                int64_t *target);
qfm_fcp_entry *qfm_fcp_long_flag_new(qfm_fcp_table *table, int32_t *status, const char *keyword,
                                     int64_t *target, int32_t *flag);
qfm_fcp_entry *qfm_fcp_long_range_new(qfm_fcp_table *table, int32_t *status, const char *keyword,
                                      int64_t *target, int64_t min, int64_t max);
qfm_fcp_entry *qfm_fcp_long_range_flag_new(qfm_fcp_table *table, int32_t *status,
                                           const char *keyword, int64_t *target, int64_t min,
                                           int64_t max, int32_t *flag);

// Reads text (null is the empty text) against the table and stores the values found. options may be
// null for the defaults. Returns 0, or the status of the first failing pair (QFM_FCP_NO_MEMORY to
// QFM_FCP_OUT_OF_RANGE, QFM_FCP_NO_KEYWORD) or of the table (QFM_FCP_NO_TABLE,
// QFM_FCP_WRONG_MAGIC); what earlier pairs stored stays stored. Numbers are decimal; an empty value
// is 0. A number outside its range is QFM_FCP_OUT_OF_RANGE without a message of its own, except
// that "max_snapshots=0" is always accepted. Of a string keyword that is given twice the last value
// stays.
int32_t qfm_fcp_parse(const char *text, const qfm_fcp_options *options, qfm_fcp_table *table);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
