#include "atserver/at_parser.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "atserver/at_scanner.h"
#include "atserver/parser_hooks.h"
#include "atserver/result_writers.h"
#include "embms/handlers.h"

ATParam gATParams[AT_PARAM_SLOTS + 1];
int gATParser_Num_Params = 0;

void yyerror(const char* message) { zorSrv_HandleSyntaxError(message); }

namespace {

// The grammar, one production a line: its number, its name and its rule. The
// tables and the actions use the names; a number is only the production's
// place in this enum and in REDUCTIONS. A name starts with the name of the
// nonterminal it makes (NT_..., below).
enum Production : int {
  NO_PRODUCTION,       //  0 (a state that does not reduce)
  INPUT_EMPTY,         //  1 input: (empty)
  INPUT_LINE,          //  2      | input line
  INPUT_ERROR,         //  3      | input error EOL
  LINE_EOL,            //  4 line: EOL
  LINE_BARE_AT,        //  5     | bare_at
  LINE_CMD_READ,       //  6     | cmd_read
  LINE_EV_SET,         //  7     | ev_set
  LINE_EV_READ,        //  8     | ev_read
  LINE_EV_TEST,        //  9     | ev_test
  BARE_AT,             // 10 bare_at: AT EOL
  CMD_READ,            // 11 cmd_read: AT CEVVMCMD QUERY EOL
  EV_SET,              // 12 ev_set: AT CEVVMEV SET param_list EOL
  EV_READ,             // 13 ev_read: AT CEVVMEV QUERY EOL
  EV_TEST,             // 14 ev_test: AT CEVVMEV TEST EOL
  TEXT_VALUE,          // 15 text_value: PARAM
  EMPTY_QUOTES,        // 16 empty_quotes: QUOTE QUOTE
  QUOTED_VALUE,        // 17 quoted_value: QUOTE text_value QUOTE
  VALUE_TEXT,          // 18 value: text_value
  VALUE_QUOTED,        // 19      | quoted_value
  VALUE_EMPTY_QUOTES,  // 20      | empty_quotes
  COMMA_TOKEN,         // 21 comma: COMMA
  COMMAS_FIRST,        // 22 commas: comma
  COMMAS_MORE,         // 23       | commas comma
  VALUES_FIRST,        // 24 values: value
  VALUES_MORE,         // 25       | values commas value
  LEAD_LIST,           // 26 lead_list: commas values
  TRAIL_LIST,          // 27 trail_list: values commas
  PARAM_BODY_LEAD,     // 28 param_body: lead_list
  PARAM_BODY_VALUES,   // 29           | values
  PARAM_BODY_TRAIL,    // 30           | trail_list
  PARAM_LIST,          // 31 param_list: param_body
  PRODUCTION_COUNT
};

enum Nonterminal {
  NT_INPUT,
  NT_LINE,
  NT_BARE_AT,
  NT_CMD_READ,
  NT_EV_SET,
  NT_EV_READ,
  NT_EV_TEST,
  NT_TEXT_VALUE,
  NT_EMPTY_QUOTES,
  NT_QUOTED_VALUE,
  NT_VALUE,
  NT_COMMA,
  NT_COMMAS,
  NT_VALUES,
  NT_LEAD_LIST,
  NT_TRAIL_LIST,
  NT_PARAM_BODY,
  NT_PARAM_LIST,
};

// What a reduction by each production does: pops `length` entries and pushes
// `lhs`. One row per production, in the enum's order.
struct Reduction {
  Production production;
  Nonterminal lhs;
  int length;
};
constexpr Reduction REDUCTIONS[] = {
    {NO_PRODUCTION, NT_INPUT, 0},  // never reduced by
    {INPUT_EMPTY, NT_INPUT, 0},
    {INPUT_LINE, NT_INPUT, 2},
    {INPUT_ERROR, NT_INPUT, 3},
    {LINE_EOL, NT_LINE, 1},
    {LINE_BARE_AT, NT_LINE, 1},
    {LINE_CMD_READ, NT_LINE, 1},
    {LINE_EV_SET, NT_LINE, 1},
    {LINE_EV_READ, NT_LINE, 1},
    {LINE_EV_TEST, NT_LINE, 1},
    {BARE_AT, NT_BARE_AT, 2},
    {CMD_READ, NT_CMD_READ, 4},
    {EV_SET, NT_EV_SET, 5},
    {EV_READ, NT_EV_READ, 4},
    {EV_TEST, NT_EV_TEST, 4},
    {TEXT_VALUE, NT_TEXT_VALUE, 1},
    {EMPTY_QUOTES, NT_EMPTY_QUOTES, 2},
    {QUOTED_VALUE, NT_QUOTED_VALUE, 3},
    {VALUE_TEXT, NT_VALUE, 1},
    {VALUE_QUOTED, NT_VALUE, 1},
    {VALUE_EMPTY_QUOTES, NT_VALUE, 1},
    {COMMA_TOKEN, NT_COMMA, 1},
    {COMMAS_FIRST, NT_COMMAS, 1},
    {COMMAS_MORE, NT_COMMAS, 2},
    {VALUES_FIRST, NT_VALUES, 1},
    {VALUES_MORE, NT_VALUES, 3},
    {LEAD_LIST, NT_LEAD_LIST, 2},
    {TRAIL_LIST, NT_TRAIL_LIST, 2},
    {PARAM_BODY_LEAD, NT_PARAM_BODY, 1},
    {PARAM_BODY_VALUES, NT_PARAM_BODY, 1},
    {PARAM_BODY_TRAIL, NT_PARAM_BODY, 1},
    {PARAM_LIST, NT_PARAM_LIST, 1},
};

constexpr bool reductions_in_order() {
  if (sizeof REDUCTIONS / sizeof REDUCTIONS[0] != PRODUCTION_COUNT) return false;
  for (int i = 0; i < PRODUCTION_COUNT; ++i)
    if (REDUCTIONS[i].production != i) return false;
  return true;
}
static_assert(reductions_in_order(), "REDUCTIONS has one row per production, in the enum's order");

constexpr int END = 0;
constexpr int ERROR_SYMBOL = 256;  // the "error" of INPUT_ERROR
constexpr int EMPTY = -2;          // no look-ahead token read

// The LALR(1) automaton of the grammar above, in two tables: STATES holds
// each state's shifts and its reduction, GOTOS where a state goes after a
// reduction has made a nonterminal.
//
// How they were made. The states are the LR(0) item sets of the grammar with
// "accept: input END" added, state 0 being the closure of "accept: . input
// END"; they were numbered in the order the construction first reached them
// (the numbers are names, nothing more). The look-aheads of each completed
// item were then computed LALR(1): no state holds two completed items, and
// the only states that both shift and reduce (27, 39 and 40) reduce on EOL
// alone and shift only COMMA, PARAM or QUOTE, so there is no conflict. Every
// state that can reduce then takes its one production as its default
// reduction: it reduces for any token it cannot shift, so an error is found
// only in a state that can only shift, and a state without shifts reduces
// without reading a look-ahead token (a command's action runs as soon as its
// EOL is read).
//
// Reading a row: "/* n */ {P, {{T, m}, ...}}" is state n. With the look-ahead
// token T it pushes T and goes to state m. With any other token it reduces by
// P: pops as many entries as P's rule has symbols, then pushes P's
// nonterminal, going to the state GOTOS gives for the state now on top and
// that nonterminal. P is NO_PRODUCTION when the state cannot reduce: a token
// it cannot shift is then a syntax error. ERROR_SYMBOL is the "error" of
// INPUT_ERROR: on an error the stack is popped to a state that shifts it
// (state 1 only) and tokens are thrown away until an EOL can follow it.
// State 1 accepts at END.
//
// Adding a command, say AT+NAME?:
// 1. The scanner: a token code after the last one (at_scanner.h), a rule for
//    the name in the AFTER_AT start condition, and the generic rule kept off
//    it (step_generic), or the longest match hands the whole line to the
//    switch. The client threads take only the lines gateway/client_lines.h
//    accepts.
// 2. The grammar: a nonterminal NT_NAME_READ, the productions "name_read: AT
//    NAME QUERY EOL" and "line: name_read" in the enum above, next to their
//    nonterminals' others, and their rows in REDUCTIONS at the same places.
//    The numbers after them move; everything but the comments uses names.
// 3. The states and gotos: redo the construction. The existing states keep
//    their numbers: state 4 (after AT) gains a shift on the new token, state
//    1 a goto on NT_NAME_READ, and the new states take the next numbers.
//    Check the look-aheads for conflicts (two completed items in one state,
//    or a token both shifted and reduced on: change the grammar), then write
//    each new state's row with its default reduction, and its gotos.
// 4. The action: a case in Parser::act for the production that ends the
//    command, calling its handler (embms/handlers.h), which answers with
//    exactly one result code.
struct Move {
  int symbol;
  int state;
};
struct State {
  Production reduce;  // NO_PRODUCTION: none
  Move shifts[3];
};
constexpr State STATES[] = {
    /*  0 */ {INPUT_EMPTY, {}},
    /*  1 */ {NO_PRODUCTION, {{ERROR_SYMBOL, 2}, {EOL, 3}, {AT, 4}}},  // and END: accept
    /*  2 */ {NO_PRODUCTION, {{EOL, 11}}},
    /*  3 */ {LINE_EOL, {}},
    /*  4 */ {NO_PRODUCTION, {{EOL, 12}, {CEVVMCMD, 13}, {CEVVMEV, 14}}},
    /*  5 */ {INPUT_LINE, {}},
    /*  6 */ {LINE_BARE_AT, {}},
    /*  7 */ {LINE_CMD_READ, {}},
    /*  8 */ {LINE_EV_SET, {}},
    /*  9 */ {LINE_EV_READ, {}},
    /* 10 */ {LINE_EV_TEST, {}},
    /* 11 */ {INPUT_ERROR, {}},
    /* 12 */ {BARE_AT, {}},
    /* 13 */ {NO_PRODUCTION, {{QUERY, 15}}},
    /* 14 */ {NO_PRODUCTION, {{SET, 16}, {QUERY, 17}, {TEST, 18}}},
    /* 15 */ {NO_PRODUCTION, {{EOL, 19}}},
    /* 16 */ {NO_PRODUCTION, {{PARAM, 20}, {QUOTE, 21}, {COMMA, 22}}},
    /* 17 */ {NO_PRODUCTION, {{EOL, 34}}},
    /* 18 */ {NO_PRODUCTION, {{EOL, 35}}},
    /* 19 */ {CMD_READ, {}},
    /* 20 */ {TEXT_VALUE, {}},
    /* 21 */ {NO_PRODUCTION, {{QUOTE, 36}, {PARAM, 20}}},
    /* 22 */ {COMMA_TOKEN, {}},
    /* 23 */ {NO_PRODUCTION, {{EOL, 38}}},
    /* 24 */ {PARAM_LIST, {}},
    /* 25 */ {PARAM_BODY_LEAD, {}},
    /* 26 */ {PARAM_BODY_TRAIL, {}},
    /* 27 */ {PARAM_BODY_VALUES, {{COMMA, 22}}},
    /* 28 */ {NO_PRODUCTION, {{PARAM, 20}, {QUOTE, 21}, {COMMA, 22}}},
    /* 29 */ {COMMAS_FIRST, {}},
    /* 30 */ {VALUES_FIRST, {}},
    /* 31 */ {VALUE_TEXT, {}},
    /* 32 */ {VALUE_QUOTED, {}},
    /* 33 */ {VALUE_EMPTY_QUOTES, {}},
    /* 34 */ {EV_READ, {}},
    /* 35 */ {EV_TEST, {}},
    /* 36 */ {EMPTY_QUOTES, {}},
    /* 37 */ {NO_PRODUCTION, {{QUOTE, 42}}},
    /* 38 */ {EV_SET, {}},
    /* 39 */ {TRAIL_LIST, {{PARAM, 20}, {QUOTE, 21}, {COMMA, 22}}},
    /* 40 */ {LEAD_LIST, {{COMMA, 22}}},
    /* 41 */ {COMMAS_MORE, {}},
    /* 42 */ {QUOTED_VALUE, {}},
    /* 43 */ {VALUES_MORE, {}},
    /* 44 */ {NO_PRODUCTION, {{PARAM, 20}, {QUOTE, 21}, {COMMA, 22}}},
};

struct Goto {
  int from;
  Nonterminal symbol;
  int to;
};
constexpr Goto GOTOS[] = {
    {0, NT_INPUT, 1},          {1, NT_LINE, 5},           {1, NT_BARE_AT, 6},
    {1, NT_CMD_READ, 7},       {1, NT_EV_SET, 8},         {1, NT_EV_READ, 9},
    {1, NT_EV_TEST, 10},       {16, NT_PARAM_LIST, 23},   {16, NT_PARAM_BODY, 24},
    {16, NT_LEAD_LIST, 25},    {16, NT_TRAIL_LIST, 26},   {16, NT_VALUES, 27},
    {16, NT_COMMAS, 28},       {16, NT_COMMA, 29},        {16, NT_VALUE, 30},
    {16, NT_TEXT_VALUE, 31},   {16, NT_QUOTED_VALUE, 32}, {16, NT_EMPTY_QUOTES, 33},
    {21, NT_TEXT_VALUE, 37},   {27, NT_COMMAS, 39},       {27, NT_COMMA, 29},
    {28, NT_VALUES, 40},       {28, NT_COMMA, 41},        {28, NT_VALUE, 30},
    {28, NT_TEXT_VALUE, 31},   {28, NT_QUOTED_VALUE, 32}, {28, NT_EMPTY_QUOTES, 33},
    {39, NT_VALUE, 43},        {39, NT_COMMA, 41},        {39, NT_TEXT_VALUE, 31},
    {39, NT_QUOTED_VALUE, 32}, {39, NT_EMPTY_QUOTES, 33}, {40, NT_COMMAS, 44},
    {40, NT_COMMA, 29},        {44, NT_VALUE, 43},        {44, NT_COMMA, 41},
    {44, NT_TEXT_VALUE, 31},   {44, NT_QUOTED_VALUE, 32}, {44, NT_EMPTY_QUOTES, 33},
};

constexpr int ACCEPT_STATE = 1;

int shift_target(int state, int symbol) {
  for (const Move& m : STATES[state].shifts)
    if (m.state != 0 && m.symbol == symbol) return m.state;
  return 0;
}

int goto_target(int state, Nonterminal symbol) {
  for (const Goto& g : GOTOS)
    if (g.from == state && g.symbol == symbol) return g.to;
  return 0;  // not reached: the tables hold every goto
}

bool has_shifts(int state) { return STATES[state].shifts[0].state != 0; }

// The parser owns a parameter's text from the scanner until TEXT_VALUE
// stores it, or until error recovery throws it away here. "destructing <text>"
// on standard error is part of what the daemon does, like the scanner's token
// trace on standard output: it stays byte for byte (stderr is the terminal in
// the foreground, /dev/null once daemonised; never the log or the wire).
void destruct(int symbol, YYSTYPE value) {
  if (symbol != PARAM && symbol != STRING2) return;
  fprintf(stderr, "destructing %s\n", value.str);
  free(value.str);
}

// The next slot for a comma: at most the overflow slot.
void next_slot() {
  if (gATParser_Num_Params < AT_PARAM_SLOTS) {
    ++gATParser_Num_Params;
    gATParams[gATParser_Num_Params].value[0] = '\0';
  }
}

int event_of_first_value() {
  // The value may fill its field without a terminator.
  char text[AT_PARAM_VALUE_SIZE + 1] = {};
  memcpy(text, gATParams[0].value, AT_PARAM_VALUE_SIZE);
  return atoi(text);
}

struct Entry {
  int state;
  int symbol;  // what was shifted or reduced to get here
  YYSTYPE value;
};

// Initial and largest stack depth: the stack doubles from the one up to the other.
constexpr size_t INITIAL_DEPTH = 200;
constexpr size_t MAX_DEPTH = 10000;

// The parser's stack on the heap, grown by realloc: the daemon carries no
// C++ runtime library, so no std::vector.
struct EntryStack {
  Entry* entries = nullptr;
  size_t count = 0;
  size_t room = 0;

