#include "method/interface.h"

#include <cstring>

#include "fim_config/qfm_fim_config.h"
#include "method/log.h"
#include "method/text.h"

int32_t *emc_tf_errnop;
char *mth_errmsg;
char *mth_logmsg;
char mth_lc_messages[256] = "C";
char mth_lc_logging[256] = "C";
tf_log_function logf_p;
int32_t log_level;
int32_t version_logged;
int32_t resolve_symapi;
int32_t emc_clients;
int32_t client_count;
int32_t total_freeze_volumes;

namespace {

// The framework's method-description record is its own; the method knows three 32-bit fields of it.
struct DescriptionField {
    size_t offset;
    int32_t value;
};
constexpr DescriptionField description_fields[] = {{0, 44}, {32, 1}, {36, 0}};

constexpr char version_line[] = "TimeFinder FIM $Revision$";

// A caller may pass a buffer back unchanged; that must not become a copy onto itself.
void store_locale(char (&buffer)[256], const char *name) {
    if (name != buffer) tf::put(buffer, name != nullptr ? name : "C");
}

// The sink may write into its line while it runs, so the line is a private copy. A failed
// allocation costs the line: the flag is set all the same, and the line is never tried again.
void log_version_once() {
    if (version_logged != 0) return;
    version_logged = 1;
    tf::HeapOwner<char> line(static_cast<char *>(malloc(sizeof version_line)));
    if (!line) return;
    memcpy(line.get(), version_line, sizeof version_line);
    emc_tf__log(line.get());
}

}  // namespace

int32_t TimeFinder_init(int32_t *errnop, char *logmsg_buffer, char *errmsg_buffer) {
    emc_tf_errnop = errnop;
    mth_logmsg = logmsg_buffer;
    mth_errmsg = errmsg_buffer;
    return 0;
}

int32_t TimeFinder_query(void *method_description) {
    if (method_description == nullptr) return 0;
    for (const DescriptionField &field : description_fields) {
        memcpy(static_cast<char *>(method_description) + field.offset, &field.value,
               sizeof field.value);
    }
    return 0;
}

int32_t TimeFinder_set_locale(const char *messages_locale, const char *logging_locale) {
    store_locale(mth_lc_messages, messages_locale);
    store_locale(mth_lc_logging, logging_locale);
    return 0;
}

int32_t TimeFinder_set_logf(tf_log_function sink, int32_t level) {
    logf_p = sink;
    log_level = level;
    if (tf::logging(tf::progress_level)) log_version_once();
    qfm_fcp_set_logf(sink, level);
    return 0;
}
