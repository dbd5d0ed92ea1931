#include "atserver/result_writers.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "core/log.h"

pthread_mutex_t send_atcmd_lock = PTHREAD_MUTEX_INITIALIZER;
const char* zorSrv_LineEnd = "\r\n";
int zorSrv_OutSocket = -1;

namespace {

constexpr size_t RESPONSE_SIZE = 100;

const char* result_word(int code) {
  switch (code) {
    case RESULT_OK:
      return "OK";
    case RESULT_ERROR:
      return "ERROR";
    case RESULT_AOK:
      return "AOK";
    case RESULT_NOK:
      return "NOK";
    default:
      return nullptr;  // RESULT_NONE: no result code
  }
}

}  // namespace

int zorSrv_WriteLineEnd() {
  if (zorSrv_OutSocket == -1) return 0;
  if (write(zorSrv_OutSocket, zorSrv_LineEnd, strlen(zorSrv_LineEnd)) < 1)
    ZLOG_ERROR("failed to write to socket %s!\n", zorSrv_LineEnd);
  return 0;
}

int zorSrv_WriteResponse(const char* text, int code, int leading_line_end) {
  char buf[RESPONSE_SIZE] = {};
  if (text != nullptr) {
    if (zorSrv_OutSocket == -1) {
      ZLOG_ERROR("no output socket!\n");
    } else {
      if (leading_line_end) zorSrv_WriteLineEnd();
      if (write(zorSrv_OutSocket, text, strlen(text)) < 1)
        ZLOG_ERROR("failed to write to socket %s!\n", buf);
    }
    snprintf(buf, sizeof buf, "%s", zorSrv_LineEnd);
  }
  // ERROR always has a line end before it; OK, AOK and NOK only when
  // neither a text nor a leading line end went before.
  if (const char* word = result_word(code)) {
    bool lead = code == RESULT_ERROR || (text == nullptr && !leading_line_end);
    size_t used = strlen(buf);
    snprintf(buf + used, sizeof buf - used, "%s%s%s", lead ? zorSrv_LineEnd : "", word,
             zorSrv_LineEnd);
  }
  if (buf[0] != '\0') {
    if (zorSrv_OutSocket != -1) {
      if (write(zorSrv_OutSocket, buf, strlen(buf)) < 1)
        ZLOG_ERROR("failed to write to socket %s!\n", buf);
    } else {
      ZLOG_ERROR("no output socket!\n");
    }
  }
  return 0;
}

int zorSrv_SendResponse(int code) {
  pthread_mutex_lock(&send_atcmd_lock);
  ZLOG_INFO("%s entry code %d\n", "zorSrv_SendResponse", code);
  zorSrv_WriteResponse(nullptr, code, 0);
  return pthread_mutex_unlock(&send_atcmd_lock);
}

int zorSrv_SendResponseText(const char* text, int code) {
  pthread_mutex_lock(&send_atcmd_lock);
  zorSrv_WriteResponse(text, code, 1);
  return pthread_mutex_unlock(&send_atcmd_lock);
}

int zorSrv_ForwardAtSwitchRsp(const char* text) {
  pthread_mutex_lock(&send_atcmd_lock);
  zorSrv_WriteResponse(text, RESULT_NONE, 0);
  return pthread_mutex_unlock(&send_atcmd_lock);
}