  ~EntryStack() { free(entries); }
  bool reserve(size_t n) {
    if (n <= room) return true;
    auto* grown = static_cast<Entry*>(realloc(entries, n * sizeof(Entry)));
    if (grown == nullptr) return false;
    entries = grown;
    room = n;
    return true;
  }
  size_t size() const { return count; }
  size_t capacity() const { return room; }
  bool empty() const { return count == 0; }
  Entry* data() { return entries; }
  Entry& operator[](size_t i) { return entries[i]; }
  Entry& back() { return entries[count - 1]; }
  void push_back(const Entry& e) { entries[count++] = e; }
  void pop_back() { --count; }
  void resize(size_t n) { count = n; }  // only ever shrinks
};

class Parser {
 public:
  int run();

 private:
  bool push(int state, int symbol, YYSTYPE value);
  bool reduce(Production production);
  void act(Production production, const Entry* rhs);
  void pop_all();

  EntryStack stack_;
  int lookahead_ = EMPTY;
  YYSTYPE lookahead_value_{};
  int error_status_ = 0;  // tokens to shift before errors are reported again
};

bool Parser::push(int state, int symbol, YYSTYPE value) {
  if (stack_.size() == stack_.capacity()) {
    if (stack_.capacity() >= MAX_DEPTH) {
      yyerror("memory exhausted");
      return false;
    }
    if (!stack_.reserve(std::min(2 * stack_.capacity(), MAX_DEPTH))) {
      yyerror("memory exhausted");
      return false;
    }
  }
  stack_.push_back({state, symbol, value});
  return true;
}

void Parser::act(Production production, const Entry* rhs) {
  switch (production) {
    case INPUT_ERROR:  // leave error recovery at once
      error_status_ = 0;
      lookahead_ = EMPTY;
      break;
    case BARE_AT:
      zorSrv_SendResponse(RESULT_OK);
      break;
    case CMD_READ:
      zorSrv_HandleReadCEVVMCMD();
      break;
    case EV_SET:
      if (gATParser_Num_Params == 1) zorSrv_HandleSetCEVVMEV(event_of_first_value());
      break;
    case EV_READ:
      zorSrv_HandleReadCEVVMEV();
      break;
    case EV_TEST:
      zorSrv_SendResponse(RESULT_ERROR);
      break;
    case TEXT_VALUE:
      // strncpy: a text of 80 or more fills the field without a terminator.
      strncpy(gATParams[gATParser_Num_Params].value, rhs[0].value.str, AT_PARAM_VALUE_SIZE);
      free(rhs[0].value.str);
      break;
    case COMMA_TOKEN:
      next_slot();
      break;
    case LEAD_LIST:
      gATParams[0].value[0] = '\0';
      break;
    case PARAM_LIST:
      if (gATParser_Num_Params < AT_PARAM_SLOTS) ++gATParser_Num_Params;
      break;
    default:
      break;
  }
}

bool Parser::reduce(Production production) {
  const Reduction& p = REDUCTIONS[production];
  size_t first = stack_.size() - static_cast<size_t>(p.length);
  YYSTYPE value = p.length > 0 ? stack_[first].value : YYSTYPE{};
  act(production, stack_.data() + first);
  stack_.resize(first);
  return push(goto_target(stack_.back().state, p.lhs), p.lhs, value);
}

void Parser::pop_all() {
  if (lookahead_ != EMPTY) destruct(lookahead_, lookahead_value_);
  while (!stack_.empty()) {
    destruct(stack_.back().symbol, stack_.back().value);
    stack_.pop_back();
  }
}

int Parser::run() {
  if (!stack_.reserve(INITIAL_DEPTH)) {
    yyerror("memory exhausted");
    return 2;
  }
  push(0, END, {});
  for (;;) {
    int state = stack_.back().state;
    const State& row = STATES[state];
    if (row.reduce != NO_PRODUCTION && !has_shifts(state)) {
      if (!reduce(row.reduce)) return 2;
      continue;
    }
    if (lookahead_ == EMPTY) {
      lookahead_ = yylex();
      lookahead_value_ = yylval;
    }
    if (state == ACCEPT_STATE && lookahead_ == END) {
      pop_all();
      return 0;
    }
    if (int target = shift_target(state, lookahead_)) {
      if (error_status_ > 0) --error_status_;
      if (!push(target, lookahead_, lookahead_value_)) return 2;
      lookahead_ = EMPTY;
      continue;
    }
    if (row.reduce != NO_PRODUCTION) {
      if (!reduce(row.reduce)) return 2;
      continue;
    }

    // A syntax error: report it unless recovering already, then throw tokens
    // away until INPUT_ERROR can take the line end.
    if (error_status_ == 0) yyerror("syntax error");
    if (error_status_ == 3) {
      if (lookahead_ == END) {
        pop_all();
        return 1;
      }
      destruct(lookahead_, lookahead_value_);
      lookahead_ = EMPTY;
    }
    error_status_ = 3;
    while (shift_target(stack_.back().state, ERROR_SYMBOL) == 0) {
      if (stack_.size() == 1) {
        pop_all();
        return 1;
      }
      destruct(stack_.back().symbol, stack_.back().value);
      stack_.pop_back();
    }
    if (!push(shift_target(stack_.back().state, ERROR_SYMBOL), ERROR_SYMBOL, {})) return 2;
  }
}

}  // namespace

int yyparse() {
  Parser parser;
  return parser.run();
}
