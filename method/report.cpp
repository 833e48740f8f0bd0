#include "method/report.h"

#include "method/log.h"

namespace tf {
namespace {

// Where messages go when the framework gave no buffer: they still reach the log.
char spare_errmsg[TF_MESSAGE_SIZE];
char spare_logmsg[TF_MESSAGE_SIZE];

}  // namespace

MessageBuffers message_buffers() {
    return {mth_errmsg != nullptr ? mth_errmsg : spare_errmsg,
            mth_logmsg != nullptr ? mth_logmsg : spare_logmsg};
}

void set_error_number(ErrorNumber number) {
    if (emc_tf_errnop != nullptr) *emc_tf_errnop = static_cast<int32_t>(number);
}

void log_current_message() {
    if (logging(progress_level)) emc_tf__log(message_buffers().errmsg);
}

}  // namespace tf
