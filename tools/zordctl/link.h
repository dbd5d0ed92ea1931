// zordctl's connection to the daemon: made from a source address of its own,
// one line per write, answers read as lines, the true cause named when the
// daemon ends it, and a reader left behind for an answer given up on.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "gateway/client_lines.h"

// Exit statuses. INTERRUPTED never leaves the program: SIGINT or SIGTERM
// ended `watch`, which exits with ANSWERED.
enum Status {
  ANSWERED = 0,
  INTERRUPTED = 1,
  USAGE = 2,
  UNREACHABLE = 3,
  REFUSED = 4,
  CLOSED = 5,
  NO_ANSWER = 6,
  NO_MODEM = 7,
  FULL = 8,
  WRONG_ANSWER = 9,
  FOREIGN = 10
};

// A longer run without a line end is taken as a line of its own.
constexpr size_t MAX_LINE = 4096;
using Line = char[MAX_LINE + 1];
// What the daemon takes in one receive, less CR LF.
constexpr size_t MAX_SEND = CLIENT_LINE_MAX - 2;

// The message of the failure that ends the program; every status but
// ANSWERED and INTERRUPTED comes with one, set by fail().
extern char failure[512];
int fail(int status, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Which lines the daemon takes, for the message when it refused one.
extern const char ACCEPTED_FORMS[];

using Millis = int64_t;  // on the monotonic clock
constexpr Millis NO_DEADLINE = -1;
Millis now_ms();

struct Link {
  int fd = -1;
  sockaddr_in remote{}, local{};
  int timeout_ms = 0;  // --timeout, for the messages
  int wake_fd = -1;    // readable when `watch` is to stop
  char pending[MAX_LINE] = {};
  size_t used = 0;
  bool answered = false;         // the daemon has sent something
  int error = 0;                 // how the connection failed, when it did not simply end
  char sent[MAX_SEND + 1] = {};  // the last line sent
  bool sent_accepted = true;     // by the daemon's rule
};

// source: the address to bind, or null for the own loopback choice.
int link_connect(Link& link, const char* host, int port, const char* source, Millis deadline);
int send_line(Link& link, const char* line, Millis deadline);

enum class Got { LINE, TIME_UP, INTERRUPTED, ENDED };
// The next non-empty line, without CR; ENDED: connection_ended() says why.
Got next_line(Link& link, Millis deadline, Line& line);
int connection_ended(const Link& link);
// The inode of the socket that listens on the port of a daemon on this host
// (a loopback address), as the kernel's table shows it; 0 when none or not told.
unsigned long listener_inode(const Link& link);

bool is_final(const char* line);
bool ends_answer(const Link& link, const char* line);
// The daemon queues the last line sent for its modem: its client thread
// answers only the set forms of the enable and subscribe commands itself.
bool is_queued(const Link& link);
// Leaves a child that reads the answer to the last line sent to its end.
void linger(Link& link);
void link_close(Link& link);
