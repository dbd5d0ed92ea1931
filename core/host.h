// Development-host seams. ZORD_ROOT puts every fixed path of the daemon under
// a directory, ZORD_PORT moves the client port; both are read once, at first
// use. Unset, the daemon uses the router's own paths and port 6666.
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
