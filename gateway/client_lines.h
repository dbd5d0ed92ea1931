// What the daemon takes from a client in one receive. Header only: zordctl
// explains the daemon's refusals by the same rule without linking the daemon.
#pragma once

#include <string.h>
#include <strings.h>

constexpr int CLIENT_RECV_MAX = 1000;  // one receive is one line
constexpr int CLIENT_LINE_MAX = 128;   // longer lines are refused

// 1 when the line is at most 128 characters and begins, in any case, with
// "ATE", "AT+CEVVMCMD" or "AT+CEVVMEV"; else 0.
inline int is_cmd_accepted(const char* line) {
  if (strlen(line) > CLIENT_LINE_MAX) return 0;
  return strncasecmp(line, "ATE", 3) == 0 || strncasecmp(line, "AT+CEVVMCMD", 11) == 0 ||
         strncasecmp(line, "AT+CEVVMEV", 10) == 0;
}
