// The two temporary files that hold the output of an object's commands, and the options of the
// host's file-system commands that write into them.
#pragma once

#include <cstdio>

#include "include/records.h"
#include "method/private_file.h"
#include "tessera_host.h"

namespace tf {

// A fresh temporary name from tempnam with that prefix, in memory from malloc; null when there is
// none. No file is made.
char *temporary_name(const char *prefix);

// Gives the record its two capture files: fresh names with the prefix "QfMS", each created
// exclusively. A name that cannot be had stays null.
void make_capture_files(hdef *h);
// Removes both files when both names are set; the names stay. A regular file goes whoever owns it;
// what is no file, which somebody else put in the place of one, is left alone.
void remove_capture_files(const hdef *h);

// The name of a capture file as a command line or a dump takes it: the null device where the record
// has none.
const char *capture_name(const char *path);
// Whether a command may write into this capture file: a regular file of the effective user with one
// name. A file that is missing is made again first.
bool capture_file_ready(const char *path);
// Opens a file for reading; a link in its place is not followed and a pipe is not waited for. Null
// with errno set when it cannot be opened.
FILE *open_for_reading(const char *path);

// The execution options of one host command whose output goes into the record's capture files. The
// files are truncated when they are opened, so a dump shows this command's output alone; one that
// cannot be opened is -1, and the command runs all the same. Closed at the end of the scope.
class CapturedOutput {
  public:
    explicit CapturedOutput(const hdef *h);
    ~CapturedOutput();
    CapturedOutput(const CapturedOutput &) = delete;
    CapturedOutput &operator=(const CapturedOutput &) = delete;

    Q_sys_cmd_exec_options *options() { return &options_; }
    int exit_status() const { return options_.exit_status; }
    // Dumps both files into the log with the labels "stdout" and "stderr".
    void dump() const;

  private:
    const hdef *h_;
    Q_sys_cmd_exec_options options_;
};

}  // namespace tf
