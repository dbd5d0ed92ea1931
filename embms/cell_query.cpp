#include "embms/cell_query.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "atserver/atsw_link.h"
#include "core/log.h"

namespace {

// Copies at most width characters of text into out (width + 1 bytes).
void cut(const char* text, char* out, size_t width) {
  size_t len = strnlen(text, width);
  memcpy(out, text, len);
  out[len] = '\0';
}

// strncpy's placement: width bytes at dst, the piece then terminators.
void place(char* dst, const char* piece, size_t width) {
  size_t len = strnlen(piece, width);
  memcpy(dst, piece, len);
  memset(dst + len, 0, width - len);
}

}  // namespace

void ask_registration(const char* name, char* answer, size_t size, bool retry) {
  int status = 0;
  memset(answer, 0, size);
  zorSrv_sendATCmdToAtSwitch("AT+CEREG?\n\r", &status, answer, size);
  if (!retry || status == 0) return;
  ZLOG_INFO("%s:AT+CEREG? return is not ok [%d]\n", name, status);
  status = 0;
  memset(answer, 0, size);
  usleep(500000);
  zorSrv_sendATCmdToAtSwitch("AT+CEREG?\n\r", &status, answer, size);  // its status is not looked at
}

Registration scan_registration(const char* answer) {
  Registration reg;
  size_t room = strlen(answer) + 1;
  std::vector<char> prefix(room), tac(room), ci(room);
  reg.fields = sscanf(answer, "%[^:]: %d, %d, %[^,], %[^,], %d\n", prefix.data(), &reg.n, &reg.stat, tac.data(),
                      ci.data(), &reg.act);
  cut(prefix.data(), reg.prefix, sizeof reg.prefix - 1);
  cut(tac.data(), reg.tac, sizeof reg.tac - 1);
  cut(ci.data(), reg.ci, sizeof reg.ci - 1);
  return reg;
}

bool is_registered(int stat) { return stat == 1 || stat == 5; }

bool find_plmn(const char* answer, char* plmn, size_t* length) {
  std::string copy(answer);
  char* save = nullptr;
  strtok_r(copy.data(), "\"", &save);
  const char* token = strtok_r(nullptr, "\"", &save);
  if (token == nullptr) return false;
  *length = strlen(token);
  cut(token, plmn, 6);
  return true;
}

bool find_duplex(const char* answer, char* duplex) {
  const char* mode = strstr(answer, "duplexing mode: ");
  if (mode == nullptr) return false;
  cut(mode + strlen("duplexing mode: "), duplex, 3);
  return true;
}

void build_cell_id(const char* plmn, size_t plmn_length, const Registration& reg, char* cell_id) {
  // Each piece goes to its fixed place: a short piece is filled with
  // terminators and ends the text there. The ci piece skips its first
  // character (the quote when the modem quotes it); the tac piece does not.
  const char* ci_tail = reg.ci[0] != '\0' ? reg.ci + 1 : reg.ci;
  size_t plmn_width = 6;
  if (plmn_length != 6) {
    ZLOG_INFO("mccmnc strlen 5\n");
    plmn_width = 5;
  }
  place(cell_id, plmn, plmn_width);
  place(cell_id + plmn_width, reg.tac, 4);
  place(cell_id + plmn_width + 4, ci_tail, 7);
  cell_id[plmn_width + 11] = '\0';
}

void log_registration(const char* name, const Registration& reg) {
  if (reg.fields < 4) ZLOG_INFO("%s:does not get CEREG\n", name);
  else ZLOG_INFO("get Stat: %d, TAC: %s, ECI: %s\n", reg.stat, reg.tac, reg.ci);
}

bool query_plmn(const char* name, char* answer, int* status, char* plmn, size_t* plmn_length) {
  memset(answer, 0, ANSWER_SIZE);
  zorSrv_sendATCmdToAtSwitch("AT+COPS=3,2\n\r", status, answer, ANSWER_SIZE);
  zorSrv_sendATCmdToAtSwitch("AT+COPS?\n\r", status, answer, ANSWER_SIZE);
  if (!find_plmn(answer, plmn, plmn_length)) {
    ZLOG_INFO("%s: could not found PLMN\n", name);
    return false;
  }
  ZLOG_INFO("found plmn: %s\n", plmn);
  return true;
}

bool query_duplex(const char* name, char* answer, int* status, char* duplex) {
  ZLOG_INFO("sending pconi\n");
  memset(answer, 0, ANSWER_SIZE);
  zorSrv_sendATCmdToAtSwitch("AT%PCONI\n\r", status, answer, ANSWER_SIZE);
  if (!find_duplex(answer, duplex)) {
    ZLOG_INFO("%s:duplexing mode not found - not camped on cell ?\n", name);
    return false;
  }
  return true;
}
