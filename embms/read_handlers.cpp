// AT+CEVVMEV? and AT+CEVVMCMD?: the serving cell (and the IMSI), answered
// to the asking client; no state, nothing unsolicited.
#include <cstdio>
#include <cstring>

#include "atserver/atsw_link.h"
#include "atserver/result_writers.h"
#include "core/log.h"
#include "embms/cell_query.h"
#include "embms/handlers.h"

namespace {

// The serving cell after a registration answer: false (with ERROR sent) when
// the PLMN or the duplex mode is missing.
bool registered_cell(const char* name, char* answer, const Registration& reg, char* cell_id,
                     char* duplex) {
  int status = 0;
  char plmn[CELL_PLMN_WIDTH + 1] = {};
  size_t plmn_length = 0;
  if (!query_plmn(name, answer, &status, plmn, &plmn_length) ||
      !query_duplex(name, answer, &status, duplex)) {
    zorSrv_SendResponse(RESULT_ERROR);
    return false;
  }
  build_cell_id(plmn, plmn_length, reg, cell_id);
  return true;
}

Registration query_registration(const char* name, char* answer) {
  ask_registration(name, answer, ANSWER_SIZE, false);  // no retry here
  Registration reg = scan_registration(answer);
  log_registration(name, reg);
  return reg;
}

}  // namespace

int zorSrv_HandleReadCEVVMEV() {
  const char* name = "zorSrv_HandleReadCEVVMEV";
  ZLOG_INFO("%s entry\n", name);
  char answer[ANSWER_SIZE] = {};
  char text[ANSWER_SIZE] = {};
  Registration reg = query_registration(name, answer);
  if (reg.fields < 4 || !is_registered(reg.stat)) {
    snprintf(text, sizeof text, "%s:%s,%s", "+CEVVMEV", "NULL", "NULL");
    return zorSrv_SendResponseText(text, RESULT_AOK);
  }
  char cell_id[CELL_ID_SIZE] = {};
  char duplex[4] = {};
  if (!registered_cell(name, answer, reg, cell_id, duplex)) return 0;
  snprintf(text, sizeof text, "%s:%s,%s", "+CEVVMEV", cell_id, duplex);
  return zorSrv_SendResponseText(text, RESULT_AOK);
}

int zorSrv_HandleReadCEVVMCMD() {
  const char* name = "zorSrv_HandleReadCEVVMCMD";
  ZLOG_INFO("%s entry\n", name);
  ZLOG_INFO("sending +CIMI\n");
  char answer[ANSWER_SIZE] = {};
  char text[ANSWER_SIZE] = {};
  int status = 0;
  zorSrv_sendATCmdToAtSwitch("AT+CIMI\n\r", &status, answer, sizeof answer);

  // From the tenth character ("\r\n+CIMI: " skipped unseen) up to the first
  // letter, CR or LF; measured whole, then cut to the 19 characters kept.
  int run = -1;
  char imsi[20] = {};
  sscanf(answer + 9, "%*[^A-Za-z\r\n]%n", &run);
  if (run <= 0) {
    ZLOG_INFO("%s:does not get IMSI\n", name);
    return zorSrv_SendResponse(RESULT_ERROR);
  }
  snprintf(imsi, sizeof imsi, "%.*s", run, answer + 9);
  ZLOG_INFO("get imsi from USIM %s\n", imsi);

  Registration reg = query_registration(name, answer);
  if (reg.fields < 4 || !is_registered(reg.stat)) {
    snprintf(text, sizeof text, "%s:%s,%s,%s", "+CEVVMCMD", imsi, "NULL", "NULL");
    return zorSrv_SendResponseText(text, RESULT_OK);
  }
  char cell_id[CELL_ID_SIZE] = {};
  char duplex[4] = {};
  if (!registered_cell(name, answer, reg, cell_id, duplex)) return 0;
  snprintf(text, sizeof text, "%s:%s,%s,%s", "+CEVVMCMD", imsi, cell_id, duplex);
  return zorSrv_SendResponseText(text, RESULT_OK);
}
