// zordctl: asks a running zord for its serving cell or subscriber identity,
// watches its events, or sends it one AT command line, over its client port.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <string>
#include <vector>

#include "zord_version.h"

namespace {

// Exit statuses.
enum Status { ANSWERED = 0, USAGE = 2, UNREACHABLE = 3, REFUSED = 4, CLOSED = 5, NO_ANSWER = 6 };

constexpr int DEFAULT_PORT = 6666;
constexpr int MAX_TIMEOUT_MS = 3600000;
// Answers without a final result (AT+CEVVMEV?) end when nothing follows for this long.
constexpr int SETTLE_MS = 500;
// The daemon takes one receive of at most 128 characters, line end included.
constexpr size_t MAX_SEND = 126;
// A longer run without a line end is taken as a line of its own.
constexpr size_t MAX_LINE = 4096;

const char USAGE_TEXT[] =
    "usage: zordctl [--host H] [--port N] [--timeout MS] [--source ADDR] [--json] COMMAND\n"
    "commands:\n"
    "  cell          print the serving cell: +CEVVMEV:<cell>,<duplex>\n"
    "  identity      print the identity: +CEVVMCMD:<imsi>,<cell>,<duplex>\n"
    "  watch         print each event with the local time until interrupted\n"
    "  send LINE     send one AT command line and print its answer\n"
    "options:\n"
    "  --host H      the daemon's IPv4 address (default 127.0.0.1)\n"
    "  --port N      its TCP port (default $ZORD_PORT, else 6666)\n"
    "  --timeout MS  how long to wait for each answer (default 5000)\n"
    "  --source ADDR the local IPv4 address to connect from (default: to a daemon\n"
    "                on 127.x.x.x, an address of this run's own in 127.0.0.0/8,\n"
    "                since a new client from the daemon's first client's address\n"
    "                drops that client)\n"
    "  --json        cell, identity, watch: one JSON object a line, fields decoded\n"
    "  --version     print the version and exit\n"
    "exit status: 0 answered, 2 usage, 3 not reachable, 4 refused (ERROR),\n"
    "             5 the daemon closed the connection, 6 no answer in time\n";

// Ends the program: main prints the message (if any) and returns the status.
struct Failure {
  int status;
  std::string message;
};

struct Options {
  std::string host = "127.0.0.1";
  int port = DEFAULT_PORT;
  int timeout_ms = 5000;
  std::string source;
  std::string command;
  std::string line;  // what `send` sends
  bool json = false;
};

using Clock = std::chrono::steady_clock;

std::string reason() { return strerror(errno); }

// Digits only, so that "12x", "-1" and "+1" are refused rather than half read.
bool parse_number(const std::string& text, int lo, int hi, int* value) {
  if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  int v = std::atoi(text.c_str());
  if (v < lo || v > hi) return false;
  *value = v;
  return true;
}

bool parse_ipv4(const std::string& text, in_addr* addr) { return inet_pton(AF_INET, text.c_str(), addr) == 1; }

int port_number(const std::string& name, const std::string& text) {
  int port = 0;
  if (!parse_number(text, 1, 65535, &port))
    throw Failure{USAGE, name + " must be a port number from 1 to 65535: " + text};
  return port;
}

Options parse_options(int argc, char** argv) {
  Options o;
  bool port_given = false;
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h" || arg == "--version") {
      o.command = arg == "--version" ? "version" : "help";
      return o;
    }
    if (arg == "--json") {
      o.json = true;
      continue;
    }
    size_t eq = arg.find('=');
    std::string name = arg.substr(0, eq);
    if (name != "--host" && name != "--port" && name != "--timeout" && name != "--source")
      throw Failure{USAGE, "unknown option: " + arg};
    if (eq == std::string::npos && i + 1 >= argc) throw Failure{USAGE, name + " needs a value"};
    std::string value = eq == std::string::npos ? argv[++i] : arg.substr(eq + 1);
    in_addr addr{};
    if (name == "--host" || name == "--source") {
      if (!parse_ipv4(value, &addr)) throw Failure{USAGE, name + " must be an IPv4 address: " + value};
      (name == "--host" ? o.host : o.source) = value;
    } else if (name == "--port") {
      o.port = port_number(name, value);
      port_given = true;
    } else if (!parse_number(value, 1, MAX_TIMEOUT_MS, &o.timeout_ms)) {
      throw Failure{USAGE, "--timeout must be a number of milliseconds from 1 to " + std::to_string(MAX_TIMEOUT_MS) +
                               ": " + value};
    }
  }
  const char* env_port = std::getenv("ZORD_PORT");
  if (!port_given && env_port != nullptr && *env_port != '\0') o.port = port_number("ZORD_PORT", env_port);

  std::vector<std::string> words(argv + i, argv + argc);
  if (words.empty()) throw Failure{USAGE, "no command given"};
  if (words[0] != "send" && std::erase(words, "--json") > 0) o.json = true;  // also after the command
  o.command = words[0];
  if (o.command == "send") {
    if (words.size() != 2) throw Failure{USAGE, "send takes one LINE (quote it if it holds blanks)"};
    o.line = words[1];
    if (o.line.empty() || o.line.find_first_of("\r\n") != std::string::npos)
      throw Failure{USAGE, "the LINE to send must be one non-empty line"};
    if (o.line.size() > MAX_SEND)
      throw Failure{USAGE, "the LINE to send is longer than " + std::to_string(MAX_SEND) + " characters"};
  } else if (o.command == "cell" || o.command == "identity" || o.command == "watch") {
    if (words.size() != 1) throw Failure{USAGE, o.command + " takes no arguments"};
  } else {
    throw Failure{USAGE, "unknown command: " + o.command};
  }
  if (o.json && o.command == "send") throw Failure{USAGE, "--json is for cell, identity and watch"};
  return o;
}

