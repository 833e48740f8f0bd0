// Running host commands with their output captured.
#pragma once

#include <cstdint>

#include "include/records.h"
#include "tessera_host.h"

// Formats a command line, runs it through the shell with standard input from the null device and
// its output in the record's two capture files, and returns 0 when it exited with status 0.
// Otherwise it reports, dumps both files into the log and returns 11. Only the exit status byte
// counts: a command that a signal ended is a success.
int32_t do_cmd(const hdef *h, const char *format, ...) __attribute__((format(printf, 2, 3)));
// Writes a text file into the log between a header and a trailer line, whatever the level.
void emc_tf__log_dump_file(const char *path, const char *label);
