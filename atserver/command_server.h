// Command server thread: parses the dispatcher's commands on its Unix socket.
#pragma once

void* zorSrv_ThreadMain(void* arg);
