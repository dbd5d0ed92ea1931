// AT queue dispatcher: moves commands to the command server and answers back.
#pragma once

void* run_at_q_thread(void* arg);
