// The process-wide state that the set-up entry points establish. One copy per loaded library, read
// by the whole method; none of it is locked, since the framework calls from one thread at a time.
#pragma once

#include <cstdint>

#include "timefinder.h"

// Where failures go; set by TimeFinder_init, owned by the framework. Any of the three may be null.
extern int32_t *emc_tf_errnop;
extern char *mth_errmsg;  // text in the messages locale, TF_MESSAGE_SIZE bytes
extern char *mth_logmsg;  // the same text in the logging locale

// Locales of the two buffers; "C" until TimeFinder_set_locale.
extern char mth_lc_messages[256];
extern char mth_lc_logging[256];

// The log sink and its level; null until TimeFinder_set_logf.
extern tf_log_function logf_p;
extern int32_t log_level;
// 1 once the version line has been tried, so that it appears at most once per process.
extern int32_t version_logged;

// 1 once a freeze or a rebuild has tried to bring the array library up; only the first one tries.
extern int32_t resolve_symapi;
// Freeze calls of this process that got past the array library.
extern int32_t emc_clients;
// Objects whose array session is still needed: raised by freeze, lowered by freeze commit, which
// ends the session when it reaches 0. While it is not 0 no further session is started.
extern int32_t client_count;
// Objects frozen or rebuilt in this process; thaw commit waits for as many calls.
extern int32_t total_freeze_volumes;
