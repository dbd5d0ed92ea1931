// The scanner of the command server's AT language: splits what the
// dispatcher sends into tokens, echoing every matched text back to it.
//
// Command server thread only, no lock: the parser on that thread is its one
// caller. yyin_socket is set before the parser starts (the accepted
// connection, which is also zorSrv_OutSocket); yylval, yytext, yyleng and the
// input buffer are that thread's alone.
#pragma once

#include <cstddef>

// Token codes; 0 is the end of input.
enum AtToken : int {
  AT = 258,
  EOL,
  CEVVMCMD,
  CEVVMEV,
  SET,
  QUERY,
  TEST,
  PARAM,    // yylval.str: a copy of the text, owned by the parser
  STRING2,  // has a text value; no rule produces it
  QUOTE,
  COMMA,
  BAD_CHAR,
};

union YYSTYPE {
  char* str;
};
extern YYSTYPE yylval;

extern int yyin_socket;  // read from, and every matched text echoed to
extern char* yytext;
extern int yyleng;

// The next token. Blocks in read() until a decision can be made; ends the
// calling thread when the input fails.
int yylex();

// Logs the failure and ends the calling thread (never the process).
[[noreturn]] void my_yy_fatal_error(const char* message);
