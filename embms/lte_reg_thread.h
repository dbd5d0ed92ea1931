// LTE registration query thread: once the command server's switch link is
// up, asks AT+CEREG? and seeds last_event_num with the state; then ends.
#pragma once

#include <cstdint>

// The last registration state seen (initially -1). Written here once and by
// the unsolicited thread, read without a lock: relaxed accesses.
extern int32_t last_event_num;

void* initial_LTE_reg_thread(void* arg);
