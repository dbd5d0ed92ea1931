// The hooks the scanner and parser call at every line end and on a syntax
// error: they decide when a line's ERROR goes out (once per bad line).
// Command server thread only: both flags are written and read by the
// scanner, the parser and these hooks on that thread, without a lock.
#pragma once

extern int gATParser_CmdEOLSeen;       // set by the scanner once a line end was scanned
extern int zorSrv_SyntaxErrorPending;  // an ERROR is owed for the current line

void zorSrv_HandleEOL();
void zorSrv_HandleSyntaxError(const char* message);
