// LTE registration query thread: learns the modem's registration state at start.
#pragma once

void* initial_LTE_reg_thread(void* arg);
