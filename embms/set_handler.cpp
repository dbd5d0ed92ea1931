// AT+CEVVMEV=<event>: the unsolicited +CEVVMEV line when the cell or the
// WAN addresses changed.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "atserver/atsw_link.h"
#include "atserver/result_writers.h"
#include "core/log.h"
#include "embms/cell_query.h"
#include "embms/handlers.h"
#include "gateway/at_queue.h"

namespace {

// What was last reported; never reset.
char last_ipv4_addr[20];
char last_ipv6_addr[48];
bool wan_addr_seen = false;  // one flag for both families
char last_cell_id[24];

constexpr size_t WAN_ADDR_MIN = 5;  // shorter values are ignored

void check_one_address(const char* key, char* last, size_t size, int* changed) {
  char value[48] = {};
  if (zorSrv_UciGet(key, value, size) != 0) return;
  if (strlen(value) < WAN_ADDR_MIN) return;
  if (!wan_addr_seen) {
    if (strlen(last) >= WAN_ADDR_MIN && strcmp(last, value) != 0) *changed = 1;
    snprintf(last, size, "%s", value);
    wan_addr_seen = true;
  } else if (strcmp(value, last) != 0) {
    snprintf(last, size, "%s", value);
    *changed = 1;
  }
}

// IPv6 first: with both families valid on the first check, the IPv4 step
// then compares with an empty address and reports a change.
int wan_addresses_changed() {
  int changed = 0;
  check_one_address("/tmp/wan.status.ipv6_addr_global", last_ipv6_addr, sizeof last_ipv6_addr,
                    &changed);
  check_one_address("/tmp/wan.status.ipv4_addr", last_ipv4_addr, sizeof last_ipv4_addr, &changed);
  return changed;
}

// The unsolicited line: +CEVVMEV:cell,duplex,changed and CR LF.
void format_event_line(char* line, size_t size, const char* cell_id, const char* duplex,
                       int changed) {
  snprintf(line, size, "%s:%s,%s,%d\r\n", "+CEVVMEV", cell_id, duplex, changed);
}

void send_event_line(const char* line) {
  zorSrv_SendUnsol(line);
  ZLOG_INFO("##UNSOL send unsol[%s] \n", line);
}

// Without a registration the line is sent every time, with NULL fields.
int send_null_line() {
  char line[64];
  format_event_line(line, sizeof line, "NULL", "NULL", wan_addresses_changed());
  send_event_line(line);
  return zorSrv_SendResponse(RESULT_OK);
}

}  // namespace

int zorSrv_SendUnsol(const char* text) {
  ZLOG_INFO("===============================================\n");
  ZLOG_INFO("send unsol : %s", text);
  ZLOG_INFO("===============================================\n");
  return static_cast<int>(write(at_unsol_sockfd[1], text, strlen(text)));
}

int zorSrv_UciGet(const char* key, char* out, size_t out_size) {
  char command[128];
  snprintf(command, sizeof command, "uci get %s", key);
  FILE* p = popen(command, "r");
  if (p == nullptr) return -1;
  char line[256] = {};
  if (fgets(line, sizeof line, p) == nullptr) line[0] = '\0';
  pclose(p);
  // The line less its last character (the newline); nothing printed is an
  // empty value.
  size_t len = strlen(line);
  size_t keep = len > 0 ? len - 1 : 0;
  if (out_size > 0 && keep > out_size - 1) keep = out_size - 1;
  memcpy(out, line, keep);
  return 0;
}

int zorSrv_HandleSetCEVVMEV(int event) {
  const char* name = "zorSrv_HandleSetCEVVMEV";
  ZLOG_INFO("%s entry\n", name);
  ZLOG_INFO("%s event=%d\n", name, event);

  char answer[ANSWER_SIZE];
  ask_registration(name, answer, sizeof answer, true);  // the one handler that retries
  Registration reg = scan_registration(answer);
  log_registration(name, reg);
  if (reg.fields < 4 || !is_registered(reg.stat)) return send_null_line();

  int status = 0;
  char plmn[CELL_PLMN_WIDTH + 1] = {};
  size_t plmn_length = 0;
  char duplex[4] = {};
  if (!query_plmn(name, answer, &status, plmn, &plmn_length) ||
      !query_duplex(name, answer, &status, duplex))
    return zorSrv_SendResponse(RESULT_OK);
  char cell_id[CELL_ID_SIZE] = {};
  build_cell_id(plmn, plmn_length, reg, cell_id);

  int changed = wan_addresses_changed();
  char line[64];
  format_event_line(line, sizeof line, cell_id, duplex, changed);
  if (strcmp(cell_id, last_cell_id) != 0 || changed == 1) send_event_line(line);
  // The characters only: a shorter identity leaves the tail of a longer old
  // one in place, and the next comparison sees it.
  memcpy(last_cell_id, cell_id, strlen(cell_id));
  return zorSrv_SendResponse(RESULT_OK);
}
