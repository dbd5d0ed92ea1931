#include "atserver/at_scanner.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "atserver/at_parser.h"
#include "atserver/atsw_link.h"
#include "atserver/parser_hooks.h"
#include "core/log.h"

YYSTYPE yylval;
int yyin_socket = -1;
char* yytext = nullptr;
int yyleng = 0;

void my_yy_fatal_error(const char* message) {
  ZLOG_ERROR("my_yy_fatal_error: %s\n", message);
  pthread_exit(nullptr);
}

namespace {

// The longest match wins; on equal length the lower rule number. Each rule is
// a small automaton over the bytes of one token, so a token is decided byte
// by byte and more input is read only while some rule could still go on.
enum Rule : int {
  RULE_AT = 1,
  RULE_CEVVMCMD,
  RULE_CEVVMEV,
  RULE_TEST,
  RULE_SET,
  RULE_QUERY,
  RULE_PARAM,
  RULE_QUOTE,
  RULE_COMMA,
  RULE_BLANKS,
  RULE_EOL,
  RULE_GENERIC,
  RULE_BAD_CHAR,
};

enum StartCondition { INITIAL, AFTER_AT, AFTER_NAME, IN_PARAMS, AFTER_QUERY };

constexpr int MAX_RULES_IN_STATE = 6;
struct RuleSet {
  int count;
  Rule rules[MAX_RULES_IN_STATE];
};
constexpr RuleSet RULES_OF[] = {
    {4, {RULE_AT, RULE_BLANKS, RULE_EOL, RULE_BAD_CHAR}},  // INITIAL
    {6,
     {RULE_CEVVMCMD, RULE_CEVVMEV, RULE_BLANKS, RULE_EOL, RULE_GENERIC,
      RULE_BAD_CHAR}},                                                             // AFTER_AT
    {6, {RULE_TEST, RULE_SET, RULE_QUERY, RULE_BLANKS, RULE_EOL, RULE_BAD_CHAR}},  // AFTER_NAME
    {5, {RULE_PARAM, RULE_QUOTE, RULE_COMMA, RULE_EOL, RULE_BAD_CHAR}},            // IN_PARAMS
    {3, {RULE_BLANKS, RULE_EOL, RULE_BAD_CHAR}},                                   // AFTER_QUERY
};

constexpr int DEAD = -1;

int upper(unsigned char c) { return c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c; }
bool is_blank(unsigned char c) { return c == ' ' || c == '\t'; }
bool is_param_char(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
         (c != '\0' && strchr("$+-.:@_", c) != nullptr);
}

// A fixed text; letters match in either case (the other texts have none).
int step_literal(const char* text, int state, unsigned char c) {
  return text[state] != '\0' && upper(c) == text[state] ? state + 1 : DEAD;
}

// The generic command: the rest of the line after AT up to (not including)
// the next LF. It may start with LF when more follows, and it may start with
// "+" only when the name after it leaves CEVVMCMD and CEVVMEV behind within
// "+CEVVM" plus one character (which may be LF).
constexpr const char* DAEMON_NAME_PREFIX = "CEVVM";
constexpr int PREFIX_LENGTH = 5;
enum GenericState {
  G_START,
  G_BODY,
  G_AFTER_LF,
  G_PLUS
};  // G_PLUS + k: k letters of the prefix seen

int step_generic(int state, unsigned char c) {
  switch (state) {
    case G_START:
      return c == '\n' ? G_AFTER_LF : c == '+' ? G_PLUS : G_BODY;
    case G_BODY:
    case G_AFTER_LF:
      return c == '\n' ? DEAD : G_BODY;
    default:
      break;
  }
  int seen = state - G_PLUS;
  if (seen < PREFIX_LENGTH) return upper(c) == DAEMON_NAME_PREFIX[seen] ? state + 1 : G_BODY;
  // After +CEVVM a C or an E still spells one of the daemon's own commands.
  return upper(c) == 'C' || upper(c) == 'E' ? DEAD : G_BODY;
}

int step(Rule rule, int state, unsigned char c) {
  switch (rule) {
    case RULE_AT:
      return step_literal("AT", state, c);
    case RULE_CEVVMCMD:
      return step_literal("+CEVVMCMD", state, c);
    case RULE_CEVVMEV:
      return step_literal("+CEVVMEV", state, c);
    case RULE_TEST:
      return step_literal("=?", state, c);
    case RULE_SET:
      return step_literal("=", state, c);
    case RULE_QUERY:
      return step_literal("?", state, c);
    case RULE_QUOTE:
      return step_literal("\"", state, c);
    case RULE_COMMA:
      return step_literal(",", state, c);
    // Leading blanks (state 0), then a parameter character and any mix of
    // them and blanks (state 1).
    case RULE_PARAM:
      return is_param_char(c) ? 1 : is_blank(c) ? state : DEAD;
    case RULE_BLANKS:
      return is_blank(c) ? 1 : DEAD;
    case RULE_EOL:
      return state == 0 && (c == '\r' || c == '\n') ? 1 : DEAD;
    case RULE_GENERIC:
      return step_generic(state, c);
    case RULE_BAD_CHAR:
      return state == 0 ? 1 : DEAD;
  }
  return DEAD;
}

// Asked only after at least one byte: blanks alone are a parameter too.
bool accepts(Rule rule, int state) {
  switch (rule) {
    case RULE_AT:
      return state == 2;
    case RULE_CEVVMCMD:
      return state == 9;
    case RULE_CEVVMEV:
      return state == 8;
    case RULE_TEST:
      return state == 2;
    case RULE_PARAM:
      return true;
    case RULE_GENERIC:
      return state == G_BODY;
    default:
      return state == 1;
  }
}

bool can_continue(Rule rule, int state) {
  for (int c = 0; c < 256; ++c)
    if (step(rule, state, static_cast<unsigned char>(c)) != DEAD) return true;
  return false;
}

// The input buffer. A token in progress is moved to the front before more is
// read; a token that fills the whole buffer ends the scanner.
constexpr size_t INPUT_BUFFER_SIZE = 16384;
constexpr size_t READ_SIZE = 8192;
char input[INPUT_BUFFER_SIZE];
size_t token_start = 0;
size_t filled = 0;
char text[INPUT_BUFFER_SIZE + 1];  // yytext
StartCondition start_condition = INITIAL;

bool ends_read(unsigned char c) { return c == '\r' || c == '\n' || c == 27 || c == 26; }

// One byte per read(), up to limit bytes or through the first CR, LF, ESC or
// SUB, so one call never returns more than one line. A line end read at the
// limit still goes in (one spare byte is kept for it); any other byte read
// there is lost.
size_t read_line(char* buf, size_t limit) {
  size_t n = 0;
  for (;;) {
    char c;
    if (read(yyin_socket, &c, 1) != 1) my_yy_fatal_error("input from the dispatcher failed");
    if (ends_read(static_cast<unsigned char>(c))) {
      buf[n++] = c;
      return n;
    }
    if (n == limit) return n;
    buf[n++] = c;
  }
}

void refill() {
  memmove(input, input + token_start, filled - token_start);
  filled -= token_start;
  token_start = 0;
  size_t room = sizeof input - filled;
  if (room < 2) my_yy_fatal_error("input buffer overflow");
  filled += read_line(input + filled, std::min(READ_SIZE, room - 1));
}

// Finds the longest match from token_start in the current start condition.
Rule longest_match(size_t* length) {
  const RuleSet& set = RULES_OF[start_condition];
  int states[MAX_RULES_IN_STATE] = {};
  size_t len = 0;
  size_t best_len = 0;
  Rule best = RULE_BAD_CHAR;
  for (;;) {
    if (token_start + len == filled) {
      bool more = false;
      for (int i = 0; i < set.count && !more; ++i)
        more = states[i] != DEAD && can_continue(set.rules[i], states[i]);
      if (!more) break;
      refill();
    }
    auto c = static_cast<unsigned char>(input[token_start + len]);
    bool alive = false;
    for (int i = 0; i < set.count; ++i) {
      if (states[i] != DEAD) states[i] = step(set.rules[i], states[i], c);
      alive = alive || states[i] != DEAD;
    }
    if (!alive) break;
    ++len;
    for (int i = 0; i < set.count; ++i) {
      if (states[i] != DEAD && accepts(set.rules[i], states[i])) {
        best = set.rules[i];
        best_len = len;
        break;
      }
    }
  }
  if (best_len == 0) my_yy_fatal_error("no rule matched");
  *length = best_len;
  return best;
}

void echo() {
  // The echo is best effort: the answer that follows reports a broken link.
  ssize_t written = write(yyin_socket, yytext, static_cast<size_t>(yyleng));
  (void)written;
}

}  // namespace

