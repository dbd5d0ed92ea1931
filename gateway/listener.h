// TCP client listener: accepts clients, records them in the client table
// and starts one thread per client, which answers the enable and subscribe
// commands itself and hands every other accepted line to the dispatcher.
#pragma once

#include "gateway/client_lines.h"

constexpr int CLIENT_BACKLOG = 10;

void* run_listener_thread(void* arg);
void* zor_listener_handler(void* arg);
