// LTE registration query thread: once the command server's switch link is
// up, asks AT+CEREG? and seeds last_event_num with the state; then ends.
//
// It shares the command server's switch connection, without a lock (see
// atserver/atsw_link.h). last_event_num has no lock either: this thread
// writes it once, the unsolicited thread writes and reads it, all relaxed.
// A seed written after a report overwrites that report's state: accepted.
#pragma once

#include <cstdint>

// The last registration state seen (initially -1). Relaxed accesses only.
extern int32_t last_event_num;

void* initial_LTE_reg_thread(void* arg);
