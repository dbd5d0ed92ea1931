// The simulator: one thread serves every socket with poll; answers wait in a
// schedule so that delays and split answers never hold up other connections.
#include "tools/atsw-sim/atsw_sim.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

namespace atsw {
namespace {

using Clock = std::chrono::steady_clock;

struct Model {
  int n = 2;
  int stat = 1;
  std::string tac = "1A2B";
  std::string ci = "01A2D101";
  int act = 7;
  std::string plmn = "310410";
  std::string duplex = "FDD";  // empty: no duplexing line (not camped)
  std::string imsi = "310410123456789";
  bool quoted = false;                     // tac and ci in double quotes, as some modems answer
  bool spaced = false;                     // a blank after each comma
  std::map<std::string, std::string> raw;  // command (upper case) -> answer bytes
  bool autoreport = true;
  std::string wan4, wan6;  // the router's WAN addresses in /tmp/wan; empty: none
};

struct Faults {
  int fail = 0;
  int cme = -1;  // -1: plain ERROR
  int delay_ms = 0;
  int split_ms = -1;  // >= 0: split the next answer, pausing this long
  bool silent = false;
  bool close_next = false;
};

// Longest command or control line kept; a longer run without a line end is
// taken as it stands (commands) or ends the connection (control).
constexpr size_t MAX_LINE = 4096;

struct Conn {
  int fd;
  int id;
  std::string in;
};

struct Scheduled {
  Clock::time_point at;
  int fd;
  std::string bytes;
};

std::string upper(std::string s) {
  for (char& c : s) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return s;
}

bool mkdirs(const std::string& dir) {
  for (size_t i = 1; i <= dir.size(); ++i) {
    if (i < dir.size() && dir[i] != '/') continue;
    if (mkdir(dir.substr(0, i).c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  return true;
}

int listen_unix(const std::string& path, std::string* error) {
  sockaddr_un addr{};
  if (path.size() >= sizeof addr.sun_path) {
    *error = "cannot bind " + path + ": path too long";
    return -1;
  }
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  unlink(path.c_str());
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(fd, 8) != 0) {
    *error = "cannot bind " + path + ": " + strerror(errno);
    if (fd >= 0) close(fd);
    return -1;
  }
  return fd;
}

void write_all(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

bool parse_int(const std::string& word, int* value) {
  char* end = nullptr;
  long v = strtol(word.c_str(), &end, 10);
  if (word.empty() || *end != '\0') return false;
  *value = static_cast<int>(v);
  return true;
}

}  // namespace

struct Simulator::Impl {
  Options options;
  mutable std::mutex mtx;
  Model model;
  Faults faults;
  std::vector<Received> record;
  std::map<int, std::string> bytes_in;
  std::vector<Session> sessions;

  int cmd_listen = -1, unsol_listen = -1, ctl_listen = -1;
  int wake[2] = {-1, -1};
  std::vector<Conn> cmd_conns, unsol_conns, ctl_conns;
  std::vector<Scheduled> schedule;
  int next_id = 1;
  bool running = false;
  std::thread loop;

  std::string path(const std::string& fixed) const { return options.root + fixed; }

  // --- answers -------------------------------------------------------------

  std::string sep() const { return model.spaced ? ", " : ","; }
  std::string loc(const std::string& v) const { return model.quoted ? "\"" + v + "\"" : v; }
  static std::string info(const std::vector<std::string>& lines) {
    std::string out = "\r\n";
    for (const auto& l : lines) out += l + "\r\n";
    return out;
  }
  static std::string ok() { return "\r\nOK\r\n"; }

  std::string cereg() const {
    return info({"+CEREG: " + std::to_string(model.n) + sep() + std::to_string(model.stat) +
                 location()}) +
           ok();
  }

  std::string report() const {
    return "\r\n+CEREG: " + std::to_string(model.stat) + location() + "\r\n";
  }

  // Real modems give tac, ci and AcT with n 2 and up, and only while registered.
  std::string location() const {
    if (model.n < 2 || !registered()) return "";
    return sep() + loc(model.tac) + sep() + loc(model.ci) + sep() + std::to_string(model.act);
  }

  std::string pconi() const {
    std::vector<std::string> lines = {
        "%PCONI: " + std::string(registered() ? "camped" : "searching"),
        "serving cell: earfcn 6300, pci 101"};
    if (!model.duplex.empty()) lines.push_back("duplexing mode: " + model.duplex);
    lines.push_back("bandwidth: 20 MHz");
    return info(lines) + ok();
  }

  bool registered() const { return model.stat == 1 || model.stat == 5; }

  // The answer to one command; empty means no answer at all.
  std::string answer(const std::string& command) {
    std::string key = upper(command);
    if (auto it = model.raw.find(key); it != model.raw.end()) return it->second;
    if (faults.fail > 0) {
      --faults.fail;
      return faults.cme >= 0 ? "\r\n+CME ERROR: " + std::to_string(faults.cme) + "\r\n"
                             : "\r\nERROR\r\n";
    }
    if (key == "AT+CEREG?") return cereg();
    if (key == "AT+COPS=3,2") return ok();
    if (key == "AT+COPS?")
      return info({"+COPS: 0" + sep() + "2" + sep() + "\"" + model.plmn + "\"" + sep() + "7"}) +
             ok();
    if (key == "AT%PCONI") return pconi();
    if (key == "AT+CIMI") return info({"+CIMI: " + model.imsi}) + ok();
    if (key.rfind("AT%MBMSCMD=", 0) == 0) {
      std::string rest = command.substr(11);
      bool activate = upper(rest).rfind("\"ACTIVATE\"", 0) == 0;
      bool deactivate = upper(rest).rfind("\"DEACTIVATE\"", 0) == 0;
      if (!activate && !deactivate) return "\r\nERROR\r\n";
      size_t comma = rest.find(',');
      sessions.push_back({activate, comma == std::string::npos ? "" : rest.substr(comma + 1)});
      return ok();
    }
    if (key == "ATI") return info({"atsw-sim modem model 1"}) + ok();
    // AT alone and other plain commands (ATE0, ATZ, ...): letters and digits only.
    if (key.rfind("AT", 0) == 0 && std::all_of(key.begin() + 2, key.end(), [](char c) {
          return isalnum(static_cast<unsigned char>(c));
        }))
      return ok();
    return "\r\nERROR\r\n";
  }

  void queue(int fd, std::string bytes) {
    Clock::time_point at = Clock::now() + std::chrono::milliseconds(faults.delay_ms);
    for (const auto& s : schedule)  // never overtake an earlier answer
      if (s.fd == fd) at = std::max(at, s.at);
    if (faults.split_ms >= 0 && bytes.size() > 1) {
      size_t half = bytes.size() / 2;
      schedule.push_back({at, fd, bytes.substr(0, half)});
      schedule.push_back({at + std::chrono::milliseconds(faults.split_ms), fd, bytes.substr(half)});
      faults.split_ms = -1;
    } else {
      schedule.push_back({at, fd, std::move(bytes)});
    }
    std::stable_sort(schedule.begin(), schedule.end(),
                     [](auto& a, auto& b) { return a.at < b.at; });
  }

  // Returns false when the connection is to be closed.
  bool take_commands(Conn& c) {
    size_t end;
    while ((end = c.in.find_first_of("\r\n")) != std::string::npos || c.in.size() > MAX_LINE) {
      bool ended = end != std::string::npos;
      if (!ended) end = MAX_LINE;
      std::string text = c.in.substr(0, end);
      c.in.erase(0, ended ? end + 1 : end);
      if (text.find_first_not_of(" \t") == std::string::npos) continue;
      record.push_back({c.id, text});
      if (faults.close_next) {
        faults.close_next = false;
        return false;
      }
      if (faults.silent) continue;
      std::string bytes = answer(text);
      if (!bytes.empty()) queue(c.fd, std::move(bytes));
    }
    return true;
  }

  void push(const std::string& bytes) {
    for (const auto& c : unsol_conns) write_all(c.fd, bytes);
  }

  // --- control -------------------------------------------------------------

  std::string set_stat(int stat) {
    bool changed = stat != model.stat;
    model.stat = stat;
    if (changed && model.autoreport) push(report());
    return "ok\n";
  }

  std::string run(const std::string& line) {
    std::istringstream in(line);
    std::string cmd;
    in >> cmd;
    std::vector<std::string> args;
    for (std::string a; in >> a;) args.push_back(a);
    // The text after the command word, for commands that take free text.
    std::string rest;
    if (size_t at = line.find_first_not_of(' ', line.find(cmd) + cmd.size());
        !cmd.empty() && at != std::string::npos)
      rest = line.substr(at);
    auto on_off = [&](bool* flag) -> std::string {
      if (args.size() != 1 || (args[0] != "on" && args[0] != "off"))
        return "error: " + cmd + " takes on or off\n";
      *flag = args[0] == "on";
      return "ok\n";
    };
    auto number = [&](int* value, int lo, int hi) -> std::string {
      int v = 0;
      if (args.size() != 1 || !parse_int(args[0], &v) || v < lo || v > hi)
        return "error: " + cmd + " takes a number from " + std::to_string(lo) + " to " +
               std::to_string(hi) + "\n";
      *value = v;
      return "ok\n";
    };
    auto digits = [&](std::string* value, size_t lo, size_t hi) -> std::string {
      if (args.size() != 1 || args[0].size() < lo || args[0].size() > hi ||
          args[0].find_first_not_of("0123456789") != std::string::npos)
        return "error: " + cmd + " takes " + std::to_string(lo) + " to " + std::to_string(hi) +
               " digits\n";
      *value = args[0];
      return "ok\n";
    };

    if (cmd.empty()) return "ok\n";
    if (cmd == "help") return help() + "ok\n";
    if (cmd == "register") {
      if (args.size() > 1 || (args.size() == 1 && args[0] != "home" && args[0] != "roaming"))
        return "error: register takes home or roaming\n";
      return set_stat(!args.empty() && args[0] == "roaming" ? 5 : 1);
    }
    if (cmd == "deregister") {
      int stat = 0;
      if (!args.empty() && (args.size() != 1 || !parse_int(args[0], &stat) || stat == 1 ||
                            stat == 5 || stat < 0 || stat > 5))
        return "error: deregister takes a state 0, 2, 3 or 4\n";
      return set_stat(stat);
    }
    if (cmd == "stat") {
      int stat = 0;
      std::string r = number(&stat, -1, 99);
      return r == "ok\n" ? set_stat(stat) : r;
    }
    if (cmd == "n") return number(&model.n, 0, 5);
    if (cmd == "act") return number(&model.act, 0, 99);
    if (cmd == "cell") {
      if (args.size() != 2) return "error: cell takes TAC CI\n";
      model.tac = args[0];
      model.ci = args[1];
      if (model.autoreport && registered()) push(report());
      return "ok\n";
    }
    if (cmd == "plmn") return digits(&model.plmn, 0, 8);
    if (cmd == "imsi") return digits(&model.imsi, 0, 19);
    if (cmd == "duplex") {
      if (args.size() != 1 || (args[0] != "FDD" && args[0] != "TDD" && args[0] != "none"))
        return "error: duplex takes FDD, TDD or none\n";
      model.duplex = args[0] == "none" ? "" : args[0];
      return "ok\n";
    }
    if (cmd == "quote") return on_off(&model.quoted);
    if (cmd == "spacing") return on_off(&model.spaced);
    if (cmd == "autoreport") return on_off(&model.autoreport);
    if (cmd == "answer") {
      if (args.empty()) return "error: answer takes COMMAND [TEXT]\n";
      size_t at = rest.find_first_not_of(' ', args[0].size());
      std::string text = at == std::string::npos ? "" : rest.substr(at);
      if (args.size() == 1)
        model.raw.erase(upper(args[0]));
      else
        model.raw[upper(args[0])] = unescape(text);
      return "ok\n";
    }
    if (cmd == "fail") {
      int count = 0, code = -1;
      bool ok = !args.empty() && parse_int(args[0], &count) && count >= 0;
      if (ok && args.size() == 3 && args[1] == "cme")
        ok = parse_int(args[2], &code) && code >= 0;
      else if (ok && args.size() != 1)
        ok = false;
      if (!ok) return "error: fail takes N [cme CODE]\n";
      faults.fail = count;
      faults.cme = code;
      return "ok\n";
    }
    if (cmd == "delay") return number(&faults.delay_ms, 0, 600000);
    if (cmd == "split") return number(&faults.split_ms, 0, 600000);
    if (cmd == "silent") return on_off(&faults.silent);
    if (cmd == "close") {
      faults.close_next = true;
      return "ok\n";
    }
    if (cmd == "report") {
      push(report());
      return "ok\n";
    }
    if (cmd == "push") {
      if (rest.empty()) return "error: push takes TEXT\n";
      push(unescape(rest));
      return "ok\n";
    }
    if (cmd == "wan4" || cmd == "wan6") {
      if (args.size() != 1) return "error: " + cmd + " takes ADDRESS or none\n";
      (cmd == "wan4" ? model.wan4 : model.wan6) = args[0] == "none" ? "" : args[0];
      return write_wan();
    }
    if (cmd == "record") {
      std::string out;
      for (const auto& r : record)
        out += std::to_string(r.connection) + " " + escape(r.text) + "\n";
      return out + "ok\n";
    }
    if (cmd == "bytes") {
      int connection = 0;
      std::string r = number(&connection, 1, 9999);
      return r == "ok\n" ? escape(bytes_in[connection]) + "\nok\n" : r;
    }
    if (cmd == "sessions") {
      std::string out;
      for (const auto& s : sessions)
        out += std::string(s.activate ? "ACTIVATE " : "DEACTIVATE ") + s.args + "\n";
      return out + "ok\n";
    }
    return "error: unknown command '" + cmd + "' (try help)\n";
  }

  // The router's uci file of WAN addresses, as its network scripts leave it;
  // the fake uci reads it as the router's uci does.
  std::string write_wan() {
    std::string file = path("/tmp/wan");
    std::ofstream out(file, std::ios::trunc);
    out << "config status 'status'\n";
    if (!model.wan4.empty()) out << "\toption ipv4_addr '" << model.wan4 << "'\n";
    if (!model.wan6.empty()) out << "\toption ipv6_addr_global '" << model.wan6 << "'\n";
    out.flush();
    return out ? "ok\n" : "error: cannot write " + file + "\n";
  }

  // --- serving -------------------------------------------------------------

  void accept_on(int listen_fd, std::vector<Conn>& conns) {
    int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) conns.push_back({fd, &conns == &cmd_conns ? next_id++ : 0, {}});
  }

  void drop(std::vector<Conn>& conns, size_t i) {
    schedule.erase(std::remove_if(schedule.begin(), schedule.end(),
                                  [&](auto& s) { return s.fd == conns[i].fd; }),
                   schedule.end());
    close(conns[i].fd);
    conns.erase(conns.begin() + static_cast<long>(i));
  }

  void serve() {
    std::unique_lock lock(mtx);
    while (running) {
      // Answers due now go out before the next wait, so an answer without
      // a delay leaves as soon as its command is read.
      while (!schedule.empty() && schedule.front().at <= Clock::now()) {
        write_all(schedule.front().fd, schedule.front().bytes);
        schedule.erase(schedule.begin());
      }
      std::vector<pollfd> fds;
      for (int fd : {wake[0], cmd_listen, unsol_listen, ctl_listen})
        if (fd >= 0) fds.push_back({fd, POLLIN, 0});
      for (auto* conns : {&cmd_conns, &unsol_conns, &ctl_conns})
        for (const auto& c : *conns) fds.push_back({c.fd, POLLIN, 0});
      int timeout = -1;
      if (!schedule.empty()) {
        // Rounded up: waking before the answer is due would only spin.
        auto us = std::chrono::duration_cast<std::chrono::microseconds>(schedule.front().at -
                                                                        Clock::now())
                      .count();
        timeout = static_cast<int>(std::clamp<long long>((us + 999) / 1000, 0, 600000));
      }
      lock.unlock();
      poll(fds.data(), fds.size(), timeout);
      lock.lock();
      if (!running) break;
      for (const auto& p : fds) {
        if (!(p.revents & (POLLIN | POLLHUP | POLLERR))) continue;
        if (p.fd == wake[0]) {
          char buf[64];
          while (read(wake[0], buf, sizeof buf) > 0) {
          }
        } else if (p.fd == cmd_listen) {
          accept_on(cmd_listen, cmd_conns);
        } else if (p.fd == unsol_listen) {
          accept_on(unsol_listen, unsol_conns);
        } else if (p.fd == ctl_listen) {
          accept_on(ctl_listen, ctl_conns);
        } else {
          read_from(p.fd);
        }
      }
    }
  }

  void read_from(int fd) {
    for (auto* conns : {&cmd_conns, &unsol_conns, &ctl_conns}) {
      for (size_t i = 0; i < conns->size(); ++i) {
        Conn& c = (*conns)[i];
        if (c.fd != fd) continue;
        char buf[4096];
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) {
          drop(*conns, i);
          return;
        }
        if (conns == &unsol_conns) return;  // nothing is asked on that socket
        c.in.append(buf, static_cast<size_t>(n));
        if (conns == &cmd_conns) {
          bytes_in[c.id].append(buf, static_cast<size_t>(n));
          if (!take_commands(c)) drop(*conns, i);
        } else {
          size_t end;
          while ((end = c.in.find('\n')) != std::string::npos) {
            std::string line = c.in.substr(0, end);
            c.in.erase(0, end + 1);
            write_all(c.fd, run(line));
          }
          if (c.in.size() > MAX_LINE) drop(*conns, i);
        }
        return;
      }
    }
  }
};

Simulator::Simulator(Options options) : impl_(new Impl) { impl_->options = std::move(options); }

Simulator::~Simulator() {
  stop();
  delete impl_;
}

bool Simulator::start(std::string* error) {
  Impl& s = *impl_;
  std::string config = config_path();
  std::string dir = config.substr(0, config.rfind('/'));
  struct stat st {};
  if (!(s.options.keep_config && stat(config.c_str(), &st) == 0)) {
    std::ofstream out;
    if (mkdirs(dir)) out.open(config, std::ios::trunc);
    out << s.options.cmd_socket << ",CUSTOM2,atsw-sim commands\n"
        << s.options.unsol_socket << ",VVMUNSOL,atsw-sim unsolicited reports\n";
    out.flush();
    if (!out) {
      *error = "cannot write " + config + ": " + strerror(errno);
      return false;
    }
  }
  if (!mkdirs(s.path("/tmp")) || !mkdirs(s.path("/uci/tmp"))) {
    *error = "cannot make " + s.path("/tmp") + ": " + strerror(errno);
    return false;
  }
  s.cmd_listen = listen_unix(socket_path(s.options.cmd_socket), error);
  if (s.cmd_listen < 0) return false;
  s.unsol_listen = listen_unix(socket_path(s.options.unsol_socket), error);
  if (s.unsol_listen < 0) return false;
  if (s.options.control_socket && (s.ctl_listen = listen_unix(control_path(), error)) < 0)
    return false;
  if (pipe2(s.wake, O_CLOEXEC | O_NONBLOCK) != 0) {
    *error = std::string("cannot make a pipe: ") + strerror(errno);
    return false;
  }
  s.running = true;
  s.loop = std::thread([&s] { s.serve(); });
  return true;
}

void Simulator::stop() {
  Impl& s = *impl_;
  {
    std::lock_guard lock(s.mtx);
    s.running = false;
    if (s.wake[1] >= 0) {
      ssize_t ignored = write(s.wake[1], "x", 1);
      (void)ignored;
    }
  }
  if (s.loop.joinable()) s.loop.join();
  for (auto* conns : {&s.cmd_conns, &s.unsol_conns, &s.ctl_conns}) {
    for (auto& c : *conns) close(c.fd);
    conns->clear();
  }
  for (int* fd : {&s.cmd_listen, &s.unsol_listen, &s.ctl_listen, &s.wake[0], &s.wake[1]}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
}

std::string Simulator::control(const std::string& line) {
  std::lock_guard lock(impl_->mtx);
  std::string reply = impl_->run(line);
  if (impl_->wake[1] >= 0) {  // the schedule or the model may have changed
    ssize_t ignored = write(impl_->wake[1], "x", 1);
    (void)ignored;
  }
  return reply;
}

std::string Simulator::help() {
  return "register [home|roaming]   registered (stat 1 or 5)\n"
         "deregister [0|2|3|4]      not registered (default 0)\n"
         "stat N | n N | act N      registration state, +CEREG n, access technology\n"
         "cell TAC CI               serving tracking area and cell\n"
         "plmn DIGITS | imsi DIGITS operator and subscriber identity\n"
         "duplex FDD|TDD|none       duplexing mode (none: not camped)\n"
         "quote on|off              tac and ci in double quotes (default off)\n"
         "spacing on|off            a blank after each comma\n"
         "answer CMD [TEXT]         raw answer for CMD (escapes \\r \\n \\\" \\xHH);\n"
         "                          no TEXT: back to the model\n"
         "fail N [cme CODE]         the next N commands get ERROR (or +CME ERROR: CODE)\n"
         "delay MS                  answer after MS milliseconds\n"
         "split MS                  send the next answer in two writes, MS apart\n"
         "silent on|off             never answer\n"
         "close                     close the connection on its next command\n"
         "report                    push a registration report from the model\n"
         "push TEXT                 push raw text on the unsolicited socket\n"
         "autoreport on|off         push a report when the registration changes\n"
         "wan4 ADDR|none            WAN IPv4 address for the fake uci\n"
         "wan6 ADDR|none            WAN IPv6 address for the fake uci\n"
         "record                    commands received: connection and text\n"
         "bytes N                   what command connection N received, byte for byte, escaped\n"
         "sessions                  AT%MBMSCMD activations and deactivations\n";
}

std::vector<Received> Simulator::record() const {
  std::lock_guard lock(impl_->mtx);
  return impl_->record;
}

std::string Simulator::received_bytes(int connection) const {
  std::lock_guard lock(impl_->mtx);
  auto it = impl_->bytes_in.find(connection);
  return it == impl_->bytes_in.end() ? "" : it->second;
}

int Simulator::unsol_connections() const {
  std::lock_guard lock(impl_->mtx);
  return static_cast<int>(impl_->unsol_conns.size());
}

std::vector<Session> Simulator::sessions() const {
  std::lock_guard lock(impl_->mtx);
  return impl_->sessions;
}

std::string Simulator::config_path() const {
  return impl_->path("/etc/atswitch_config/atswitch_ecm_config.csv");
}
std::string Simulator::socket_path(int number) const {
  return impl_->path("/tmp/atsw" + std::to_string(number));
}
std::string Simulator::control_path() const { return impl_->path("/tmp/atsw-sim.ctl"); }
std::string Simulator::uci_dir() const { return impl_->path("/uci"); }

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
