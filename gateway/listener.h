// TCP client listener: accepts clients, records them in the client table
// and starts one thread per client, which answers the enable and subscribe
// commands itself and hands every other accepted line to the dispatcher.
#pragma once

constexpr int CLIENT_BACKLOG = 10;
constexpr int CLIENT_RECV_MAX = 1000;  // one receive is one line
constexpr int CLIENT_LINE_MAX = 128;   // longer lines are refused

void* run_listener_thread(void* arg);
void* zor_listener_handler(void* arg);

// 1 when the line is at most 128 characters and begins, in any case, with
// "ATE", "AT+CEVVMCMD" or "AT+CEVVMEV"; else 0.
int is_cmd_accepted(const char* line);
