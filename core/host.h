// Development-host seams. ZORD_ROOT puts every fixed path of the daemon under
// a directory, ZORD_PORT moves the client port; both are read once, at first
// use. Unset, the daemon uses the router's own paths and port 6666.
// Threads: the first use reads them under pthread_once, from whichever thread
// comes first, and they never change after, so any thread reads them without
// a lock. set_foreground is for main(), before any thread starts.
#pragma once

#include <cstddef>

constexpr int ZORD_DEFAULT_PORT = 6666;
// The AT switch path is built in 64 bytes and a Unix socket path holds 107
// characters: the root must leave room for both.
constexpr size_t ZORD_ROOT_MAX = 40;

// The root directory, "" when unset.
const char* zord_root();
// The client TCP port.
int zord_port();
// Writes root + fixed_path into out; false (and out empty) when it does not fit.
bool rooted_path(char* out, size_t size, const char* fixed_path);
// A message naming the bad variable when ZORD_ROOT or ZORD_PORT cannot be
// used, else nullptr.
const char* host_seams_error();

// What a person starting the daemon by hand should hear about (a client port
// it could not bind, a log it could not open): one line on standard error
// while the daemon runs in the foreground; never in the log, never on the
// wire, and nothing once it runs as a daemon.
void set_foreground(bool foreground);
void foreground_warning(const char* format, ...) __attribute__((format(printf, 1, 2)));

// For a root set by ZORD_ROOT: the directory under it that the daemon needs
// and that is missing ("" when all is there), written into out.
bool missing_root_directory(char* out, size_t size);
