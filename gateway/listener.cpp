#include "gateway/listener.h"

#include "core/block.h"
#include "core/log.h"

// Placeholder: accepts no clients yet.
void* run_listener_thread(void*) {
  ZLOG_INFO("%s entry\n", "run_listener_thread");
  block_for_good();
}
