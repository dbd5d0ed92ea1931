// The modem model's answers: what a modem says to each command, framed as a modem frames it,
// with the spacing and quoting that real modems differ in.
#include <algorithm>
#include <cctype>

#include "tools/atsw-sim/sim.h"

namespace atsw {
namespace {

std::string sep(const Model& m) { return m.spaced ? ", " : ","; }
std::string loc(const Model& m, const std::string& v) { return m.quoted ? "\"" + v + "\"" : v; }

std::string info(const std::vector<std::string>& lines) {
  std::string out = "\r\n";
  for (const auto& l : lines) out += l + "\r\n";
  return out;
}

std::string ok() { return "\r\nOK\r\n"; }

// Real modems give tac, ci and AcT with n 2 and up, and only while registered.
std::string location(const Model& m) {
  if (m.n < 2 || !m.registered()) return "";
  return sep(m) + loc(m, m.tac) + sep(m) + loc(m, m.ci) + sep(m) + std::to_string(m.act);
}

std::string cereg(const Model& m) {
  return info({"+CEREG: " + std::to_string(m.n) + sep(m) + std::to_string(m.stat) + location(m)}) +
         ok();
}

std::string cops(const Model& m) {
  return info({"+COPS: 0" + sep(m) + "2" + sep(m) + "\"" + m.plmn + "\"" + sep(m) + "7"}) + ok();
}

std::string pconi(const Model& m) {
  std::vector<std::string> lines = {
      "%PCONI: " + std::string(m.registered() ? "camped" : "searching"),
      "serving cell: earfcn 6300, pci 101"};
  if (!m.duplex.empty()) lines.push_back("duplexing mode: " + m.duplex);
  lines.push_back("bandwidth: 20 MHz");
  return info(lines) + ok();
}

// AT%MBMSCMD="ACTIVATE",... or "DEACTIVATE",...: recorded with what follows the verb.
std::string mbmscmd(State& s, const std::string& command) {
  std::string rest = command.substr(11);
  bool activate = upper(rest).rfind("\"ACTIVATE\"", 0) == 0;
  bool deactivate = upper(rest).rfind("\"DEACTIVATE\"", 0) == 0;
  if (!activate && !deactivate) return "\r\nERROR\r\n";
  size_t comma = rest.find(',');
  s.sessions.push_back({activate, comma == std::string::npos ? "" : rest.substr(comma + 1)});
  return ok();
}

// AT alone and other plain commands (ATE0, ATZ, ...): letters and digits only.
bool plain(const std::string& key) {
  return key.rfind("AT", 0) == 0 && std::all_of(key.begin() + 2, key.end(), [](char c) {
           return isalnum(static_cast<unsigned char>(c));
         });
}

}  // namespace

std::string upper(std::string s) {
  for (char& c : s) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return s;
}

std::string report(const Model& m) {
  return "\r\n+CEREG: " + std::to_string(m.stat) + location(m) + "\r\n";
}

std::string answer(State& s, const std::string& command) {
  std::string key = upper(command);
  if (auto it = s.model.raw.find(key); it != s.model.raw.end()) return it->second;
  if (s.faults.fail > 0) {
    --s.faults.fail;
    return s.faults.cme >= 0 ? "\r\n+CME ERROR: " + std::to_string(s.faults.cme) + "\r\n"
                             : "\r\nERROR\r\n";
  }
  if (key == "AT+CEREG?") return cereg(s.model);
  if (key == "AT+COPS=3,2") return ok();
  if (key == "AT+COPS?") return cops(s.model);
  if (key == "AT%PCONI") return pconi(s.model);
  if (key == "AT+CIMI") return info({"+CIMI: " + s.model.imsi}) + ok();
  if (key.rfind("AT%MBMSCMD=", 0) == 0) return mbmscmd(s, command);
  if (key == "ATI") return info({"atsw-sim modem model 1"}) + ok();
  if (plain(key)) return ok();
  return "\r\nERROR\r\n";
}

}  // namespace atsw
