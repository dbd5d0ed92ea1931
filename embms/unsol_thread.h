// Unsolicited event thread: turns the modem's registration reports into signals.
#pragma once

void* zorUnsol_ThreadMain(void* arg);
