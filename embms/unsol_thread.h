// Unsolicited event thread: reads the switch's unsolicited socket and, when
// the registration moves into or out of the registered states and a client
// has subscribed, signals the dispatcher with "+UNSOL:1".
#pragma once

#include <cstddef>

extern int unsol_atsw_fd;

void* zorUnsol_ThreadMain(void* arg);

// Reads one byte at a time up to and including a LF or CR, at most size
// bytes. The count stored, or -1 at end of stream or on an error.
int zorUnsol_ReadLine(int fd, char* buf, size_t size);

// 1 when a client in slots 0..9 has asked for unsolicited reports, else 0.
int get_unsolenable();

// A line that reports the registration: it holds "CREG:", "CEREG:" or
// "CGREG:" in any case.
bool is_registration_report(const char* line);
