// Daemon mode and the handler that logs why the process ends and ends it.
#pragma once

// daemon(0, 0), then umask(0) in every case. Returns the result of daemon.
int daemonize(const char* program_name);

// Installs signal_handler for SIGINT, SIGSEGV, SIGABRT, SIGQUIT and SIGTERM,
// in that order. Returns 0, or -1 at the first failure.
int setup_signals();

// Ends the process with status 0 after the entry naming the signal.
void signal_handler(int signal_number);
