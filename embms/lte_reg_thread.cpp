#include "embms/lte_reg_thread.h"

#include "core/block.h"
#include "core/log.h"

// Placeholder: asks the modem nothing yet.
void* initial_LTE_reg_thread(void*) {
  ZLOG_INFO("%s entry\n", "initial_LTE_reg_thread");
  block_for_good();
}
