// The daemon's one log file: entry format, time text, severity gate and the
// hex dump of AT messages. Every thread writes to it.
//
// Any thread may write entries (ZLOG_*, LOG_AT_MSG): each goes out whole
// under the log's lock, private to log.cpp, which also guards the time text's
// buffer and the entries kept before the log is open. logfile is set once, by
// log_open in main() before any thread starts, and never closed; app_env is
// never written: both are read without the lock. A signal handler writes no
// entry (the signal may land in the thread that holds the lock): it hands the
// signal to the exit thread of core/signals.h (with no such thread, it ends
// the process itself the same way), and only that path, with
// log_close_for_exit and log_entry_locked, writes the last entry.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

// Open for append by main() and never closed. Null until then (see log_open).
extern FILE* logfile;
// Severity gate: error entries need >= 0, informational ones >= 1. Fixed at 1;
// nothing changes it, but every site still compares against it.
extern int32_t app_env;

// Entry writers. Use the ZLOG_ macros so the gate stays at the call site.
void log_entry(bool error, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
#define ZLOG_ERROR(...)                             \
  do {                                              \
    if (app_env >= 0) log_entry(true, __VA_ARGS__); \
  } while (0)
#define ZLOG_INFO(...)                               \
  do {                                               \
    if (app_env >= 1) log_entry(false, __VA_ARGS__); \
  } while (0)

// Opens the log for appending. Entries made before the log is open are kept
// (up to LOG_PENDING_SIZE bytes) and written at its head; if it cannot be
// opened, entries are dropped and the process goes on.
constexpr size_t LOG_PENDING_SIZE = 4096;
FILE* log_open(const char* path);

// Time text of now, "HH:MM:SS.mmm" (".1000" when the milliseconds round up to
// a full second: the second is not carried). One static buffer, overwritten
// by every call: only under the log's lock, or on the exit path once the
// lock's holder has not let go in time.
const char* __current_time();
// The same text for a given time, into out.
void format_time_text(const timeval& tv, char* out, size_t size);

// Hex and character dump of an AT message, 16 bytes a line.
int LOG_AT_MSG(int32_t level, int32_t length, const void* data);

// For the signal path only: close the log to new entries and take the entry
// lock, waiting at most timeout_ms. A holder that never lets go (a thread
// stopped by a fault in the middle of an entry) must not keep the process
// from ending.
bool log_close_for_exit(int timeout_ms);
// Writes one entry while the caller holds the lock: the exit path, after
// log_close_for_exit.
void log_entry_locked(bool error, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
