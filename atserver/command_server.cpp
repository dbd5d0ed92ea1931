#include "atserver/command_server.h"

#include "core/block.h"
#include "core/log.h"

// Placeholder: opens no socket yet.
void* zorSrv_ThreadMain(void*) {
  ZLOG_INFO("%s entry\n", "zorSrv_ThreadMain");
  block_for_good();
}
