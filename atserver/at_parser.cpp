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

// The grammar:
//    1 input: (empty)                 17 quoted_value: QUOTE text_value QUOTE
//    2      | input line               18 value: text_value
//    3      | input error EOL          19      | quoted_value
//    4 line: EOL                       20      | empty_quotes
//  5-9     | bare_at | cmd_read | ev_set | ev_read | ev_test
//   10 bare_at: AT EOL                 21 comma: COMMA
//   11 cmd_read: AT CEVVMCMD QUERY EOL 22 commas: comma
//   12 ev_set: AT CEVVMEV SET param_list EOL
//                                      23       | commas comma
//   13 ev_read: AT CEVVMEV QUERY EOL   24 values: value
//   14 ev_test: AT CEVVMEV TEST EOL    25       | values commas value
//   15 text_value: PARAM               26 lead_list: commas values
//   16 empty_quotes: QUOTE QUOTE       27 trail_list: values commas
//                                   28-30 param_body: lead_list | values | trail_list
//                                      31 param_list: param_body
enum Nonterminal {
  INPUT,
  LINE,
  BARE_AT,
  CMD_READ,
  EV_SET,
  EV_READ,
  EV_TEST,
  TEXT_VALUE,
  EMPTY_QUOTES,
  QUOTED_VALUE,
  VALUE,
  COMMA_NT,
  COMMAS,
  VALUES,
  LEAD_LIST,
  TRAIL_LIST,
  PARAM_BODY,
  PARAM_LIST,
};

struct Production {
  Nonterminal lhs;
  int length;
};
constexpr Production PRODUCTIONS[] = {
    {INPUT, 0},  // unused
    {INPUT, 0},        {INPUT, 2},        {INPUT, 3},      {LINE, 1},       {LINE, 1},
    {LINE, 1},         {LINE, 1},         {LINE, 1},       {LINE, 1},       {BARE_AT, 2},
    {CMD_READ, 4},     {EV_SET, 5},       {EV_READ, 4},    {EV_TEST, 4},    {TEXT_VALUE, 1},
    {EMPTY_QUOTES, 2}, {QUOTED_VALUE, 3}, {VALUE, 1},      {VALUE, 1},      {VALUE, 1},
    {COMMA_NT, 1},     {COMMAS, 1},       {COMMAS, 2},     {VALUES, 1},     {VALUES, 3},
    {LEAD_LIST, 2},    {TRAIL_LIST, 2},   {PARAM_BODY, 1}, {PARAM_BODY, 1}, {PARAM_BODY, 1},
    {PARAM_LIST, 1},
};

constexpr int END = 0;
constexpr int ERROR_SYMBOL = 256;  // the "error" of production 3
constexpr int EMPTY = -2;          // no look-ahead token read

// The LALR(1) automaton. Every state that can reduce reduces by its one
// production for any token it cannot shift, so an error is found only in a
// state that can only shift; a state without shifts reduces without reading
// a look-ahead token (a command's action runs as soon as its EOL is read).
struct Move {
  int symbol;
  int state;
};
struct State {
  int reduce;  // production, or 0
  Move shifts[3];
};
constexpr State STATES[] = {
    /*  0 */ {1, {}},
    /*  1 */ {0, {{ERROR_SYMBOL, 2}, {EOL, 3}, {AT, 4}}},  // and END: accept
    /*  2 */ {0, {{EOL, 11}}},
    /*  3 */ {4, {}},
    /*  4 */ {0, {{EOL, 12}, {CEVVMCMD, 13}, {CEVVMEV, 14}}},
    /*  5 */ {2, {}},
    /*  6 */ {5, {}},
    /*  7 */ {6, {}},
    /*  8 */ {7, {}},
    /*  9 */ {8, {}},
    /* 10 */ {9, {}},
    /* 11 */ {3, {}},
    /* 12 */ {10, {}},
    /* 13 */ {0, {{QUERY, 15}}},
    /* 14 */ {0, {{SET, 16}, {QUERY, 17}, {TEST, 18}}},
    /* 15 */ {0, {{EOL, 19}}},
    /* 16 */ {0, {{PARAM, 20}, {QUOTE, 21}, {COMMA, 22}}},
    /* 17 */ {0, {{EOL, 34}}},
    /* 18 */ {0, {{EOL, 35}}},
    /* 19 */ {11, {}},
    /* 20 */ {15, {}},
    /* 21 */ {0, {{QUOTE, 36}, {PARAM, 20}}},
    /* 22 */ {21, {}},
    /* 23 */ {0, {{EOL, 38}}},
    /* 24 */ {31, {}},
    /* 25 */ {28, {}},
    /* 26 */ {30, {}},
    /* 27 */ {29, {{COMMA, 22}}},
    /* 28 */ {0, {{PARAM, 20}, {QUOTE, 21}, {COMMA, 22}}},
    /* 29 */ {22, {}},
    /* 30 */ {24, {}},
    /* 31 */ {18, {}},
    /* 32 */ {19, {}},
    /* 33 */ {20, {}},
    /* 34 */ {13, {}},
    /* 35 */ {14, {}},
    /* 36 */ {16, {}},
    /* 37 */ {0, {{QUOTE, 42}}},
    /* 38 */ {12, {}},
    /* 39 */ {27, {{PARAM, 20}, {QUOTE, 21}, {COMMA, 22}}},
    /* 40 */ {26, {{COMMA, 22}}},
    /* 41 */ {23, {}},
    /* 42 */ {17, {}},
    /* 43 */ {25, {}},
    /* 44 */ {0, {{PARAM, 20}, {QUOTE, 21}, {COMMA, 22}}},
};

