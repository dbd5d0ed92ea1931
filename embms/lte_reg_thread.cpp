#include "embms/lte_reg_thread.h"

#include <unistd.h>

#include "atserver/atsw_link.h"
#include "core/log.h"
#include "core/relaxed.h"
#include "embms/cell_query.h"

int32_t last_event_num = -1;

void* initial_LTE_reg_thread(void*) {
  const char* name = "initial_LTE_reg_thread";
  // No limit: the link comes up when the command server has its client. A
  // failed connect leaves its (positive) descriptor behind, which ends the wait.
  do {
    sleep(1);
  } while (acquire_load(cmd_atsw_fd) <= 0);
  ZLOG_INFO("%s:start LTE Reg status\n", name);

  char answer[2 * ATSW_TEXT_SIZE + 1];  // the most the link can hand back
  ask_registration(name, answer, sizeof answer, true);
  Registration reg = scan_registration(answer);  // fields counted, not acted on
  ZLOG_INFO("%s:Registration stat is %d\n", name, reg.stat);
  relaxed_store(last_event_num, static_cast<int32_t>(reg.stat));
  return nullptr;
}
