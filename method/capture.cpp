#include "method/capture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "method/command.h"
#include "method/descriptor.h"
#include "method/paths.h"

namespace tf {
namespace {

// A descriptor that a command may write into from an empty start, or -1. The names lie in a folder
// where everybody may create files, and what is written there is written with root's rights, so
// somebody else's file, a link or a second name is never written into. The test comes before the
// truncation, so that such a file keeps its contents.
int open_capture_file(const char *path) {
    if (path == nullptr) return -1;
    const int created = create_private(path);
    if (created >= 0 || errno != EEXIST) return created;
    DescriptorOwner file(open_file(path, O_WRONLY | O_NOFOLLOW | O_NONBLOCK));
    struct stat status = {};
    if (!file || fstat(file.get(), &status) != 0 || !is_own_plain_file(status) ||
        ftruncate(file.get(), 0) != 0) {
        return -1;
    }
    return file.release();
}

char *make_capture_file() {
    char *const path = temporary_name("QfMS");
    if (path != nullptr) create_private_file(path);
    return path;
}

}  // namespace

char *temporary_name(const char *prefix) {
    // tempnam is wanted: the names are part of the contract, and every file is created exclusively.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return tempnam(nullptr, prefix);
#pragma GCC diagnostic pop
}

void make_capture_files(hdef *h) {
    h->out_file = make_capture_file();
    h->err_file = make_capture_file();
}

void remove_capture_files(const hdef *h) {
    if (h->out_file == nullptr || h->err_file == nullptr) return;
    remove_private_file(h->out_file);
    remove_private_file(h->err_file);
}

const char *capture_name(const char *path) {
    return path != nullptr ? path : path::null_device;
}

bool capture_file_ready(const char *path) {
    if (path == nullptr) return true;
    struct stat status = {};
    if (lstat(path, &status) == 0) return is_own_plain_file(status);
    return errno == ENOENT && create_private_file(path);
}

FILE *open_for_reading(const char *path) {
    DescriptorOwner file(open_file(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK));
    if (!file) return nullptr;
    FILE *const stream = fdopen(file.get(), "r");
    if (stream != nullptr) file.release();
    return stream;
}

CapturedOutput::CapturedOutput(const hdef *h) : h_(h), options_{} {
    Q_sys_cmd_exec_options_init(&options_);
    options_.out_fd = open_capture_file(h->out_file);
    options_.err_fd = open_capture_file(h->err_file);
}

CapturedOutput::~CapturedOutput() {
    if (options_.out_fd >= 0) close(options_.out_fd);
    if (options_.err_fd >= 0) close(options_.err_fd);
}

void CapturedOutput::dump() const {
    emc_tf__log_dump_file(capture_name(h_->out_file), "stdout");
    emc_tf__log_dump_file(capture_name(h_->err_file), "stderr");
}

}  // namespace tf
