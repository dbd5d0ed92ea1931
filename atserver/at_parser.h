// The parser of the command server's AT language (LALR(1), written out as
// tables): runs the daemon's own commands and collects their parameters.
//
// Command server thread only, no lock: yyparse runs there for good (one
// parser per process; its state and the scanner's are global). gATParams and
// gATParser_Num_Params are filled and read by its actions (the set command's
// event is its first value), and the scanner resets the count at each
// command name, all on that thread.
#pragma once

#include <cstdint>

constexpr int AT_PARAM_VALUE_SIZE = 80;
constexpr int AT_PARAM_SLOTS = 18;

struct ATParam {
  int32_t reserved;                 // nothing sets or reads it
  char value[AT_PARAM_VALUE_SIZE];  // no terminator when the text filled it
};
static_assert(sizeof(ATParam) == 84);

// The 18 slots and, behind them, the one that the 19th and later values of a
// list go to.
extern ATParam gATParams[AT_PARAM_SLOTS + 1];
// The slot being filled while a list is parsed; the number of values after.
extern int gATParser_Num_Params;

// Parses until the input ends (0), an error cannot be recovered from (1) or
// the stack is exhausted (2). Normally it never returns: the scanner ends the
// thread when the dispatcher goes away.
int yyparse();
void yyerror(const char* message);
