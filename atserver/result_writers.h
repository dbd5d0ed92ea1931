// Everything the command server writes back on its one connection: result
// codes, information texts and forwarded AT switch answers, serialised by
// send_atcmd_lock.
//
// Command server thread: the grammar's actions, the handlers and the scanner
// write here, all on that thread. zorSrv_OutSocket is set once by it, to the
// accepted connection, before its parser starts, and is read without a lock.
// send_atcmd_lock keeps the writes of one answer (line end, text, result
// code) together: the locked writers take it, the two unlocked ones expect it
// held. The scanner echoes each token to the same connection without it, from
// the same thread, between answers. The registration thread also uses the
// switch link, but always with an answer buffer: it never writes here.
#pragma once

#include <pthread.h>

enum ResultCode {
  RESULT_OK = 0,
  RESULT_ERROR = 1,
  RESULT_AOK = 2,
  RESULT_NOK = 3,
  RESULT_NONE = 4
};

extern pthread_mutex_t send_atcmd_lock;  // initialised by the command server thread
extern const char* zorSrv_LineEnd;       // "\r\n"
extern int zorSrv_OutSocket;             // -1: no output socket

// The locked writers.
int zorSrv_SendResponse(int code);
int zorSrv_SendResponseText(const char* text, int code);
int zorSrv_ForwardAtSwitchRsp(const char* text);

// Composer and writer without the lock; only the locked writers call it.
int zorSrv_WriteResponse(const char* text, int code, int leading_line_end);
int zorSrv_WriteLineEnd();
