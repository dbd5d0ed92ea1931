#include "gateway/dispatcher.h"

#include "core/block.h"
#include "core/log.h"

// Placeholder: queues nothing yet.
void* run_at_q_thread(void*) {
  ZLOG_INFO("%s entry\n", "run_at_q_thread");
  block_for_good();
}
