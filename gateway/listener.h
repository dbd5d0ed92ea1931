// TCP client listener: accepts clients, records them in the client table
// and starts one thread per client, which answers the enable and subscribe
// commands itself and hands every other accepted line to the dispatcher.
//
// The listener thread fills and frees slots under childs_mtx, which also
// guards the record of which slots' threads have yet to start (listener.cpp).
// A client thread copies its slot once under that lock, sets its own two
// flags without it (relaxed), hands lines over under atq_mtx and, when its
// client goes, frees its slot under childs_mtx (see gateway/at_queue.h).
#pragma once

#include "gateway/client_lines.h"

constexpr int CLIENT_BACKLOG = 10;

void* run_listener_thread(void* arg);
void* zor_listener_handler(void* arg);