struct Goto {
  int from;
  Nonterminal symbol;
  int to;
};
constexpr Goto GOTOS[] = {
    {0, INPUT, 1},          {1, LINE, 5},           {1, BARE_AT, 6},        {1, CMD_READ, 7},
    {1, EV_SET, 8},         {1, EV_READ, 9},        {1, EV_TEST, 10},       {16, PARAM_LIST, 23},
    {16, PARAM_BODY, 24},   {16, LEAD_LIST, 25},    {16, TRAIL_LIST, 26},   {16, VALUES, 27},
    {16, COMMAS, 28},       {16, COMMA_NT, 29},     {16, VALUE, 30},        {16, TEXT_VALUE, 31},
    {16, QUOTED_VALUE, 32}, {16, EMPTY_QUOTES, 33}, {21, TEXT_VALUE, 37},   {27, COMMAS, 39},
    {27, COMMA_NT, 29},     {28, VALUES, 40},       {28, COMMA_NT, 41},     {28, VALUE, 30},
    {28, TEXT_VALUE, 31},   {28, QUOTED_VALUE, 32}, {28, EMPTY_QUOTES, 33}, {39, VALUE, 43},
    {39, COMMA_NT, 41},     {39, TEXT_VALUE, 31},   {39, QUOTED_VALUE, 32}, {39, EMPTY_QUOTES, 33},
    {40, COMMAS, 44},       {40, COMMA_NT, 29},     {44, VALUE, 43},        {44, COMMA_NT, 41},
    {44, TEXT_VALUE, 31},   {44, QUOTED_VALUE, 32}, {44, EMPTY_QUOTES, 33},
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

// The parser owns a parameter's text from the scanner until production 15
// stores it, or until error recovery throws it away here.
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
  bool reduce(int production);
  void act(int production, const Entry* rhs);
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

void Parser::act(int production, const Entry* rhs) {
  switch (production) {
    case 3:  // leave error recovery at once
      error_status_ = 0;
      lookahead_ = EMPTY;
      break;
    case 10:
      zorSrv_SendResponse(RESULT_OK);
      break;
    case 11:
      zorSrv_HandleReadCEVVMCMD();
      break;
    case 12:
      if (gATParser_Num_Params == 1) zorSrv_HandleSetCEVVMEV(event_of_first_value());
      break;
    case 13:
      zorSrv_HandleReadCEVVMEV();
      break;
    case 14:
      zorSrv_SendResponse(RESULT_ERROR);
      break;
    case 15:
      // strncpy: a text of 80 or more fills the field without a terminator.
      strncpy(gATParams[gATParser_Num_Params].value, rhs[0].value.str, AT_PARAM_VALUE_SIZE);
      free(rhs[0].value.str);
      break;
    case 21:
      next_slot();
      break;
    case 26:
      gATParams[0].value[0] = '\0';
      break;
    case 31:
      if (gATParser_Num_Params < AT_PARAM_SLOTS) ++gATParser_Num_Params;
      break;
    default:
      break;
  }
}

bool Parser::reduce(int production) {
  const Production& p = PRODUCTIONS[production];
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
    if (row.reduce != 0 && !has_shifts(state)) {
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
    if (row.reduce != 0) {
      if (!reduce(row.reduce)) return 2;
      continue;
    }

    // A syntax error: report it unless recovering already, then throw tokens
    // away until production 3 can take the line end.
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
