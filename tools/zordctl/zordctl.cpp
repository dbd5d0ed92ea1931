// zordctl: asks a running zord for its serving cell or subscriber identity,
// watches its events, sends it one AT command line, or checks the whole road
// to the modem, over its client port. It needs only the C library.
#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "embms/cell_query.h"
#include "tools/zordctl/holder.h"
#include "tools/zordctl/link.h"
#include "zord_version.h"

namespace {

constexpr int DEFAULT_PORT = 6666;
constexpr int MAX_TIMEOUT_MS = 3600000;
// Answers without a final result end when nothing follows for this long.
constexpr Millis SETTLE_MS = 500;

const char USAGE_TEXT[] =
    "usage: zordctl [--host H] [--port N] [--timeout MS] [--source ADDR] [--json]\n"
    "               [--output FILE] COMMAND\n"
    "commands:\n"
    "  cell          print the serving cell: +CEVVMEV:<cell>,<duplex>\n"
    "  identity      print the identity: +CEVVMCMD:<imsi>,<cell>,<duplex>\n"
    "  watch         print each event with the local time until interrupted\n"
    "  send LINE     send one AT command line and print its answer\n"
    "  check         probe the daemon, the AT switch and the modem, and print one\n"
    "                line: 'serving: registered on <cell>, <duplex>',\n"
    "                'serving: not registered' or '<result>: <message>'\n"
    "options:\n"
    "  --host H      the daemon's IPv4 address (default 127.0.0.1)\n"
    "  --port N      its TCP port (default $ZORD_PORT, else 6666)\n"
    "  --timeout MS  how long to wait for each answer, for check in all\n"
    "                (default 5000)\n"
    "  --source ADDR the local IPv4 address to connect from (default: to a daemon\n"
    "                on 127.x.x.x, an address of this run's own in 127.0.0.0/8,\n"
    "                since a new client from the daemon's first client's address\n"
    "                drops that client)\n"
    "  --json        cell, identity, watch, check: one JSON object a line\n"
    "  --output FILE check: write the line to FILE instead, replacing it whole\n"
    "                (through FILE.new), so that a reader never finds half of it\n"
    "  --version     print the version and exit\n"
    "exit status, and check's result:\n"
    "  0 answered                                    serving\n"
    "  2 usage error, or --output cannot be written\n"
    "  3 not reachable                               not-listening\n"
    "  4 refused (ERROR); the modem gives no data    modem-error\n"
    "  5 the daemon closed the connection            closed\n"
    "  6 no answer in time                           no-answer\n"
    "  7 the daemon reaches no AT switch             no-modem\n"
    "  8 closed at once: ten clients served already  full\n"
    "  9 an answer of the wrong shape                wrong-answer\n"
    " 10 another program holds the port            foreign\n";

// check's result for each exit status (1 and 2 are not results).
constexpr const char* RESULTS[] = {
    "serving",   "",         "",     "not-listening", "modem-error", "closed",
    "no-answer", "no-modem", "full", "wrong-answer",  "foreign"};

enum class Command { NONE, HELP, VERSION, CELL, IDENTITY, WATCH, SEND, CHECK };

struct Options {
  const char* host = "127.0.0.1";
  int port = DEFAULT_PORT;
  int timeout_ms = 5000;
  const char* source = nullptr;  // null: the own choice
  const char* output = nullptr;  // check's file, or null for standard output
  Command command = Command::NONE;
  const char* line = nullptr;  // what `send` sends
  bool json = false;
};

bool is(const char* text, const char* other) { return strcmp(text, other) == 0; }
bool starts_with(std::string_view text, std::string_view prefix) {
  return text.starts_with(prefix);
}

// ---- Output: each line built whole, then written at once.

struct Out {
  char text[8 * MAX_LINE];  // the longest line taken, every byte escaped for JSON
  size_t size = 0;
} out;

void add(std::string_view text) {
  size_t size = text.size() < sizeof out.text - out.size ? text.size() : sizeof out.text - out.size;
  memcpy(out.text + out.size, text.data(), size);
  out.size += size;
}

void addf(const char* format, ...) __attribute__((format(printf, 1, 2)));
void addf(const char* format, ...) {
  size_t room = sizeof out.text - out.size;
  if (room == 0) return;
  va_list args;
  va_start(args, format);
  int n = vsnprintf(out.text + out.size, room, format, args);
  va_end(args);
  if (n > 0) out.size += static_cast<size_t>(n) < room ? static_cast<size_t>(n) : room - 1;
}

void flush(int fd) {
  for (size_t done = 0; done < out.size;) {
    ssize_t n = write(fd, out.text + done, out.size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  out.size = 0;
}

void add_local_time(const char* format) {
  time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  char text[32];
  add(std::string_view(text, strftime(text, sizeof text, format, &local)));
}

// ---- JSON: one object a line. NULL becomes null.

void add_json(std::string_view text) {
  if (text == "NULL") return add("null");
  add("\"");
  for (unsigned char c : text) {
    if (c == '"' || c == '\\')
      addf("\\%c", c);
    else if (c < 0x20 || c >= 0x7F)
      addf("\\u%04x", c);
    else
      add(std::string_view(reinterpret_cast<const char*>(&c), 1));
  }
  add("\"");
}

void add_json_time() {
  add("{\"time\":\"");
  add_local_time("%Y-%m-%dT%H:%M:%S%z");
  add("\"");
}

// The fields of an answer line after its colon; count goes past the three kept.
struct Fields {
  std::string_view at[3];
  int count = 0;
};

Fields split(std::string_view line) {
  Fields f;
  size_t colon = line.find(':');
  if (colon != std::string_view::npos) line.remove_prefix(colon + 1);
  for (;;) {
    size_t comma = line.find(',');
    size_t size = comma == std::string_view::npos ? line.size() : comma;
    if (f.count < 3) f.at[f.count] = std::string_view(line.data(), size);
    ++f.count;
    if (comma == std::string_view::npos) return f;
    line.remove_prefix(comma + 1);
  }
}

// The cell text as the daemon lays it out (embms/cell_query.h): the PLMN (6
// digits, or 5 in a 16-character text), the tracking area (4) and the cell id
// less its first digit (7); any other length is given whole only.
void add_json_cell(std::string_view cell) {
  size_t plmn = cell.size() == CELL_ID_LENGTH         ? CELL_PLMN_WIDTH
                : cell.size() == CELL_ID_SHORT_LENGTH ? CELL_PLMN_SHORT_WIDTH
                                                      : 0;
  auto part = [&](size_t from, size_t size) {
    plmn == 0 ? add("null") : add_json(std::string_view(cell.data() + from, size));
  };
  add(",\"cell\":");
  add_json(cell);
  add(",\"plmn\":");
  part(0, plmn);
  add(",\"tac\":");
  part(plmn, CELL_TAC_WIDTH);
  add(",\"cell_id\":");
  part(plmn + CELL_TAC_WIDTH, CELL_CI_WIDTH);
}

void add_json_line(std::string_view line) {
  add_json_time();
  Fields f = split(line);
  if (starts_with(line, "+CEVVMCMD:") && f.count == 3) {
    add(",\"imsi\":");
    add_json(f.at[0]);
    add_json_cell(f.at[1]);
    add(",\"duplex\":");
    add_json(f.at[2]);
  } else if (starts_with(line, "+CEVVMEV:") && (f.count == 2 || f.count == 3)) {
    add_json_cell(f.at[0]);
    add(",\"duplex\":");
    add_json(f.at[1]);
    if (f.count == 3) add(",\"changed\":");
    bool flag = f.at[2] == "0" || f.at[2] == "1";
    if (f.count == 3 && flag) add(f.at[2]);
    if (f.count == 3 && !flag) add_json(f.at[2]);
  } else {
    add(",\"line\":");
    add_json(line);
  }
  add("}\n");
}

// ---- The command line.

// Digits only, so that "12x", "-1" and "+1" are refused rather than half read.
bool parse_number(const char* text, int lo, int hi, int* value) {
  size_t size = strlen(text);
  if (size == 0 || size > 9 || strspn(text, "0123456789") != size) return false;
  int v = atoi(text);
  if (v < lo || v > hi) return false;
  *value = v;
  return true;
}

int port_number(const char* name, const char* text, int* port) {
  if (parse_number(text, 1, 65535, port)) return ANSWERED;
  return fail(USAGE, "%s must be a port number from 1 to 65535: %s", name, text);
}

// One option with a value, as --name VALUE or --name=VALUE; i moves past it.
int parse_option(int argc, char** argv, int& i, Options& o, bool& port_given) {
  const char* arg = argv[i];
  const char* eq = strchr(arg, '=');
  char name[16] = {};
  size_t size = eq == nullptr ? strlen(arg) : static_cast<size_t>(eq - arg);
  if (size < sizeof name) memcpy(name, arg, size);
  if (!is(name, "--host") && !is(name, "--port") && !is(name, "--timeout") &&
      !is(name, "--source") && !is(name, "--output"))
    return fail(USAGE, "unknown option: %s", arg);
  if (eq == nullptr && i + 1 >= argc) return fail(USAGE, "%s needs a value", name);
  const char* value = eq == nullptr ? argv[++i] : eq + 1;
  if (is(name, "--port")) {
    port_given = true;
    return port_number(name, value, &o.port);
  }
  if (is(name, "--output")) {
    o.output = value;
    return strlen(value) + 5 <= PATH_MAX && *value != '\0'
               ? ANSWERED
               : fail(USAGE, "--output must name a file: %s", value);
  }
  if (is(name, "--timeout")) {
    if (parse_number(value, 1, MAX_TIMEOUT_MS, &o.timeout_ms)) return ANSWERED;
    return fail(USAGE, "--timeout must be a number of milliseconds from 1 to %d: %s",
                MAX_TIMEOUT_MS, value);
  }
  in_addr addr{};
  if (inet_pton(AF_INET, value, &addr) != 1)
    return fail(USAGE, "%s must be an IPv4 address: %s", name, value);
  (is(name, "--host") ? o.host : o.source) = value;
  return ANSWERED;
}

// The command and its words; --json may also come after it, but for `send`.
int parse_command(int argc, char** argv, Options& o) {
  if (argc == 0) return fail(USAGE, "no command given");
  const char* name = argv[0];
  static constexpr struct {
    const char* name;
    Command command;
  } COMMANDS[] = {{"cell", Command::CELL},
                  {"identity", Command::IDENTITY},
                  {"watch", Command::WATCH},
                  {"send", Command::SEND},
                  {"check", Command::CHECK}};
  for (const auto& c : COMMANDS)
    if (is(name, c.name)) o.command = c.command;
  if (o.command == Command::NONE) return fail(USAGE, "unknown command: %s", name);
  bool send = o.command == Command::SEND;
  int words = 0;
  for (int i = 1; i < argc; ++i) {
    if (!send && is(argv[i], "--json"))
      o.json = true;
    else if (++words == 1)
      o.line = argv[i];
  }
  if (o.output != nullptr && o.command != Command::CHECK)
    return fail(USAGE, "--output is for check");
  if (!send) return words == 0 ? ANSWERED : fail(USAGE, "%s takes no arguments", name);
  if (words != 1) return fail(USAGE, "send takes one LINE (quote it if it holds blanks)");
  if (*o.line == '\0' || strpbrk(o.line, "\r\n") != nullptr)
    return fail(USAGE, "the LINE to send must be one non-empty line");
  if (strlen(o.line) > MAX_SEND)
    return fail(USAGE, "the LINE to send is longer than %zu characters", MAX_SEND);
  if (o.json) return fail(USAGE, "--json is for cell, identity, watch and check");
  return ANSWERED;
}

int parse_options(int argc, char** argv, Options& o) {
  bool port_given = false;
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    if (is(argv[i], "--help") || is(argv[i], "-h") || is(argv[i], "--version")) {
      o.command = is(argv[i], "--version") ? Command::VERSION : Command::HELP;
      return ANSWERED;
    }
    if (is(argv[i], "--json")) {
      o.json = true;
      continue;
    }
    int status = parse_option(argc, argv, i, o, port_given);
    if (status != ANSWERED) return status;
  }
  const char* env_port = getenv("ZORD_PORT");
  if (!port_given && env_port != nullptr && *env_port != '\0') {
    int status = port_number("ZORD_PORT", env_port, &o.port);
    if (status != ANSWERED) return status;
  }
  return parse_command(argc - i, argv + i, o);
}

// ---- Asking.

// SIGINT and SIGTERM end `watch` through this pipe, so that a signal landing
// just before poll() is not lost.
int wake_pipe[2] = {-1, -1};

void on_signal(int) {
  int saved = errno;
  ssize_t ignored = write(wake_pipe[1], "x", 1);
  (void)ignored;
  errno = saved;
}

bool catch_stop_signals() {
  if (pipe(wake_pipe) != 0) return false;
  fcntl(wake_pipe[1], F_SETFL, O_NONBLOCK);
  struct sigaction action {};
  action.sa_handler = on_signal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  return true;
}

// An answer as far as it is kept: the number of its lines, the first, the
// last, and the first that begins with `wanted`.
struct Answer {
  const char* wanted = nullptr;
  // send: each line is printed as it comes, and once lines came, the answer
  // also ends when nothing more arrives for a while (some have no final result).
  bool raw = false;
  int count = 0;
  bool found = false;
  Line first, found_line, last;
};

void keep(Answer& a, const char* line) {
  size_t size = strlen(line) + 1;
  if (++a.count == 1) memcpy(a.first, line, size);
  if (a.wanted != nullptr && !a.found && starts_with(line, a.wanted)) {
    a.found = true;
    memcpy(a.found_line, line, size);
  }
  memcpy(a.last, line, size);
  if (a.raw) {
    addf("%s\n", line);
    flush(STDOUT_FILENO);
  }
}

// Sends a line and reads its answer up to its end, within the deadline.
int ask(Link& link, const char* line, Millis deadline, Answer& a) {
  int status = send_line(link, line, deadline);
  if (status != ANSWERED) return status;
  for (Line got;;) {
    Millis until = deadline;
    if (a.raw && a.count > 0 && now_ms() + SETTLE_MS < deadline) until = now_ms() + SETTLE_MS;
    switch (next_line(link, until, got)) {
      case Got::INTERRUPTED:
        return INTERRUPTED;
      case Got::ENDED:
        return connection_ended(link);
      case Got::TIME_UP:
        if (is_queued(link)) linger(link);
        if (a.raw && a.count > 0) return ANSWERED;
        return fail(NO_ANSWER,
                    "no answer to %s within %d ms (zord is wedged or its modem silent:"
                    " restart zord)",
                    line, link.timeout_ms);
      case Got::LINE:
        keep(a, got);
        if (ends_answer(link, got)) return ANSWERED;
    }
  }
}

int expect_ok(Link& link, const char* line, Millis deadline) {
  Answer a;
  int status = ask(link, line, deadline, a);
  if (status != ANSWERED || is(a.last, "OK")) return status;
  return fail(REFUSED, "the daemon answered %s to %s", a.last, line);
}

// ---- The commands.

int query(Link& link, const Options& o) {
  bool cell = o.command == Command::CELL;
  const char* line = cell ? "AT+CEVVMEV?" : "AT+CEVVMCMD?";
  Answer a;
  a.wanted = cell ? "+CEVVMEV:" : "+CEVVMCMD:";
  int status = ask(link, line, now_ms() + o.timeout_ms, a);
  if (status != ANSWERED) return status;
  if (is_final(a.last) && !is(a.last, "OK"))
    return fail(REFUSED, "the daemon answered %s to %s", a.last, line);
  if (!a.found)
    return fail(WRONG_ANSWER, "the daemon answered %s without a %s line", line, a.wanted);
  if (o.json)
    add_json_line(a.found_line);
  else
    addf("%s\n", a.found_line);
  flush(STDOUT_FILENO);
  return ANSWERED;
}

int send_raw(Link& link, const Options& o) {
  Answer a;
  a.raw = true;
  int status = ask(link, o.line, now_ms() + o.timeout_ms, a);
  if (status != ANSWERED || !is_final(a.last) || is(a.last, "OK")) return status;
  // A line the daemon accepts went on to the modem: the final result is the modem's.
  if (link.sent_accepted) return fail(REFUSED, "the modem answered %s to %s", a.last, o.line);
  return fail(REFUSED, "the daemon answered %s to %s: %s", a.last, o.line, ACCEPTED_FORMS);
}

int watch(Link& link, const Options& o) {
  int status = expect_ok(link, "AT+CEVVMEV=1", now_ms() + o.timeout_ms);
  if (status != ANSWERED) return status;
  // From here on every event reaches us: scripts wait for this line.
  addf("zordctl: watching %s:%d\n", o.host, o.port);
  flush(STDERR_FILENO);
  Line line;
  Got got;
  while ((got = next_line(link, NO_DEADLINE, line)) == Got::LINE) {
    if (o.json) {
      add_json_line(line);
    } else {
      add_local_time("%H:%M:%S ");
      addf("%s\n", line);
    }
    flush(STDOUT_FILENO);
  }
  if (got == Got::ENDED) return connection_ended(link);
  // Unsubscribe and read the answer before closing: the daemon may be
  // writing an event, and writing to a closed connection ends it.
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  link.wake_fd = -1;
  // Stopping is what was asked for; a failed farewell changes nothing.
  expect_ok(link, "AT+CEVVMEV=0", now_ms() + o.timeout_ms);
  return ANSWERED;
}

int run(const Options& o) {
  bool watching = o.command == Command::WATCH;
  if (watching && !catch_stop_signals())
    return fail(UNREACHABLE, "cannot make a pipe: %s", strerror(errno));
  Link link;
  link.timeout_ms = o.timeout_ms;
  link.wake_fd = wake_pipe[0];
  int status = link_connect(link, o.host, o.port, o.source, now_ms() + o.timeout_ms);
  if (status == ANSWERED) status = expect_ok(link, "AT+CEVVMCMD=1", now_ms() + o.timeout_ms);
  if (status == ANSWERED && watching)
    status = watch(link, o);
  else if (status == ANSWERED && o.command == Command::SEND)
    status = send_raw(link, o);
  else if (status == ANSWERED)
    status = query(link, o);
  link_close(link);
  return status;
}

// ---- check: one probe through the client port, the queue, the command
// server, the AT switch and the modem. The identity answer holds the IMSI,
// which check never shows.

bool is_identity(std::string_view line) {
  Fields f = split(line);
  return starts_with(line, "+CEVVMCMD:") && f.count == 3 && !f.at[0].empty();
}

bool is_cell(std::string_view line) {
  Fields f = split(line);
  return starts_with(line, "+CEVVMEV:") && f.count == 2 && !f.at[0].empty() && f.at[0] != "NULL";
}

// Whether a line could come from zord: its own answers, and what a modem
// says (an information line, a result code, an echo), which zord passes on.
bool is_at_line(std::string_view line) {
  static constexpr std::string_view STARTS[] = {
      "+",     "%",    "^",    "*",       "$",          "AT",        "OK",
      "ERROR", "RING", "BUSY", "CONNECT", "NO CARRIER", "NO ANSWER", "NO DIALTONE"};
  for (std::string_view start : STARTS)
    if (starts_with(line, start)) return true;
  return !line.empty() && line[0] >= '0' && line[0] <= '9';  // a numeric result code
}

// The first answer of the probe that is not an AT line, if any.
Line alien = "";

// An answer of the wrong shape, named by a line of it, but an identity line.
int wrong(const char* line, const char* sent) {
  if (alien[0] == '\0' && !is_at_line(line)) snprintf(alien, sizeof alien, "%s to %s", line, sent);
  if (starts_with(line, "+CEVVMCMD:"))
    return fail(WRONG_ANSWER,
                "the daemon's answer to %s is of the wrong shape (its identity "
                "line is not shown)",
                sent);
  return fail(WRONG_ANSWER, "the daemon answered %.80s to %s", line, sent);
}

// What a serving daemon said: the cell answer, or the identity line when
// the cell query gave no cell; never shown whole (the identity holds the IMSI).
struct Served {
  Line line = "";
  bool identity = false;
};

// The probe itself: one line at a time, each answer read whole. The cell
// query goes the whole road (queue, command server, AT switch, modem) and
// writes the least to the daemon's log; only when it gives no cell does the
// identity query tell a modem out of coverage (an identity with a NULL
// cell), a daemon without an AT switch (ERROR after NULL,NULL: it answers
// those without asking anyone) and a failing modem apart.
int probe(Link& link, Millis deadline, Served& served) {
  Answer on, where, who;
  int status = ask(link, "AT+CEVVMCMD=1", deadline, on);
  if (status != ANSWERED) return status;
  if (!is(on.first, "OK")) return wrong(on.first, "AT+CEVVMCMD=1");
  if ((status = ask(link, "AT+CEVVMEV?", deadline, where)) != ANSWERED) return status;
  if (where.count == 1 && is_cell(where.last)) {
    memcpy(served.line, where.last, sizeof served.line);
    return ANSWERED;
  }
  bool null = where.count == 1 && is(where.last, "+CEVVMEV:NULL,NULL");
  if (!null && (where.count != 1 || !is(where.last, "ERROR")))
    return wrong(where.first, "AT+CEVVMEV?");
  if ((status = ask(link, "AT+CEVVMCMD?", deadline, who)) != ANSWERED) return status;
  bool named = is_identity(who.first);
  if (who.count == 2 && named && is(who.last, "OK")) {
    memcpy(served.line, who.first, sizeof served.line);
    served.identity = true;
    return ANSWERED;
  }
  if (who.count != 1 || !is(who.last, "ERROR"))
    return wrong(named && who.count == 2 ? who.last : who.first, "AT+CEVVMCMD?");
  if (null)
    return fail(NO_MODEM,
                "the daemon reaches no AT switch: AT+CEVVMEV? got +CEVVMEV:NULL,NULL and "
                "AT+CEVVMCMD? ERROR");
  return fail(REFUSED,
              "the modem answers but gives no IMSI, operator or duplex mode: AT+CEVVMEV? got "
              "ERROR and AT+CEVVMCMD? ERROR");
}

void report(const Options& o, int status, const Served& served) {
  Fields f = split(served.line);
  std::string_view cell = f.at[served.identity ? 1 : 0], duplex = f.at[served.identity ? 2 : 1];
  bool registered = status == ANSWERED && cell != "NULL";
  if (!o.json && status != ANSWERED) addf("%s: %s\n", RESULTS[status], failure);
  if (!o.json && status == ANSWERED && !registered) add("serving: not registered\n");
  if (!o.json && registered) {
    add("serving: registered on ");
    add(cell);
    add(", ");
    add(duplex);
    add("\n");
  }
  if (o.json) {
    add_json_time();
    addf(",\"result\":\"%s\",\"status\":%d", RESULTS[status], status);
    if (status != ANSWERED) add(",\"message\":");
    if (status != ANSWERED) add_json(failure);
    if (status == ANSWERED && !registered)
      add(",\"registered\":false,\"cell\":null,\"plmn\":null,\"tac\":null,\"cell_id\":null,"
          "\"duplex\":null");
    if (registered) {
      add(",\"registered\":true");
      add_json_cell(cell);
      add(",\"duplex\":");
      add_json(duplex);
    }
    add("}\n");
  }
}

// Standard output, or the --output file put in place whole.
int put(const Options& o, int status) {
  if (o.output == nullptr) return flush(STDOUT_FILENO), status;
  char temporary[PATH_MAX];
  snprintf(temporary, sizeof temporary, "%s.new", o.output);
  int fd = open(temporary, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  size_t size = out.size;
  bool written = fd >= 0 && write(fd, out.text, size) == static_cast<ssize_t>(size);
  if (fd >= 0 && close(fd) != 0) written = false;
  if (written && rename(temporary, o.output) == 0) return status;
  out.size = 0;
  addf("zordctl: cannot write %s: %s\n", o.output, strerror(errno));
  flush(STDERR_FILENO);
  return USAGE;
}

// A failure that another program on the port would cause is put down to it
// when the port's holder is not zord, or, where the holder cannot be told
// (another host, or a process this user may not look into), when it
// answered what no AT line holds.
int foreign(const Options& o, const Link& link, int status) {
  if (status != CLOSED && status != NO_ANSWER && status != FULL && status != WRONG_ANSWER)
    return status;
  Holder holder;
  if (port_holder(link, holder))
    return is(holder.name, "zord") ? status
                                   : fail(FOREIGN, "%s:%d is held by %s (process %d), not by zord",
                                          o.host, o.port, holder.name, holder.pid);
  if (status == WRONG_ANSWER && alien[0] != '\0')
    return fail(FOREIGN, "the program on %s:%d answered %.80s, which zord never does", o.host,
                o.port, alien);
  return status;
}

// --timeout bounds the whole probe. Whatever happens, one line goes to
// standard output, and nothing to standard error.
int check(const Options& o) {
  Millis deadline = now_ms() + o.timeout_ms;
  Link link;
  link.timeout_ms = o.timeout_ms;
  Served served;
  int status = link_connect(link, o.host, o.port, o.source, deadline);
  if (status == ANSWERED) status = foreign(o, link, probe(link, deadline, served));
  link_close(link);
  report(o, status, served);
  return put(o, status);
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  int status = parse_options(argc, argv, o);
  if (status == USAGE) {
    addf("zordctl: %s\n%s", failure, USAGE_TEXT);
    flush(STDERR_FILENO);
    return USAGE;
  }
  if (o.command == Command::HELP || o.command == Command::VERSION) {
    add(o.command == Command::HELP ? USAGE_TEXT : "zordctl " ZORD_VERSION_TEXT "\n");
    flush(STDOUT_FILENO);
    return ANSWERED;
  }
  if (o.command == Command::CHECK) return check(o);
  status = run(o);
  if (status == INTERRUPTED) return ANSWERED;
  if (status != ANSWERED) addf("zordctl: %s\n", failure);
  flush(STDERR_FILENO);
  return status;
}
