// The control commands: one table gives each its name, arguments, help line and handler, so the
// dispatch and the help text are made from the same rows and cannot drift apart.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string_view>

#include "tools/atsw-sim/sim.h"

namespace atsw {
namespace {

constexpr char OK[] = "ok\n";

// One control line: its first word, the words after it, and for commands that take free text,
// what follows the first word, from the first character that is not a space.
struct Request {
  std::string cmd;
  std::vector<std::string> args;
  std::string rest;
};

Request parse(const std::string& line) {
  Request r;
  std::istringstream in(line);
  in >> r.cmd;
  for (std::string a; in >> a;) r.args.push_back(a);
  if (size_t at = line.find_first_not_of(' ', line.find(r.cmd) + r.cmd.size());
      !r.cmd.empty() && at != std::string::npos)
    r.rest = line.substr(at);
  return r;
}

bool parse_int(const std::string& word, int* value) {
  char* end = nullptr;
  long v = strtol(word.c_str(), &end, 10);
  if (word.empty() || *end != '\0') return false;
  *value = static_cast<int>(v);
  return true;
}

// The argument checks several commands share. Each takes exactly one argument, stores it and
// replies "ok", or leaves the value alone and replies with what the command takes.

std::string on_off(const Request& r, bool* flag) {
  if (r.args.size() != 1 || (r.args[0] != "on" && r.args[0] != "off"))
    return "error: " + r.cmd + " takes on or off\n";
  *flag = r.args[0] == "on";
  return OK;
}

std::string number(const Request& r, int lo, int hi, int* value) {
  int v = 0;
  if (r.args.size() != 1 || !parse_int(r.args[0], &v) || v < lo || v > hi)
    return "error: " + r.cmd + " takes a number from " + std::to_string(lo) + " to " +
           std::to_string(hi) + "\n";
  *value = v;
  return OK;
}

std::string digits(const Request& r, size_t lo, size_t hi, std::string* value) {
  if (r.args.size() != 1 || r.args[0].size() < lo || r.args[0].size() > hi ||
      r.args[0].find_first_not_of("0123456789") != std::string::npos)
    return "error: " + r.cmd + " takes " + std::to_string(lo) + " to " + std::to_string(hi) +
           " digits\n";
  *value = r.args[0];
  return OK;
}

// --- handlers longer than a line; the one-line ones sit in the table -----------------------

// A change of registration is reported by itself, as a modem with +CEREG=2 does.
std::string set_stat(Sim& sim, int stat) {
  Model& m = sim.state.model;
  bool changed = stat != m.stat;
  m.stat = stat;
  if (changed && m.autoreport) push(sim.state, report(m));
  return OK;
}

std::string do_register(Sim& sim, const Request& r) {
  if (r.args.size() > 1 || (r.args.size() == 1 && r.args[0] != "home" && r.args[0] != "roaming"))
    return "error: register takes home or roaming\n";
  return set_stat(sim, !r.args.empty() && r.args[0] == "roaming" ? 5 : 1);
}

std::string do_deregister(Sim& sim, const Request& r) {
  int stat = 0;
  if (!r.args.empty() && (r.args.size() != 1 || !parse_int(r.args[0], &stat) || stat == 1 ||
                          stat == 5 || stat < 0 || stat > 5))
    return "error: deregister takes a state 0, 2, 3 or 4\n";
  return set_stat(sim, stat);
}

std::string do_stat(Sim& sim, const Request& r) {
  int stat = 0;
  std::string reply = number(r, -1, 99, &stat);
  return reply == OK ? set_stat(sim, stat) : reply;
}

std::string do_cell(Sim& sim, const Request& r) {
  if (r.args.size() != 2) return "error: cell takes TAC CI\n";
  Model& m = sim.state.model;
  m.tac = r.args[0];
  m.ci = r.args[1];
  if (m.autoreport && m.registered()) push(sim.state, report(m));
  return OK;
}

std::string do_duplex(Sim& sim, const Request& r) {
  if (r.args.size() != 1 || (r.args[0] != "FDD" && r.args[0] != "TDD" && r.args[0] != "none"))
    return "error: duplex takes FDD, TDD or none\n";
  sim.state.model.duplex = r.args[0] == "none" ? "" : r.args[0];
  return OK;
}

// The text may hold blanks: it is everything after the command's word, escapes undone.
std::string do_answer(Sim& sim, const Request& r) {
  if (r.args.empty()) return "error: answer takes COMMAND [TEXT]\n";
  size_t at = r.rest.find_first_not_of(' ', r.args[0].size());
  std::string text = at == std::string::npos ? "" : r.rest.substr(at);
  auto& raw = sim.state.model.raw;
  if (r.args.size() == 1)
    raw.erase(upper(r.args[0]));
  else
    raw[upper(r.args[0])] = unescape(text);
  return OK;
}

std::string do_fail(Sim& sim, const Request& r) {
  int count = 0, code = -1;
  bool ok = !r.args.empty() && parse_int(r.args[0], &count) && count >= 0;
  if (ok && r.args.size() == 3 && r.args[1] == "cme")
    ok = parse_int(r.args[2], &code) && code >= 0;
  else if (ok && r.args.size() != 1)
    ok = false;
  if (!ok) return "error: fail takes N [cme CODE]\n";
  sim.state.faults.fail = count;
  sim.state.faults.cme = code;
  return OK;
}

std::string do_close(Sim& sim, const Request&) {
  sim.state.faults.close_next = true;
  return OK;
}

std::string do_report(Sim& sim, const Request&) {
  push(sim.state, report(sim.state.model));
  return OK;
}

std::string do_push(Sim& sim, const Request& r) {
  if (r.rest.empty()) return "error: push takes TEXT\n";
  push(sim.state, unescape(r.rest));
  return OK;
}

// The router's uci file of WAN addresses, as its network scripts leave it;
// the fake uci reads it as the router's uci does.
std::string write_wan(Sim& sim) {
  std::string file = sim.path("/tmp/wan");
  std::ofstream out(file, std::ios::trunc);
  out << "config status 'status'\n";
  const Model& m = sim.state.model;
  if (!m.wan4.empty()) out << "\toption ipv4_addr '" << m.wan4 << "'\n";
  if (!m.wan6.empty()) out << "\toption ipv6_addr_global '" << m.wan6 << "'\n";
  out.flush();
  return out ? OK : "error: cannot write " + file + "\n";
}

std::string do_wan(Sim& sim, const Request& r) {
  if (r.args.size() != 1) return "error: " + r.cmd + " takes ADDRESS or none\n";
  Model& m = sim.state.model;
  (r.cmd == "wan4" ? m.wan4 : m.wan6) = r.args[0] == "none" ? "" : r.args[0];
  return write_wan(sim);
}

std::string do_record(Sim& sim, const Request&) {
  std::string out;
  for (const auto& c : sim.state.record)
    out += std::to_string(c.connection) + " " + escape(c.text) + "\n";
  return out + OK;
}

std::string do_bytes(Sim& sim, const Request& r) {
  int connection = 0;
  std::string reply = number(r, 1, 9999, &connection);
  return reply == OK ? escape(sim.state.bytes_in[connection]) + "\n" + OK : reply;
}

std::string do_sessions(Sim& sim, const Request&) {
  std::string out;
  for (const auto& s : sim.state.sessions)
    out += std::string(s.activate ? "ACTIVATE " : "DEACTIVATE ") + s.args + "\n";
  return out + OK;
}

// --- the table -------------------------------------------------------------------------------

using Handler = std::string (*)(Sim&, const Request&);

struct ControlCommand {
  std::string_view name;
  std::string_view args;  // as help shows them
  std::string_view help;
  Handler run;
};

// Help puts each command's name and arguments in a column this wide, then what it does.
constexpr size_t HELP_COLUMN = 26;

constexpr ControlCommand COMMANDS[] = {
    {"register", "[home|roaming]", "registered (stat 1 or 5)", do_register},
    {"deregister", "[0|2|3|4]", "not registered (default 0)", do_deregister},
    {"stat", "N", "registration state", do_stat},
    {"n", "N", "+CEREG n, from 0 to 5 (below 2: no tac and ci)",
     [](Sim& sim, const Request& r) { return number(r, 0, 5, &sim.state.model.n); }},
    {"act", "N", "access technology",
     [](Sim& sim, const Request& r) { return number(r, 0, 99, &sim.state.model.act); }},
    {"cell", "TAC CI", "serving tracking area and cell", do_cell},
    {"plmn", "DIGITS", "operator",
     [](Sim& sim, const Request& r) { return digits(r, 0, 8, &sim.state.model.plmn); }},
    {"imsi", "DIGITS", "subscriber identity",
     [](Sim& sim, const Request& r) { return digits(r, 0, 19, &sim.state.model.imsi); }},
    {"duplex", "FDD|TDD|none", "duplexing mode (none: not camped)", do_duplex},
    {"quote", "on|off", "tac and ci in double quotes (default off)",
     [](Sim& sim, const Request& r) { return on_off(r, &sim.state.model.quoted); }},
    {"spacing", "on|off", "a blank after each comma",
     [](Sim& sim, const Request& r) { return on_off(r, &sim.state.model.spaced); }},
    {"answer", "CMD [TEXT]",
     "raw answer for CMD (escapes \\r \\n \\\" \\xHH); no TEXT: back to the model", do_answer},
    {"fail", "N [cme CODE]", "the next N commands get ERROR (or +CME ERROR: CODE)", do_fail},
    {"delay", "MS", "answer after MS milliseconds",
     [](Sim& sim, const Request& r) { return number(r, 0, 600000, &sim.state.faults.delay_ms); }},
    {"split", "MS", "send the next answer in two writes, MS apart",
     [](Sim& sim, const Request& r) { return number(r, 0, 600000, &sim.state.faults.split_ms); }},
    {"silent", "on|off", "never answer",
     [](Sim& sim, const Request& r) { return on_off(r, &sim.state.faults.silent); }},
    {"close", "", "close the connection on its next command", do_close},
    {"report", "", "push a registration report from the model", do_report},
    {"push", "TEXT", "push raw text on the unsolicited socket", do_push},
    {"autoreport", "on|off", "push a report when the registration changes",
     [](Sim& sim, const Request& r) { return on_off(r, &sim.state.model.autoreport); }},
    {"wan4", "ADDR|none", "WAN IPv4 address for the fake uci", do_wan},
    {"wan6", "ADDR|none", "WAN IPv6 address for the fake uci", do_wan},
    {"record", "", "commands received: connection and text", do_record},
    {"bytes", "N", "what command connection N received, byte for byte, escaped", do_bytes},
    {"sessions", "", "AT%MBMSCMD activations and deactivations", do_sessions},
    {"help", "", "this list", [](Sim&, const Request&) { return Simulator::help() + OK; }},
};

// Every help line fits in 100 columns, its usage within the column.
constexpr bool help_fits() {
  for (const auto& c : COMMANDS)
    if (c.name.size() + 1 + c.args.size() >= HELP_COLUMN || HELP_COLUMN + c.help.size() > 100)
      return false;
  return true;
}
static_assert(help_fits());

}  // namespace

std::string run_control(Sim& sim, const std::string& line) {
  Request r = parse(line);
  if (r.cmd.empty()) return OK;
  for (const auto& c : COMMANDS)
    if (r.cmd == c.name) return c.run(sim, r);
  return "error: unknown command '" + r.cmd + "' (try help)\n";
}

std::string Simulator::help() {
  std::string out;
  for (const auto& c : COMMANDS) {
    // Appended piece by piece: g++ 12 warns (-Wrestrict, wrongly) on `" " + std::string(...)`.
    std::string usage(c.name);
    if (!c.args.empty()) usage.append(" ").append(c.args);
    usage.resize(HELP_COLUMN, ' ');
    out.append(usage).append(c.help).append("\n");
  }
  return out;
}

std::string unescape(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      out += text[i];
      continue;
    }
    char c = text[++i];
    if (c == 'r')
      out += '\r';
    else if (c == 'n')
      out += '\n';
    else if (c == 't')
      out += '\t';
    else if (c == 'x' && i + 2 < text.size() && isxdigit(static_cast<unsigned char>(text[i + 1])) &&
             isxdigit(static_cast<unsigned char>(text[i + 2]))) {
      out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else
      out += c;
  }
  return out;
}

std::string escape(const std::string& bytes) {
  std::string out;
  for (unsigned char c : bytes) {
    if (c == '\r')
      out += "\\r";
    else if (c == '\n')
      out += "\\n";
    else if (c == '\t')
      out += "\\t";
    else if (c == '\\')
      out += "\\\\";
    else if (c < 0x20 || c >= 0x7f) {
      char hex[5];
      snprintf(hex, sizeof hex, "\\x%02X", c);
      out += hex;
    } else
      out += static_cast<char>(c);
  }
  return out;
}

}  // namespace atsw
