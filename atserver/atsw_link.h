// The link to the modem's AT switch: find the socket that serves a role,
// connect to it, send one command and read its answer to the final result.
//
// cmd_atsw_fd is shared without a lock, by design: the command server thread
// connects it once at its start and publishes it (release); the registration
// thread waits for it (acquire), then asks AT+CEREG? over it while the command
// server thread may be using it for a client's command, so their commands and
// answers may cross on that one connection. Each send loads it relaxed; it is
// never closed. cmd_atsw_path is the command server thread's: set by it to its
// own buffer before the connect, read by no other thread. The functions keep
// no state: any thread may call them with buffers of its own.
#pragma once

#include <cstddef>

constexpr size_t ATSW_PATH_SIZE = 64;
constexpr size_t ATSW_TEXT_SIZE = 2048;

extern char* cmd_atsw_path;  // the command connection's path (the command server's buffer)
extern int cmd_atsw_fd;      // the command connection; 0 until connect() ends, -1: no socket

// Writes "/tmp/atsw<N>" (under ZORD_ROOT) for the first configuration line
// that names the role after a number above 0. 0 when the file could be read,
// -1 when not. The caller clears path (ATSW_PATH_SIZE bytes) first.
int findSocketName(const char* role, char* path);

// Connects once; the descriptor goes to *fd_out even when the connect fails.
int zor_OpenSocketToAtSwitch(const char* purpose, const char* path, int* fd_out);

// Sends cmd ("AT" put in front unless it starts with A or a and then T),
// reads until a final result code, the end of the connection or a read
// error. Status (when given) is 0 for OK, 1 for ERROR and CME ERROR, and
// untouched without a final result. With an answer buffer the answer is
// copied into it, at most answer_size - 1 bytes and no terminator (callers
// clear it); without one it is forwarded to the command server's client.
void zorSrv_sendATCmdToAtSwitch(const char* cmd, int* status, char* answer, size_t answer_size = 0);

// 1 when the text holds a final result code (status set when given), else 0.
int zor_checkRspOkOrError(const char* text, int* status);

// Puts a line feed after every carriage return that lacks one, in place,
// keeping the text within capacity bytes with its terminator. New length.
int zorSrv_ExpandLoneCr(char* text, size_t capacity);
