#include "sessions/activate_handlers.h"

#include <cstdio>
#include <cstring>

#include "atserver/atsw_link.h"
#include "atserver/result_writers.h"
#include "core/log.h"
#include "gateway/at_queue.h"
#include "sessions/session_table.h"

namespace {

constexpr size_t COMMAND_SIZE = 256;  // 255 characters

// AT%MBMSCMD="VERB",<area>,"<tmgi>", line feed before carriage return.
void format_mbms_command(char* cmd, const char* verb, int32_t areaid, const char* tmgi) {
  snprintf(cmd, COMMAND_SIZE, "%s=\"%s\",%d,\"%s\"\n\r", "AT%MBMSCMD", verb, areaid, tmgi);
}

// Sessions that lost their last receiver, as zorSrv_handleDeactivateAll
// collects them: room for every record of the table.
zor_db_pair deactivate_list[ZOR_DB_MAX_ENTRIES];

}  // namespace

uint32_t parse_ipv4(const char* text) {
  unsigned a = 0, b = 0, c = 0, d = 0;
  sscanf(text, "%u.%u.%u.%u", &a, &b, &c, &d);
  return (a << 24) | (b << 16) | (c << 8) | d;
}

int zorSrv_handleActivateDeactivate(int activate, int32_t areaid, const char* tmgi,
                                    uint32_t mc_addr) {
  const AtQEntry* q = zor_getCurrAtQEntry();
  ZLOG_INFO("%s entry\n", "zorSrv_handleActivateDeactivate");
  char cmd[COMMAND_SIZE] = {};
  int32_t result = -1;
  int32_t index = -1;
  const uint32_t uc_addr = q->addr;
  const auto uc_port = static_cast<int32_t>(q->ucast_port);

  if (activate) {
    ZLOG_INFO("activate\n");
    if (zor_db_get_entry_by_all(tmgi, mc_addr, uc_addr, uc_port, areaid, &index) != nullptr) {
      ZLOG_INFO("will not send at command to fw since there is aleady tmgi & area id at index %d\n",
                index);
      return zorSrv_SendResponse(RESULT_OK);
    }
    // The modem's reply goes to the client: no result code of our own.
    format_mbms_command(cmd, "ACTIVATE", areaid, tmgi);
    zorSrv_sendATCmdToAtSwitch(cmd, &result, nullptr);
    if (result != 0) return result;
    int32_t inserted = zor_db_insert_entry(tmgi, mc_addr, uc_addr, uc_port, areaid);
    if (inserted != 0) return inserted;
    ZLOG_INFO("new entry was inserted to zor_db\n");
    return zor_db_print_db();
  }

  ZLOG_INFO("deactivate\n");
  int code = 0;
  if (zor_db_get_entry_by_all(tmgi, mc_addr, uc_addr, uc_port, areaid, &index) != nullptr) {
    ZLOG_INFO("entry removed from zor db at index %d\n", index);
    zor_db_remove_entry_by_index(index);
    zor_db_print_db();
    // The modem stops the session only when its last receiver leaves.
    int32_t other = -1;
    if (zor_db_get_entry_by_tmgi_areaid(tmgi, areaid, &other) == nullptr) {
      format_mbms_command(cmd, "DEACTIVATE", areaid, tmgi);
      zorSrv_sendATCmdToAtSwitch(cmd, &result, nullptr);
      code = result;
    }
  }
  return zorSrv_SendResponse(code);
}

int zorSrv_handleDeactivateAll() {
  const AtQEntry* q = zor_getCurrAtQEntry();
  ZLOG_INFO("%s entry\n", "zorSrv_handleDeactivateAll");
  char cmd[COMMAND_SIZE] = {};
  int32_t result = -1;
  zorSrv_sendATCmdToAtSwitch(cmd, &result, nullptr);  // still empty: a bare "AT"

  int32_t pairs = 0;
  int32_t removed = zor_db_remove_entries_by_ucast(q->addr, static_cast<int32_t>(q->ucast_port),
                                                   &pairs, deactivate_list);
  if (removed > 0 && pairs > 0) {
    ZLOG_INFO("deactivating %d\n", pairs);
    for (int32_t i = 0; i < pairs; ++i) {
      char tmgi[TMGI_SIZE + 1] = {};  // the pair's TMGI may fill its field
      memcpy(tmgi, deactivate_list[i].tmgi, TMGI_SIZE);
      format_mbms_command(cmd, "DEACTIVATE", deactivate_list[i].areaid, tmgi);
      char reply[ATSW_TEXT_SIZE] = {};  // kept from the client
      zorSrv_sendATCmdToAtSwitch(cmd, &result, reply, sizeof reply);
    }
    zor_db_print_db();
  }
  return zorSrv_SendResponse(RESULT_OK);
}
