#include "symapi/symapi_session.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cerrno>

#include "method/interface.h"
#include "method/log.h"
#include "method/paths.h"
#include "method/report.h"
#include "symapi/symapi_loader.h"
#include "symapi/symapi_wrappers.h"

using tf::ErrorNumber;
using tf::fail;
namespace msg = tf::msg;

int32_t sH = -1;
int32_t emc_tf_DSO_open;
int32_t emc_tf_SymVersion;

namespace {

// The oldest release that is accepted is 4.2 with a sub-level above this one.
constexpr uint32_t release_4_2 = 0x0402;
constexpr uint32_t last_rejected_sub_level = 153;

// The library is not loaded; the other failures of emc_tf__SymInit are 11.
constexpr int32_t not_loaded = 1;

// Initialisation modes of the array library. The third mode index is the one the method uses.
constexpr int discovery_mode = 4;
constexpr int32_t working_mode_index = 2;
constexpr int32_t init_options_version = 106;

// Not even the owner may search it with this mode. The array software, which runs as root, has
// always met it so on the hosts where the method came first, and checks of such hosts compare it.
constexpr mode_t database_directory_mode = 0644;

struct ApiVersion {
    uint32_t number = 0;
    const char *text = "unknown";

    uint32_t release() const { return number >> 16; }
    uint32_t sub_level() const { return number & 0xffff; }
    bool accepted() const {
        return release() > release_4_2 ||
               (release() == release_4_2 && sub_level() > last_rejected_sub_level);
    }
};

ApiVersion read_version() {
    ApiVersion version;
    if (emc_tf_SymApiVersion(&version.number, &version.text) != 0) return ApiVersion{};
    return version;
}

const char *read_patch() {
    const char *text = nullptr;
    return emc_tf_SymApiPatch(&text) == 0 ? text : "unknown";
}

// Loads the library where that has not been done in this process.
int32_t ensure_loaded() {
    if (emc_tf_DSO_open != 0) return tf::success;
    const int32_t result = emc_tf__SymLink(tf::path::symapi_library, symapi_load_group);
    if (result == tf::success) emc_tf_DSO_open = 1;
    return result;
}

int initialisation_mode(int32_t mode_index) {
    switch (mode_index) {
    case 1:
        return discovery_mode;
    case 2:
        return 3;
    default:
        return 0;
    }
}

// The error text comes from the process's own session handle, which is -1 while none is open, and
// not from the handle that is being opened: only that one is sure to be a handle the library knows.
int32_t report_session(int code) {
    return fail(ErrorNumber::session, msg::session_failed, "emc_tf__SymInit", emc_tf_SymVersion,
                code, emc_tf_SymPerror(sH, code));
}

// The opening of one session.
struct SessionStart {
    const char *db_file;
    int mode;              // of the working session, and of every second try
    uint32_t api_version;  // as the library reported it
    SymInitOptions options = {init_options_version, {}};
    int32_t session = -1;

    int32_t open(int first_mode);
    int32_t make_database_directory() const;
    int32_t prepare_first_use();
};

// Releases that do not take the options refuse the first call; they get a second one without.
int32_t SessionStart::open(int first_mode) {
    if (emc_tf_SymInitV(db_file, first_mode, &session, &options, api_version) == 0) {
        return tf::success;
    }
    const int code = emc_tf_SymInitV(db_file, mode, &session, nullptr, api_version);
    return code == 0 ? tf::success : report_session(code);
}

int32_t SessionStart::make_database_directory() const {
    if (mkdir(tf::path::symapi_database_directory, database_directory_mode) == 0 ||
        errno == EEXIST) {
        return tf::success;
    }
    return fail(ErrorNumber::session, msg::cannot_create_symdb, "emc_tf__SymInit", errno);
}

// Lets the library build its database where the host has none yet.
int32_t SessionStart::prepare_first_use() {
    struct stat status = {};
    if (stat(db_file, &status) == 0) return tf::success;
    if (errno == ENOENT) {
        if (const int32_t result = make_database_directory(); result != 0) return result;
    }
    if (const int32_t result = open(discovery_mode); result != 0) return result;
    if (const int code = emc_tf_SymDiscover(session, 0); code != 0) return report_session(code);
    emc_tf_SymExit(session, 0);
    return tf::success;
}

}  // namespace

int32_t emc_tf__SymLink(const char *path, uint32_t mask) {
    constexpr char reporter[] = "emc_tf__SymLink";
    tf::log_trace("Linking file %s, %d.", path, static_cast<int>(mask));
    if (emc_tf_openSymapiLibrary(path) != 0) {
        return fail(ErrorNumber::operation, msg::cannot_open_library, reporter, path, dlerror());
    }
    // A library that lacks a function is taken all the same; its wrapper answers for it.
    emc_tf_resolveSymapiSymbols(mask);
    const ApiVersion version = read_version();
    tf::log_trace("EMC SYMAPI %s Patch Level %s", version.text, read_patch());
    emc_tf_SymVersion = static_cast<int32_t>(version.release());
    tf::log_progress(emc_tf_SymVersion < tf::symapi_version_5
                         ? "%s: emc_tf_SymVersion = %0X (<0x0500)"
                         : "%s: emc_tf_SymVersion = %0X (>=0x0500)",
                     reporter, version.release());
    if (version.accepted()) return tf::success;
    fail(ErrorNumber::operation, msg::unsupported_version, reporter, version.text);
    emc_tf_closeSymapiLibrary();
    return tf::failure;
}

int32_t emc_tf__SymInit(const char *db_file, int32_t *session, int32_t mode_index, int32_t link) {
    if (emc_tf_DSO_open == 0 && (link == 0 || ensure_loaded() != 0)) return not_loaded;
    const ApiVersion version = read_version();
    tf::log_trace("%s:  SymApiVersion = %0X (%s).", "emc_tf__SymInit", version.number,
                  version.text);
    SessionStart start = {db_file, initialisation_mode(mode_index), version.number};
    if (const int32_t result = start.prepare_first_use(); result != 0) return result;
    if (const int32_t result = start.open(start.mode); result != 0) return result;
    *session = start.session;
    return tf::success;
}

int32_t init_tflib() {
    constexpr char reporter[] = "init_tflib";
    if (emc_clients == 0 && (ensure_loaded() != 0 || emc_tf_SymVersion == 0)) {
        return fail(ErrorNumber::operation, msg::cannot_initialise, reporter);
    }
    if (client_count != 0) return tf::success;
    tf::log_trace("Waiting for SymInit...");
    const int32_t result = emc_tf__SymInit(tf::path::symapi_database, &sH, working_mode_index, 1);
    if (result == 0) return tf::success;
    // The second message for one failure, by design: the first says what went wrong inside, this
    // one what the caller asked for, and its number is the one the framework sees.
    return fail(ErrorNumber::operation, msg::call_failed, reporter, "SymInit", result,
                emc_tf_SymPerror(sH, result));
}

namespace tf {

int32_t end_session(const char *reporter) {
    log_trace("Waiting for SymExit...");
    const int code = emc_tf_SymExit(sH, 0);
    const int32_t result = code == 0 ? success
                                     : fail(ErrorNumber::operation, msg::call_failed, reporter,
                                            "SymExit", code, emc_tf_SymPerror(sH, code));
    sH = -1;
    return result;
}

}  // namespace tf
