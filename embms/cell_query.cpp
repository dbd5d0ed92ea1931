#include "embms/cell_query.h"

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "atserver/atsw_link.h"
#include "core/log.h"

namespace {

// Copies at most width characters of text into out (width + 1 bytes), and
// none past its first `length`.
void cut(const char* text, char* out, size_t width, size_t length = SIZE_MAX) {
  size_t len = strnlen(text, width < length ? width : length);
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
  zorSrv_sendATCmdToAtSwitch("AT+CEREG?\n\r", &status, answer,
                             size);  // its status is not looked at
}

Registration scan_registration(const char* answer) {
  // The format is "%[^:]: %d, %d, %[^,], %[^,], %d\n". The texts are not
  // copied out: %n marks where each one ends (and the two fields begin), and
  // the count of conversions is rebuilt from the marks, since suppressed
  // conversions are not counted.
  Registration reg;
  int prefix_end = -1, tac_begin = -1, tac_end = -1, ci_begin = -1, ci_end = -1;
  int numbers = sscanf(answer, "%*[^:]%n: %d, %d, %n%*[^,]%n, %n%*[^,]%n, %d\n", &prefix_end,
                       &reg.n, &reg.stat, &tac_begin, &tac_end, &ci_begin, &ci_end, &reg.act);
  int texts = (prefix_end >= 0) + (tac_end >= 0) + (ci_end >= 0);
  // EOF only when the answer ended before the first conversion of all.
  reg.fields = (numbers < 0 && texts == 0) ? -1 : (numbers > 0 ? numbers : 0) + texts;
  if (tac_end >= 0) {
    reg.tac_whole = answer + tac_begin;
    reg.tac_length = tac_end - tac_begin;
    cut(reg.tac_whole, reg.tac, sizeof reg.tac - 1, static_cast<size_t>(reg.tac_length));
  }
  if (ci_end >= 0) {
    reg.ci_whole = answer + ci_begin;
    reg.ci_length = ci_end - ci_begin;
    cut(reg.ci_whole, reg.ci, sizeof reg.ci - 1, static_cast<size_t>(reg.ci_length));
  }
  return reg;
}

bool is_registered(int stat) { return stat == 1 || stat == 5; }

bool find_plmn(const char* answer, char* plmn, size_t* length) {
  // Tokens as a split on double quotes gives them: runs of other characters.
  const char* first = answer + strspn(answer, "\"");
  if (*first == '\0') return false;
  const char* token = first + strcspn(first, "\"");
  token += strspn(token, "\"");
  if (*token == '\0') return false;
  *length = strcspn(token, "\"");
  cut(token, plmn, CELL_PLMN_WIDTH, *length);
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
  size_t plmn_width = CELL_PLMN_WIDTH;
  if (plmn_length != CELL_PLMN_WIDTH) {
    ZLOG_INFO("mccmnc strlen 5\n");
    plmn_width = CELL_PLMN_SHORT_WIDTH;
  }
  place(cell_id, plmn, plmn_width);
  place(cell_id + plmn_width, reg.tac, CELL_TAC_WIDTH);
  place(cell_id + plmn_width + CELL_TAC_WIDTH, ci_tail, CELL_CI_WIDTH);
  cell_id[plmn_width + CELL_TAC_WIDTH + CELL_CI_WIDTH] = '\0';
}

void log_registration(const char* name, const Registration& reg) {
  if (reg.fields < 4)
    ZLOG_INFO("%s:does not get CEREG\n", name);
  else
    ZLOG_INFO("get Stat: %d, TAC: %.*s, ECI: %.*s\n", reg.stat, reg.tac_length, reg.tac_whole,
              reg.ci_length, reg.ci_whole);
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
