// The command server thread: takes the dispatcher's one connection on its
// Unix socket and parses the commands that arrive on it for good.
// It sets up the switch link and the output socket (atsw_link.h,
// result_writers.h) before parsing; echo_enabled is its alone.
#pragma once

extern int echo_enabled;  // stored by zorSrv_HandleEcho; the scanner echoes regardless

// Thread body; arg is the daemon's table of socket paths, of which the first
// is the command server's own.
void* zorSrv_ThreadMain(void* arg);
// Binds, listens, accepts one connection and closes the listening socket
// again. The accepted descriptor, or -1. Ends the process when the socket
// cannot be made, bound or listened on.
int zorSrv_OpenServerSocket(const char* path);

// No command reaches these two.
int zorSrv_HandleEcho(int on);
int zorSrv_HandleOk();
