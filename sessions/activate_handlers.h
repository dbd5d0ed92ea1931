// Activate and deactivate eMBMS sessions for the client whose command is
// being handled: modem commands plus session-table changes. Carried for the
// session commands; no command of the daemon reaches them yet.
// Command server thread only, like the session table: they read the queue
// entry being handled (zor_getCurrAtQEntry) and keep their list of sessions
// to stop in a buffer of that thread's, without a lock.
#pragma once

#include <cstdint>

// One session (TMGI text of 12 characters) for the current queue entry's
// client. Activation answers through the modem's relayed reply; the other
// paths end with a result code.
int zorSrv_handleActivateDeactivate(int activate, int32_t areaid, const char* tmgi,
                                    uint32_t mc_addr);
// Every session of the current queue entry's client; always answers OK.
int zorSrv_handleDeactivateAll();

// "a.b.c.d" as a<<24 | b<<16 | c<<8 | d; fields that cannot be read count as 0.
uint32_t parse_ipv4(const char* text);