int yylex() {
  for (;;) {
    size_t len = 0;
    Rule rule = longest_match(&len);
    memcpy(text, input + token_start, len);
    text[len] = '\0';
    token_start += len;
    yytext = text;
    yyleng = static_cast<int>(len);
    echo();

    // The token trace: "--- GOT AT", "--- GOT CEVVMCMD", "--- GOT CEVVMEV",
    // "--- GOT SET", "got tab", "--- got EOL", "--- gen-e at cmd: <text>" and
    // "--- lex error: <text>", each with its newline. It is part of what the
    // daemon does (people run zord in the foreground to watch it), so every
    // mark stays byte for byte. It goes through stdio to standard output: the
    // terminal in the foreground, /dev/null once daemonised; never to the log
    // or the wire. The parser's "destructing <text>" is its match on
    // standard error.
    switch (rule) {
      case RULE_AT:
        start_condition = AFTER_AT;
        puts("--- GOT AT");
        gATParser_CmdEOLSeen = 0;
        return AT;
      case RULE_CEVVMCMD:
        start_condition = AFTER_NAME;
        puts("--- GOT CEVVMCMD");
        gATParser_Num_Params = 0;
        return CEVVMCMD;
      case RULE_CEVVMEV:
        start_condition = AFTER_NAME;
        puts("--- GOT CEVVMEV");
        gATParser_Num_Params = 0;
        return CEVVMEV;
      case RULE_TEST:
        start_condition = AFTER_QUERY;
        return TEST;
      case RULE_SET:
        start_condition = IN_PARAMS;
        puts("--- GOT SET");
        return SET;
      case RULE_QUERY:
        start_condition = AFTER_QUERY;
        return QUERY;
      case RULE_PARAM:
        yylval.str = strdup(yytext);
        if (yylval.str == nullptr) my_yy_fatal_error("out of memory for a parameter");
        return PARAM;
      case RULE_QUOTE:
        return QUOTE;
      case RULE_COMMA:
        return COMMA;
      case RULE_BLANKS:
        puts("got tab");
        break;
      case RULE_EOL:
        start_condition = INITIAL;
        puts("--- got EOL");
        gATParser_CmdEOLSeen = 1;
        zorSrv_HandleEOL();
        return EOL;
      case RULE_GENERIC:
        // Not a line end of its own: neither the flag nor the hook.
        start_condition = INITIAL;
        printf("--- gen-e at cmd: %s\n", yytext);
        zorSrv_sendATCmdToAtSwitch(yytext, nullptr, nullptr);
        return EOL;
      case RULE_BAD_CHAR:
        start_condition = INITIAL;
        printf("--- lex error: %s\n", yytext);
        return BAD_CHAR;
    }
  }
}
