// Unsolicited event thread: reads the switch's unsolicited socket and, when
// the registration moves into or out of the registered states and a client
// has subscribed, signals the dispatcher with "+UNSOL:1".
//
// unsol_atsw_fd is this thread's alone. It writes its signal to
// at_unsol_sockfd[1], which the command server thread writes too, one text a
// write, and reads the client table's flags and last_event_num without a lock
// (relaxed; see gateway/at_queue.h and embms/lte_reg_thread.h).
#pragma once

#include <cstddef>

// The thread's own connection to the switch's unsolicited socket: set once by
// the thread at its start (0 until then), never closed, used by nobody else.
extern int unsol_atsw_fd;

void* zorUnsol_ThreadMain(void* arg);

// Reads one byte at a time up to and including a LF or CR, at most size
// bytes. The count stored, or -1 at end of stream or on an error.
int zorUnsol_ReadLine(int fd, char* buf, size_t size);

// 1 when a client in slots 0..9 has asked for unsolicited reports, else 0.
// Reads the flags without the table's lock; the dispatcher calls it too.
int get_unsolenable();

// A line that reports the registration: it holds "CREG:", "CEREG:" or
// "CGREG:" in any case.
bool is_registration_report(const char* line);
