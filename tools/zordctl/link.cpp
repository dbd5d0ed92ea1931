// The connection to the daemon, read as lines; why it ended; the reader
// that stays behind for a late answer.
#include "tools/zordctl/link.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

char failure[512];

const char ACCEPTED_FORMS[] =
    "the daemon takes only lines that begin with ATE, AT+CEVVMCMD or AT+CEVVMEV and closes "
    "the connection after any other";

int fail(int status, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsnprintf(failure, sizeof failure, format, args);
  va_end(args);
  return status;
}

Millis now_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<Millis>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

namespace {

// The daemon waits for its modem without limit: an answer that has not come
// in this long is taken as one that never will (its queue has stopped), and
// waiting longer would only hold one of its ten client slots.
constexpr Millis LINGER_MS = 30000;

constexpr unsigned TCP_ESTABLISHED = 0x01, TCP_LISTEN = 0x0A;  // states in /proc/net/tcp

int left_ms(Millis deadline) {
  if (deadline == NO_DEADLINE) return -1;
  Millis left = deadline - now_ms();
  return left > 0 ? static_cast<int>(left) : 0;
}

bool starts_with(const char* text, const char* prefix) {
  return strncmp(text, prefix, strlen(prefix)) == 0;
}

// A loopback address of this run's own, from 127.0.0.2 to 127.255.255.254
// with neither 0 nor 255 last: tools on one host then never share one.
in_addr own_loopback_address() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  uint32_t mix = static_cast<uint32_t>(getpid()) * 2654435761u ^
                 static_cast<uint32_t>(now.tv_nsec) ^ static_cast<uint32_t>(now.tv_sec);
  uint32_t high = mix % 0x10000u, low = 1 + (mix >> 16) % 254;  // 127.high.low
  if (high == 0 && low == 1) low = 2;
  in_addr addr{};
  addr.s_addr = htonl(0x7F000000u | high << 8 | low);
  return addr;
}

bool is_loopback(in_addr addr) { return (ntohl(addr.s_addr) >> 24) == 127; }

// The kernel writes each address as a number in its own byte order, which
// under an emulator need not be this program's: either order is taken.
bool same_address(unsigned written, in_addr addr) {
  return written == addr.s_addr || __builtin_bswap32(written) == addr.s_addr;
}

struct Seen {
  bool read = false;           // the kernel's table could be read
  bool listening = false;      // something listens on the daemon's port
  unsigned long listener = 0;  // its socket's inode: on the daemon's address, else on any
  bool same_address = false;   // another connection from this one's address to the daemon
};

// What the kernel's table of TCP sockets shows of a daemon on this host:
// reading it makes no connection, so it cannot drop anyone.
Seen look_at_tcp_table(const Link& link) {
  Seen seen;
  FILE* table = fopen("/proc/net/tcp", "r");
  if (table == nullptr) return seen;
  seen.read = true;
  unsigned port = ntohs(link.remote.sin_port), own_port = ntohs(link.local.sin_port);
  char row[256];
  while (fgets(row, sizeof row, table) != nullptr) {
    unsigned local = 0, local_port = 0, remote = 0, remote_port = 0, state = 0;
    unsigned long inode = 0;
    if (sscanf(row, "%*u: %8X:%4X %8X:%4X %2X %*X:%*X %*X:%*X %*X %*u %*d %lu", &local, &local_port,
               &remote, &remote_port, &state, &inode) < 5)
      continue;
    if (state == TCP_LISTEN && local_port == port &&
        (local == 0 || same_address(local, link.remote.sin_addr))) {
      seen.listening = true;
      if (local != 0 || seen.listener == 0) seen.listener = inode;
    }
    if (state == TCP_ESTABLISHED && same_address(local, link.local.sin_addr) &&
        local_port != own_port && same_address(remote, link.remote.sin_addr) && remote_port == port)
      seen.same_address = true;
  }
  fclose(table);
  // A program listening on IPv6's any address takes IPv4 connections too.
  if (!seen.listening && (table = fopen("/proc/net/tcp6", "r")) != nullptr) {
    while (fgets(row, sizeof row, table) != nullptr) {
      char local[33] = {};
      unsigned local_port = 0, state = 0;
      unsigned long inode = 0;
      if (sscanf(row, "%*u: %32[0-9A-F]:%4X %*32[0-9A-F]:%*4X %2X %*X:%*X %*X:%*X %*X %*u %*d %lu",
                 local, &local_port, &state, &inode) == 4 &&
          state == TCP_LISTEN && local_port == port && strspn(local, "0") == 32) {
        seen.listening = true;
        seen.listener = inode;
      }
    }
    fclose(table);
  }
  return seen;
}

}  // namespace