// What the daemon takes from a client: any other line gets ERROR and the
// connection closed.
bool daemon_accepts(const std::string& line) {
  auto begins = [&](const char* prefix) { return strncasecmp(line.c_str(), prefix, strlen(prefix)) == 0; };
  return line.size() + 2 <= 128 && (begins("ATE") || begins("AT+CEVVMCMD") || begins("AT+CEVVMEV"));
}

const char ACCEPTED_FORMS[] =
    "the daemon takes only lines that begin with ATE, AT+CEVVMCMD or AT+CEVVMEV and closes the connection "
    "after any other";

// A loopback address of this run's own, from 127.0.0.2 to 127.255.255.254
// with neither 0 nor 255 last: tools on one host then never share one.
in_addr own_loopback_address() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  uint32_t mix = static_cast<uint32_t>(getpid()) * 2654435761u ^ static_cast<uint32_t>(now.tv_nsec) ^
                 static_cast<uint32_t>(now.tv_sec);
  uint32_t high = mix % 0x10000u, low = 1 + (mix >> 16) % 254;  // 127.high.low
  if (high == 0 && low == 1) low = 2;
  in_addr addr{};
  addr.s_addr = htonl(0x7F000000u | high << 8 | low);
  return addr;
}

// SIGINT and SIGTERM end `watch` through this pipe, so that a signal landing
// just before poll() is not lost.
int wake_pipe[2] = {-1, -1};

void on_signal(int) {
  int saved = errno;
  ssize_t ignored = write(wake_pipe[1], "x", 1);
  (void)ignored;
  errno = saved;
}

