// Command-line options: the long-option table, the usage text and the
// settings they fill. Written by main() before any thread starts and never
// after: any thread reads them without a lock.
#pragma once

#include <cstdint>

// Dispatcher wait time-out while a client is connected, in milliseconds.
extern int32_t station_timeout;
// The value of -v / --log_severity. Accepted and deliberately unused: it is
// not the log's gate (app_env).
extern int32_t requested_log_severity;

// The compiler's date and time of this build, shown in the usage text and
// the start-up log entry.
extern const char* const zord_build_date;
extern const char* const zord_build_time;

void print_usage(const char* program_name);

// Reads the options with getopt_long; -h, --help and anything rejected print
// the usage and exit with status 1. Applies the 1500000 ms default.
void parse_options(int argc, char** argv, bool* daemonize_flag);