unsigned long listener_inode(const Link& link) {
  return is_loopback(link.remote.sin_addr) ? look_at_tcp_table(link).listener : 0;
}

namespace {

// Takes the next line out of what was received; false when none is whole.
bool take_line(Link& link, Line& line) {
  for (;;) {
    auto* end = static_cast<char*>(memchr(link.pending, '\n', link.used));
    if (end == nullptr && link.used < MAX_LINE) return false;
    size_t size = end == nullptr ? MAX_LINE : static_cast<size_t>(end - link.pending);
    size_t kept = 0;
    for (size_t i = 0; i < size; ++i)
      if (link.pending[i] != '\r') line[kept++] = link.pending[i];
    line[kept] = '\0';
    size_t taken = end == nullptr ? size : size + 1;
    memmove(link.pending, link.pending + taken, link.used - taken);
    link.used -= taken;
    if (kept > 0) return true;
  }
}

// The child keeps only the connection (as descriptor 3), and 0 to 2 on
// /dev/null: whoever waits for this program's output or descriptors must not
// wait for its reader too.
void keep_only_the_connection(Link& link) {
  if (link.fd != 3) {
    dup2(link.fd, 3);
    link.fd = 3;
  }
  long failed = -1;
#ifdef SYS_close_range  // a system call without a C library function everywhere
  failed = syscall(SYS_close_range, 4u, ~0u, 0u);
#endif
  for (long fd = 4, top = failed != 0 ? sysconf(_SC_OPEN_MAX) : 0; fd < top; ++fd)
    close(static_cast<int>(fd));
  int null = open("/dev/null", O_RDWR);
  for (int fd = 0; fd < 3; ++fd) {
    if (null >= 0)
      dup2(null, fd);
    else
      close(fd);
  }
  if (null > 3) close(null);
  link.wake_fd = -1;
}

}  // namespace

int link_connect(Link& link, const char* host, int port, const char* source, Millis deadline) {
  link.remote.sin_family = AF_INET;
  link.remote.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, host, &link.remote.sin_addr);
  link.fd = socket(AF_INET, SOCK_STREAM, 0);
  if (link.fd < 0) return fail(UNREACHABLE, "cannot make a socket: %s", strerror(errno));
  fcntl(link.fd, F_SETFL, O_NONBLOCK);  // so that connect() and send() keep to the time-out
  sockaddr_in local{};
  local.sin_family = AF_INET;
  auto* bound = reinterpret_cast<sockaddr*>(&local);
  if (source != nullptr) {
    inet_pton(AF_INET, source, &local.sin_addr);
    if (bind(link.fd, bound, sizeof local) != 0)
      return fail(UNREACHABLE, "cannot bind to %s: %s", source, strerror(errno));
  } else if (is_loopback(link.remote.sin_addr)) {
    local.sin_addr = own_loopback_address();
    // Where 127/8 is not all loopback, the system's choice will do.
    bind(link.fd, bound, sizeof local);
  }
  auto* remote = reinterpret_cast<sockaddr*>(&link.remote);
  if (connect(link.fd, remote, sizeof link.remote) != 0) {
    if (errno != EINPROGRESS)
      return fail(UNREACHABLE, "cannot connect to %s:%d: %s", host, port, strerror(errno));
    pollfd p{link.fd, POLLOUT, 0};
    int ready;
    while ((ready = poll(&p, 1, left_ms(deadline))) < 0 && errno == EINTR) {
    }
    if (ready == 0)
      return fail(UNREACHABLE, "cannot connect to %s:%d: no host answered within %d ms", host, port,
                  link.timeout_ms);
    // A second connect() reports how the first ended through errno, which
    // an emulator translates (SO_ERROR's value it may pass on untranslated).
    if (connect(link.fd, remote, sizeof link.remote) != 0 && errno != EISCONN)
      return fail(UNREACHABLE, "cannot connect to %s:%d: %s", host, port, strerror(errno));
  }
  socklen_t size = sizeof link.local;
  getsockname(link.fd, reinterpret_cast<sockaddr*>(&link.local), &size);
  return ANSWERED;
}

// One line per write: the daemon takes each receive as one line.
int send_line(Link& link, const char* line, Millis deadline) {
  snprintf(link.sent, sizeof link.sent, "%s", line);
  char bytes[MAX_SEND + 3];
  int size = snprintf(bytes, sizeof bytes, "%s\r\n", link.sent);
  link.sent_accepted = is_cmd_accepted(bytes) != 0;
  for (;;) {
    ssize_t n = send(link.fd, bytes, static_cast<size_t>(size), MSG_NOSIGNAL);
    if (n == size) return ANSWERED;
    if (n >= 0) return fail(CLOSED, "could not send %s in one piece", line);
    if (errno == EPIPE || errno == ECONNRESET) {
      link.error = ECONNRESET;
      return connection_ended(link);
    }
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
      return fail(CLOSED, "cannot send to the daemon: %s", strerror(errno));
    pollfd p{link.fd, POLLOUT, 0};
    if (errno != EINTR && poll(&p, 1, left_ms(deadline)) == 0)
      return fail(NO_ANSWER, "the daemon took nothing within %d ms", link.timeout_ms);
  }
}