void catch_stop_signals() {
  if (pipe(wake_pipe) != 0) throw Failure{UNREACHABLE, "cannot make a pipe: " + reason()};
  fcntl(wake_pipe[1], F_SETFL, O_NONBLOCK);
  struct sigaction action {};
  action.sa_handler = on_signal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

enum class Got { LINE, TIME_UP, INTERRUPTED };

// The connection to the daemon, read as lines.
class Link {
 public:
  explicit Link(const Options& o) : timeout_ms_(o.timeout_ms) {
    std::string where = o.host + ":" + std::to_string(o.port);
    sockaddr_in remote{};
    remote.sin_family = AF_INET;
    remote.sin_port = htons(static_cast<uint16_t>(o.port));
    parse_ipv4(o.host, &remote.sin_addr);
    fd_.fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd_.fd < 0) throw Failure{UNREACHABLE, "cannot make a socket: " + reason()};
    fcntl(fd_.fd, F_SETFL, O_NONBLOCK);  // so that connect() and send() keep to the timeout
    sockaddr_in local{};
    local.sin_family = AF_INET;
    if (!o.source.empty()) {
      parse_ipv4(o.source, &local.sin_addr);
      if (bind(fd_.fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0)
        throw Failure{UNREACHABLE, "cannot bind to " + o.source + ": " + reason()};
    } else if ((ntohl(remote.sin_addr.s_addr) >> 24) == 127) {
      local.sin_addr = own_loopback_address();
      // Where 127/8 is not all loopback, the system's choice will do.
      if (bind(fd_.fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) local.sin_addr.s_addr = 0;
    }
    if (connect(fd_.fd, reinterpret_cast<sockaddr*>(&remote), sizeof remote) != 0) {
      if (errno != EINPROGRESS) throw Failure{UNREACHABLE, "cannot connect to " + where + ": " + reason()};
      pollfd p{fd_.fd, POLLOUT, 0};
      int ready;
      while ((ready = poll(&p, 1, timeout_ms_)) < 0 && errno == EINTR) {
      }
      if (ready == 0)
        throw Failure{UNREACHABLE, "cannot connect to " + where + ": no answer within " + std::to_string(timeout_ms_) +
                                       " ms"};
      // A second connect() reports how the first ended through errno, which
      // an emulator translates (SO_ERROR's value it may pass on untranslated).
      if (connect(fd_.fd, reinterpret_cast<sockaddr*>(&remote), sizeof remote) != 0 && errno != EISCONN)
        throw Failure{UNREACHABLE, "cannot connect to " + where + ": " + reason()};
    }
  }

  int timeout_ms() const { return timeout_ms_; }
  void watch_signals(bool on) { wake_fd_ = on ? wake_pipe[0] : -1; }

  // One line per write: the daemon takes each receive as one line.
  void send_line(const std::string& line) {
    last_line_ = line;
    std::string bytes = line + "\r\n";
    for (;;) {
      ssize_t n = send(fd_.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (n == static_cast<ssize_t>(bytes.size())) return;
      if (n >= 0) throw Failure{CLOSED, "could not send " + line + " in one piece"};
      if (errno == EPIPE || errno == ECONNRESET) throw Failure{CLOSED, closed()};
      if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
        throw Failure{CLOSED, "cannot send to the daemon: " + reason()};
      pollfd p{fd_.fd, POLLOUT, 0};
      if (errno != EINTR && poll(&p, 1, timeout_ms_) == 0)
        throw Failure{NO_ANSWER, "the daemon took nothing within " + std::to_string(timeout_ms_) + " ms"};
    }
  }

  // The next non-empty line, without CR, within wait_ms (negative: no limit).
  // Throws when the daemon closes the connection.
  Got next_line(int wait_ms, std::string* line) {
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(wait_ms < 0 ? 0 : wait_ms);
    for (;;) {
      if (take_line(line)) return Got::LINE;
      int left = -1;
      if (wait_ms >= 0) {
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        left = ms > 0 ? static_cast<int>(ms) : 0;
      }
      pollfd p[2] = {{fd_.fd, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
      int ready = poll(p, 2, left);
      if (ready < 0 && errno != EINTR) throw Failure{CLOSED, "cannot wait for the daemon: " + reason()};
      if (ready == 0) return Got::TIME_UP;
      if (ready > 0 && (p[1].revents & POLLIN) != 0) return Got::INTERRUPTED;
      if (ready > 0) receive();
    }
  }

 private:
  struct Fd {
    int fd = -1;
    ~Fd() {
      if (fd >= 0) close(fd);
    }
  };

  bool take_line(std::string* line) {
    if (!pending_.empty()) answered_ = true;
    for (;;) {
      size_t end = pending_.find('\n');
      if (end == std::string::npos && pending_.size() < MAX_LINE) return false;
      size_t size = end == std::string::npos ? MAX_LINE : end;
      *line = pending_.substr(0, size);
      pending_.erase(0, end == std::string::npos ? size : size + 1);
      std::erase(*line, '\r');
      if (!line->empty()) return true;
    }
  }

  void receive() {
    char buf[512];
    ssize_t n = recv(fd_.fd, buf, sizeof buf, 0);
    if (n > 0) pending_.append(buf, static_cast<size_t>(n));
    else if (n == 0) throw Failure{CLOSED, closed()};
    else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
      throw Failure{CLOSED, closed() + " (" + reason() + ")"};
  }

  // The message for a connection the daemon ended, with its likely cause.
  std::string closed() const {
    if (!daemon_accepts(last_line_)) return "the daemon closed the connection after " + last_line_ + ": " + ACCEPTED_FORMS;
    sockaddr_in local{};
    socklen_t size = sizeof local;
    char text[INET_ADDRSTRLEN] = "?";
    if (getsockname(fd_.fd, reinterpret_cast<sockaddr*>(&local), &size) == 0)
      inet_ntop(AF_INET, &local.sin_addr, text, sizeof text);
    std::string same_address = std::string("another client connected from this one's address (") + text +
                               "), which drops the daemon's first client: give each client its own --source";
    // Before any answer: the daemon takes at most ten clients and closes the rest at once.
    if (!answered_) return "the daemon closed the connection at once: it serves ten clients already, or " + same_address;
    return "the daemon closed the connection; most likely " + same_address;
  }

  Fd fd_;
  int timeout_ms_;
  int wake_fd_ = -1;
  std::string pending_;
  std::string last_line_;
  bool answered_ = false;  // the daemon has sent something
};

bool is_final(const std::string& line) {
  return line == "OK" || line == "ERROR" || line.rfind("+CME ERROR", 0) == 0 || line.rfind("+CMS ERROR", 0) == 0;
}

bool starts_with(const std::string& line, const char* prefix) { return line.rfind(prefix, 0) == 0; }

// Sends a line and collects its answer: up to a final result line, or up to
// the line `wanted` names (when given). With `settle`, once lines came the
// answer also ends when nothing more arrives for a while: information-only
// answers have no final result. No line in time is a failure.
std::vector<std::string> ask(Link& link, const std::string& line, const char* wanted = nullptr, bool settle = false) {
  link.send_line(line);
  std::vector<std::string> lines;
  Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(link.timeout_ms());
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    int wait_ms = left > 0 ? static_cast<int>(left) : 0;
    if (settle && !lines.empty() && wait_ms > SETTLE_MS) wait_ms = SETTLE_MS;
    std::string got;
    switch (link.next_line(wait_ms, &got)) {
      case Got::INTERRUPTED:
        throw Failure{ANSWERED, ""};
      case Got::TIME_UP:
        if (settle && !lines.empty()) return lines;
        throw Failure{NO_ANSWER, "no answer to " + line + " within " + std::to_string(link.timeout_ms()) + " ms"};
      case Got::LINE:
        lines.push_back(got);
        if (is_final(got) || (wanted != nullptr && starts_with(got, wanted))) return lines;
    }
  }
}

// The line that starts with `wanted`; a refusal or its absence fails.
std::string answer_line(const std::vector<std::string>& lines, const std::string& sent, const char* wanted) {
  if (lines.back() != "OK" && is_final(lines.back()))
    throw Failure{REFUSED, "the daemon answered " + lines.back() + " to " + sent};
  for (const auto& l : lines)
    if (starts_with(l, wanted)) return l;
  throw Failure{NO_ANSWER, "the daemon answered " + sent + " without a " + wanted + " line"};
}

void expect_ok(Link& link, const std::string& line) {
  std::vector<std::string> lines = ask(link, line);
  if (lines.back() != "OK") throw Failure{REFUSED, "the daemon answered " + lines.back() + " to " + line};
}

// The local time now, in a strftime format.
std::string local_time(const char* format) {
  time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  char text[32];
  strftime(text, sizeof text, format, &local);
  return text;
}

// --json: one object a line. The cell text is the PLMN (6 digits, or 5 in a
// 16-character text), the tracking area (4) and the cell id less its first
// digit (7); any other length is given whole only. NULL becomes null.
std::string json_text(const std::string& text) {
  if (text == "NULL") return "null";
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c >= 0x7F) {
      char escaped[8];
      snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

std::vector<std::string> split_fields(const std::string& text) {
  std::vector<std::string> fields;
  for (size_t start = 0;;) {
    size_t comma = text.find(',', start);
    fields.push_back(text.substr(start, comma - start));
    if (comma == std::string::npos) return fields;
    start = comma + 1;
  }
}

std::string json_cell(const std::string& cell) {
  size_t plmn = cell.size() == 17 ? 6 : cell.size() == 16 ? 5 : 0;
  auto part = [&](size_t from, size_t size) { return plmn == 0 ? std::string("null") : json_text(cell.substr(from, size)); };
  return ",\"cell\":" + json_text(cell) + ",\"plmn\":" + part(0, plmn) + ",\"tac\":" + part(plmn, 4) +
         ",\"cell_id\":" + part(plmn + 4, 7);
}

std::string json_line(const std::string& line) {
  std::string out = "{\"time\":\"" + local_time("%Y-%m-%dT%H:%M:%S%z") + "\"";
  bool event = starts_with(line, "+CEVVMEV:"), identity = starts_with(line, "+CEVVMCMD:");
  std::vector<std::string> f = split_fields(line.substr(line.find(':') + 1));
  if (identity && f.size() == 3) {
    out += ",\"imsi\":" + json_text(f[0]) + json_cell(f[1]) + ",\"duplex\":" + json_text(f[2]);
  } else if (event && (f.size() == 2 || f.size() == 3)) {
    out += json_cell(f[0]) + ",\"duplex\":" + json_text(f[1]);
    if (f.size() == 3)
      out += ",\"changed\":" + (f[2] == "0" || f[2] == "1" ? f[2] : json_text(f[2]));
  } else {
    out += ",\"line\":" + json_text(line);
  }
  return out + "}";
}

int watch(Link& link, const std::string& where, bool json) {
  expect_ok(link, "AT+CEVVMEV=1");
  // From here on every event reaches us: scripts wait for this line.
  std::cerr << "zordctl: watching " << where << std::endl;
  for (std::string line;;) {
    if (link.next_line(-1, &line) == Got::LINE) {
      if (json) std::cout << json_line(line) << std::endl;
      else std::cout << local_time("%H:%M:%S ") << line << std::endl;
      continue;
    }
    // Unsubscribe and read the answer before closing: the daemon may be
    // writing an event, and writing to a closed connection ends it.
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    link.watch_signals(false);
    try {
      ask(link, "AT+CEVVMEV=0");
    } catch (const Failure&) {
      // Stopping is what was asked for; a failed farewell changes nothing.
    }
    return ANSWERED;
  }
}

int run(const Options& o) {
  if (o.command == "watch") catch_stop_signals();
  Link link(o);
  if (o.command == "watch") link.watch_signals(true);
  expect_ok(link, "AT+CEVVMCMD=1");
  if (o.command == "watch") return watch(link, o.host + ":" + std::to_string(o.port), o.json);
  if (o.command == "cell" || o.command == "identity") {
    bool cell = o.command == "cell";
    const char* query = cell ? "AT+CEVVMEV?" : "AT+CEVVMCMD?";
    const char* wanted = cell ? "+CEVVMEV:" : "+CEVVMCMD:";
    std::string line = answer_line(ask(link, query, cell ? wanted : nullptr), query, wanted);
    std::cout << (o.json ? json_line(line) : line) << '\n';
  } else {
    std::vector<std::string> lines = ask(link, o.line, nullptr, true);
    for (const auto& l : lines) std::cout << l << '\n';
    if (lines.back() != "OK" && is_final(lines.back()))
      throw Failure{REFUSED, "the daemon answered " + lines.back() + " to " + o.line +
                                 (daemon_accepts(o.line) ? "" : std::string(": ") + ACCEPTED_FORMS)};
  }
  return ANSWERED;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Options o = parse_options(argc, argv);
    if (o.command == "help" || o.command == "version") {
      std::cout << (o.command == "help" ? USAGE_TEXT : "zordctl " ZORD_VERSION_TEXT "\n");
      return ANSWERED;
    }
    return run(o);
  } catch (const Failure& f) {
    std::cout.flush();
    if (!f.message.empty()) std::cerr << "zordctl: " << f.message << '\n';
    if (f.status == USAGE) std::cerr << USAGE_TEXT;
    return f.status;
  }
}
