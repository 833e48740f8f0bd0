// Loading the array library behind its version gate, and the one session that all calls use.
#pragma once

#include <cstdint>

// Handle of the open session, -1 when none is open.
extern int32_t sH;
// 1 once the library was loaded and its version accepted.
extern int32_t emc_tf_DSO_open;
// Upper 16 bits of the library's version number (0x0500 is 5.0); 0 until a library was asked. A
// rejected library's number stays.
extern int32_t emc_tf_SymVersion;

// Loads and checks the library: 0, or 11 after a report.
int32_t emc_tf__SymLink(const char *path, uint32_t mask);
// Opens a session: 0 with the handle stored, 1 when the library is not loaded and may not be (link
// 0) or cannot be, 11 after a report.
int32_t emc_tf__SymInit(const char *db_file, int32_t *session, int32_t mode_index, int32_t link);
// Brings library and session up for the first operation of the process: 0, or 11 after a report.
int32_t init_tflib();

namespace tf {

// Ends the session: 0, or 11 after a report in the name of the calling entry point. Logs "Waiting
// for SymExit..." (trace) before, so callers do not. Ended or not, the session counts as ended: sH
// is -1 afterwards.
int32_t end_session(const char *reporter);

}  // namespace tf
