#include "atserver/parser_hooks.h"

#include "atserver/result_writers.h"
#include "core/log.h"

int gATParser_CmdEOLSeen = 0;
int zorSrv_SyntaxErrorPending = 0;

void zorSrv_HandleEOL() {
  if (zorSrv_SyntaxErrorPending) {
    zorSrv_SendResponse(RESULT_ERROR);
    zorSrv_SyntaxErrorPending = 0;
  }
}

void zorSrv_HandleSyntaxError(const char* message) {
  if (message != nullptr) ZLOG_ERROR("zorSrv_HandleSyntaxError: %s\n", message);
  zorSrv_SyntaxErrorPending = 1;
  // Found on the line end itself or after an earlier one: answer now; found
  // earlier in the line: the next line end answers.
  if (gATParser_CmdEOLSeen) {
    zorSrv_SendResponse(RESULT_ERROR);
    zorSrv_SyntaxErrorPending = 0;
  }
}
