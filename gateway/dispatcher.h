// AT queue dispatcher: sends queued commands to the command server one at a
// time, hands each answer to the client that asked, and spreads unsolicited
// texts to the subscribers.
//
// Dispatcher thread only: it owns the ring and process_unsol (no lock; see
// gateway/at_queue.h), and its own state lives inside run_at_q_thread. The two
// functions below are that thread's and touch the ring without a lock.
#pragma once

#include <cstddef>

constexpr size_t RSP_BUFFER_SIZE = 16384;

void* run_at_q_thread(void* arg);

// Writes a complete answer (count bytes collected in rsp, RSP_BUFFER_SIZE
// bytes, cleared here) to the client of the entry at the read index, then
// moves on to the next entry.
int zor_handleAtRsp(int count, char* rsp, int* rsp_handled, int* rsp_end, int* rsp_start,
                    int* rsp_count);
// Sends text to every subscriber, or, while commands are pending, leaves it
// for the clients of those commands (after their answers).
void zor_handle_unsol_rsp(const char* text, int length, int pending);
