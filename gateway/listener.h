// TCP client listener: accepts clients and starts one thread per client.
#pragma once

void* run_listener_thread(void* arg);
