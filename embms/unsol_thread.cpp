#include "embms/unsol_thread.h"

#include "core/block.h"
#include "core/log.h"

// Placeholder: reads no reports yet.
void* zorUnsol_ThreadMain(void*) {
  ZLOG_INFO("%s entry\n", "zorUnsol_ThreadMain");
  block_for_good();
}
