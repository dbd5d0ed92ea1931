// Daemon mode and the handler that logs why the process ends and ends it.
//
// signal_handler runs on whichever thread the signal lands on: it writes the
// signal's number to a pipe (and parks a thread that faulted). The exit
// thread that setup_signals starts, from main() before the other threads,
// reads it, writes the last log entry and ends the process; only when that
// thread could not be started does the handler end the process itself. Their
// state (the pipe, the thread, the flag that the end has begun) is private
// to signals.cpp.
#pragma once

// daemon(0, 0), then umask(0) in every case. Returns the result of daemon.
int daemonize(const char* program_name);

// Installs signal_handler for SIGINT, SIGSEGV, SIGABRT, SIGQUIT and SIGTERM,
// in that order. Returns 0, or -1 at the first failure.
int setup_signals();

// Ends the process with status 0 after the entry naming the signal.
void signal_handler(int signal_number);
