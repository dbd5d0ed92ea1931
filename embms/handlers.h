// The handlers of the daemon's own commands, called by the grammar on the
// command server thread: AT+CEVVMEV=<event>, AT+CEVVMEV? and AT+CEVVMCMD?.
// What the set handler last reported (cell identity, WAN addresses) is kept
// in set_handler.cpp for that thread alone, without a lock.
#pragma once

#include <cstddef>

// Queries the serving cell and the WAN addresses and, when either changed
// (or not registered), sends +CEVVMEV:cell,duplex,changed to the
// subscribers. Always ends with exactly one OK.
int zorSrv_HandleSetCEVVMEV(int event);
// +CEVVMEV:cell,duplex with AOK.
int zorSrv_HandleReadCEVVMEV();
// +CEVVMCMD:imsi,cell,duplex with OK.
int zorSrv_HandleReadCEVVMCMD();

// One write of the text to the dispatcher's unsolicited socket pair (which
// the unsolicited thread writes too; one text a write keeps them whole).
int zorSrv_SendUnsol(const char* text);
// The first line of "uci get KEY" less its newline into out (out_size bytes,
// cleared by the caller). -1 when the command cannot be run.
int zorSrv_UciGet(const char* key, char* out, size_t out_size);