Got next_line(Link& link, Millis deadline, Line& line) {
  for (;;) {
    if (take_line(link, line)) return Got::LINE;
    pollfd p[2] = {{link.fd, POLLIN, 0}, {link.wake_fd, POLLIN, 0}};
    int ready = poll(p, 2, left_ms(deadline));
    if (ready == 0) return Got::TIME_UP;
    if (ready < 0 && errno != EINTR) {
      link.error = errno;
      return Got::ENDED;
    }
    if (ready < 0) continue;
    if ((p[1].revents & POLLIN) != 0) return Got::INTERRUPTED;
    ssize_t n = recv(link.fd, link.pending + link.used, sizeof link.pending - link.used, 0);
    if (n > 0) {
      link.used += static_cast<size_t>(n);
      link.answered = true;
    } else if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
      link.error = n == 0 ? 0 : errno;
      return Got::ENDED;
    }
  }
}

// The daemon closes a client's connection after a line it does not take,
// when it serves ten clients already (at once, before any answer), when a
// new client comes from the address of its first client (that one goes),
// and when it ends. The cause is named from what can be seen without harm.
int connection_ended(const Link& link) {
  if (!link.sent_accepted)
    return fail(CLOSED, "the daemon closed the connection after %s: %s", link.sent, ACCEPTED_FORMS);
  if (link.error != 0 && link.error != ECONNRESET)
    return fail(CLOSED, "the connection to the daemon failed: %s", strerror(link.error));
  char self[INET_ADDRSTRLEN] = "?";
  inet_ntop(AF_INET, &link.local.sin_addr, self, sizeof self);
  // A reconnect to look would itself drop the daemon's first client if that
  // one shares this address: a daemon elsewhere is not looked at.
  Seen seen = is_loopback(link.remote.sin_addr) ? look_at_tcp_table(link) : Seen{};
  if (seen.read && !seen.listening)
    return fail(CLOSED,
                "the daemon went away: it ended or was stopped, and nothing listens on "
                "port %d now",
                ntohs(link.remote.sin_port));
  if (seen.same_address)
    return fail(CLOSED,
                "the daemon closed the connection: another client connected from this "
                "one's address (%s), which drops the daemon's first client: give each client "
                "its own --source",
                self);
  if (!link.answered)
    return fail(FULL, "the daemon closed the connection at once: it serves ten clients already%s",
                seen.read ? "" : ", or it went away");
  if (seen.read)
    return fail(CLOSED,
                "the daemon closed the connection: it was restarted, or another client "
                "connected from this one's address (%s) and left again: give each client its "
                "own --source",
                self);
  if (link.error == ECONNRESET)
    return fail(CLOSED, "the connection was reset: the daemon or its host went away");
  return fail(CLOSED,
              "the daemon closed the connection: it went away, or another client "
              "connected from this one's address (%s) and took its place",
              self);
}

bool is_final(const char* line) {
  return strcmp(line, "OK") == 0 || strcmp(line, "ERROR") == 0 || starts_with(line, "+CME ERROR") ||
         starts_with(line, "+CMS ERROR");
}

// The cell query's answer has no final result: its information line ends it.
bool ends_answer(const Link& link, const char* line) {
  return is_final(line) ||
         (strncasecmp(link.sent, "AT+CEVVMEV?", 11) == 0 && starts_with(line, "+CEVVMEV:"));
}

bool is_queued(const Link& link) {
  return link.sent_accepted && strncasecmp(link.sent, "AT+CEVVMCMD=", 12) != 0 &&
         strncasecmp(link.sent, "AT+CEVVMEV=", 11) != 0;
}

// Closing now would let the daemon write the late answer to a descriptor it
// has closed, or to a newcomer that got the same number (the IMSI included).
// The child holds the connection until the answer has come, the daemon has
// closed, or LINGER_MS have passed; the parent goes on at once.
void linger(Link& link) {
  if (fork() != 0) return;  // the parent, or no child: nothing more can be done
  setsid();                 // a Ctrl-C or hang-up meant for the caller's job is not meant for it
  keep_only_the_connection(link);
  Millis deadline = now_ms() + LINGER_MS;
  Line line;
  while (next_line(link, deadline, line) == Got::LINE && !ends_answer(link, line)) {
  }
  _exit(0);
}

void link_close(Link& link) {
  if (link.fd >= 0) close(link.fd);
  link.fd = -1;
}
