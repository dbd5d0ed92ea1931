#include "gateway/dispatcher.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/host.h"
#include "core/log.h"
#include "core/mutex_lock.h"
#include "core/options.h"
#include "core/relaxed.h"
#include "embms/unsol_thread.h"
#include "gateway/at_queue.h"

namespace {

const char* const NAME = "run_at_q_thread";
constexpr int CONNECT_RETRIES = 500;       // 1 ms apart
constexpr int LATE_CONNECT_RETRIES = 100;  // 100 ms apart, after those
constexpr int AOK_LINE_MAX = 1021;

// The dispatcher's own state; the thread is its only user. All zero at
// first (so it takes no room in the binary); the thread sets the descriptors.
struct Dispatcher {
  int epfd = 0;
  int prs_fd = 0;  // the command server connection
  int cmd_in_progress = 0;
  int pending_cmds = 0;  // queued, not yet sent
  int rsp_handled = 0;   // an answer was delivered since the last wait
  int rsp_start = 0;
  int rsp_end = 0;
  int rsp_count = 0;
  bool rsp_nul = false;                // a NUL was stored: the answer's text ends there
  char rsp[RSP_BUFFER_SIZE + 1] = {};  // one answer; zero past rsp_count, and the last byte stays 0
  char unsol[RSP_BUFFER_SIZE + 1] = {};  // one unsolicited text
  char own_cmd[128] = {};
};

void add_to_epoll(int epfd, int fd, uint32_t events, const char* failure) {
  epoll_event ev{};
  ev.events = events;
  ev.data.fd = fd;
  if (epoll_ctl(epfd, EPOLL_CTL_ADD, fd, &ev) < 0) ZLOG_ERROR("%s", failure);
}

bool connect_server(int fd, const sockaddr_un& addr) {
  return connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
}

// The command server starts listening a moment after this thread starts;
// the quick retries cover that. Should they run out (a slow start under an
// emulator), a slower round follows before the thread goes on regardless.
void connect_to_server(int fd) {
  sockaddr_un addr{};
  static_assert(sizeof addr == 110);
  addr.sun_family = AF_UNIX;
  rooted_path(addr.sun_path, sizeof addr.sun_path, "/tmp/zor-vvm_at_prs_srv");
  for (int retry = 0; retry <= CONNECT_RETRIES; ++retry) {
    if (connect_server(fd, addr)) {
      ZLOG_INFO("connected\n");
      return;
    }
    usleep(1000);
  }
  ZLOG_ERROR("connect to at command socket %s\n", strerror(errno));
  for (int retry = 0; retry < LATE_CONNECT_RETRIES; ++retry) {
    usleep(100 * 1000);
    if (connect_server(fd, addr)) {
      ZLOG_INFO("connected\n");
      return;
    }
  }
}

// Whether the answer, read as a text, holds a final result. It is asked after
// every stored byte, so a result can only be new if it ends with that byte:
// only the tail is compared. A NUL ends the text for good, and with it any
// chance of a result after it, as a search of the whole text would find.
bool ends_in_final_result(const char* text, size_t length) {
  static constexpr struct {
    const char* bytes;
    size_t length;
  } results[] = {{"\r\nOK\r\n", 6},
                 {"\r\nERROR\r\n", 9},
                 {"CME ERROR", 9},
                 {"\r\nAOK\r\n", 7},
                 {"\r\nNOK\r\n", 7}};
  for (const auto& r : results)
    if (length >= r.length && memcmp(text + length - r.length, r.bytes, r.length) == 0) return true;
  return false;
}

void write_to(int fd, const char* text, size_t length) {
  ssize_t written = write(fd, text, length);
  (void)written;  // a client that has gone is noticed by its own thread
}

// Two texts to one client in one write, so that the second is not held back
// by the network waiting for the first one's acknowledgement.
void write_to(int fd, const char* first, size_t first_length, const char* second,
              size_t second_length) {
  iovec parts[2] = {{const_cast<char*>(first), first_length},
                    {const_cast<char*>(second), second_length}};
  ssize_t written = writev(fd, parts, 2);
  (void)written;
}

// One byte of the command server's answer. Bytes before the echoed command's
// "A" belong to the tail of an earlier answer and are dropped.
void collect_answer_byte(Dispatcher& d) {
  // Between answers the buffer is already clear and its position 0:
  // zor_handleAtRsp clears what an answer used. Only the NUL mark is left.
  if (!d.rsp_start && !d.rsp_end) d.rsp_nul = false;
  char c;
  ssize_t n = read(d.prs_fd, &c, 1);
  if (n < 0) {
    ZLOG_ERROR("cannot read at rsp: %s \n", strerror(errno));
    return;
  }
  if (n == 0) return;
  if (!d.rsp_start && (c == 'A' || c == 'a')) d.rsp_start = 1;
  // An answer longer than the buffer keeps its beginning; the command
  // server's answers stay far below it.
  if (d.rsp_start && static_cast<size_t>(d.rsp_count) < RSP_BUFFER_SIZE) {
    d.rsp[d.rsp_count++] = c;
    if (c == '\0') d.rsp_nul = true;
    if (!d.rsp_nul && ends_in_final_result(d.rsp, static_cast<size_t>(d.rsp_count))) d.rsp_end = 1;
  }
  if (d.rsp_end) {
    zor_handleAtRsp(d.rsp_count, d.rsp, &d.rsp_handled, &d.rsp_end, &d.rsp_start, &d.rsp_count);
    ZLOG_INFO("after rsp_end = %d rsp_start %d\n", d.rsp_end, d.rsp_start);
  }
}

// The unsolicited thread's "+UNSOL:" asks for the daemon's own set command,
// which queries the cell and emits the event text; anything else is such a
// text, for the subscribers.
void take_unsolicited(Dispatcher& d) {
  memset(d.unsol, 0, sizeof d.unsol);
  ssize_t n = read(at_unsol_sockfd[0], d.unsol, RSP_BUFFER_SIZE);
  if (n <= 0) return;
  ZLOG_INFO("%s got unsolicited length %d\n", NAME, static_cast<int>(n));
  if (strcasestr(d.unsol, "+UNSOL:") == nullptr) {
    zor_handle_unsol_rsp(d.unsol, static_cast<int>(n), d.pending_cmds);
    return;
  }
  memset(d.own_cmd, 0, sizeof d.own_cmd);
  if (get_unsolenable() != 1) {
    ZLOG_INFO("%s unsol disabled\n", NAME);
    return;
  }
  snprintf(d.own_cmd, sizeof d.own_cmd, "AT+CEVVMEV=\"%d\"", -1);
  ZLOG_INFO("special handle of CEVVMEV unsol - send %s\n", d.own_cmd);
  MutexLock lock(atq_mtx.mutex);
  // The ring is not checked for room: a full ring loses its oldest slot,
  // whatever that slot holds. Only these three are set: the slot keeps its
  // other numbers.
  AtQEntry& e = at_cmd_q_entry[at_cmd_q_entry_wr_index];
  e.addr = 0;
  e.port = 0;
  e.connfd = 0;
  // Line feed before carriage return, as the command has always gone out.
  snprintf(e.cmd, sizeof e.cmd, "%s\n\r", d.own_cmd);
  at_cmd_q_entry_wr_index = (at_cmd_q_entry_wr_index + 1) % AT_Q_SIZE;
  ++d.pending_cmds;
}

// A command block from a client thread: its address comes through the pair.
void take_command(Dispatcher& d) {
  ZLOG_INFO("< -- got cmd \n");
  MutexLock lock(atq_mtx.mutex);
  AtQEntry* block = nullptr;
  ssize_t n = recv(at_cmd_sockfd[0], &block, sizeof block, MSG_WAITALL);
  if (n == 0) {
    ZLOG_INFO("%s nothing to read\n", NAME);
    return;
  }
  if (n != static_cast<ssize_t>(sizeof block)) {
    int error = n < 0 ? errno : EIO;  // a torn address cannot be used
    ZLOG_ERROR("%s read at cmd error %d - %s\n", NAME, error, strerror(error));
    return;
  }
  // No room check: a twenty-first command overwrites the oldest slot, even
  // the one in progress, whose answer then goes to the new command's client.
  AtQEntry& e = at_cmd_q_entry[at_cmd_q_entry_wr_index];
  e = *block;
  free(block);
  e.cmd[AT_CMD_LEN - 1] = '\0';
  int len = static_cast<int>(strlen(e.cmd));
  ZLOG_INFO("got cmd, len %d from %X:%d\n", len, e.addr, e.port);
  LOG_AT_MSG(1, len, e.cmd);
  if (strcasestr(e.cmd, "AT") == nullptr) return;  // dropped: the slot is reused
  ZLOG_INFO("=== AT CMD read (at_cmd_q_entry_index %d) %X:%d %s\n", at_cmd_q_entry_wr_index, e.addr,
            e.port, e.cmd);
  at_cmd_q_entry_wr_index = (at_cmd_q_entry_wr_index + 1) % AT_Q_SIZE;
  ++d.pending_cmds;
}

// The command server parses lines: every command goes out with a line end.
void fix_line_end(char* cmd) {
  size_t len = strlen(cmd);
  char last = len > 0 ? cmd[len - 1] : '\0';
  // Clients' lines are at most 128 characters, so the room is always there.
  bool room = len + 2 < AT_CMD_LEN;
  if (last != '\r' && last != '\n') {
    ZLOG_INFO("got command without \\r\\n , adding it now (old len %d)\n", static_cast<int>(len));
    if (room) strcat(cmd, "\r\n");
  } else if (last == '\r' && (len < 2 || cmd[len - 2] != '\n')) {
    ZLOG_INFO("got command with only  \\r and no \\n , adding it now(old len %d)\n",
              static_cast<int>(len));
    if (room) strcat(cmd, "\n");
  }
}

void send_next(Dispatcher& d) {
  // No queue lock here: the ring, its indices and pending_cmds are written
  // by this thread alone (client threads only write block addresses into
  // the socket pair, under the lock). Taking it on every pass, once per
  // answer byte, made answer collection and sending wait behind client
  // threads' 5 ms hand-over pauses.
  if (d.pending_cmds <= 0) return;
  AtQEntry& e = at_cmd_q_entry[at_cmd_q_entry_rd_index];
  if (d.cmd_in_progress == 1) {
    ZLOG_INFO("got command %s while another command is in progress..\n", e.cmd);
    return;
  }
  fix_line_end(e.cmd);
  int len = static_cast<int>(strlen(e.cmd));
  ZLOG_INFO("--> send command %d %s (%d) to at parser  (%d)\n", len, e.cmd, at_cmd_q_entry_rd_index,
            d.prs_fd);
  d.cmd_in_progress = 1;
  d.rsp_handled = 0;
  write_to(d.prs_fd, e.cmd, static_cast<size_t>(len));
  --d.pending_cmds;
}

// Forgets a descriptor it closed, so that nothing is written to a number
// that a new socket may get.
void forget(Dispatcher& d, int fd) {
  if (fd == d.prs_fd) d.prs_fd = -1;
  if (fd == at_unsol_sockfd[0]) at_unsol_sockfd[0] = -1;
  if (fd == at_cmd_sockfd[0]) at_cmd_sockfd[0] = -1;
}

}  // namespace

int zor_handleAtRsp(int count, char* rsp, int* rsp_handled, int* rsp_end, int* rsp_start,
                    int* rsp_count) {
  ZLOG_INFO("%s: handling RSP: (cnt %d len %d)\n", "zor_handleAtRsp", count,
            static_cast<int>(strlen(rsp)));
  const int rd = at_cmd_q_entry_rd_index;
  AtQEntry& e = at_cmd_q_entry[rd];
  // The client's part of the answer; nothing for NOK.
  char line[AOK_LINE_MAX + 3] = {};
  const char* part = nullptr;
  size_t part_length = 0;
  if (strstr(rsp, "\r\nAOK\r\n") != nullptr) {
    // Only the information line: it starts at the second "+" (the first is
    // in the echoed command).
    const char* first = strchr(rsp, '+');
    const char* second = first != nullptr ? strchr(first + 1, '+') : nullptr;
    size_t len = second != nullptr ? strcspn(second, "\r\n") : 0;
    if (len > AOK_LINE_MAX) len = AOK_LINE_MAX;
    if (second != nullptr) memcpy(line, second, len);
    memcpy(line + len, "\r\n", 2);
    part = line;
    part_length = len + 2;
  } else if (strstr(rsp, "\r\nNOK\r\n") == nullptr) {
    // Everything after the echoed command line.
    const char* lf = strchr(rsp, '\n');
    if (lf != nullptr) {
      part = lf + 1;
      part_length = strlen(lf + 1);
    }
  }
  size_t deferred_length = 0;
  if (e.delay_unsol == 1) {
    ZLOG_INFO("delay unsol send at_cmd_q_entry_rd_index %d \n", rd);
    // All but the last character, as deferred texts have always gone out.
    size_t len = strnlen(process_unsol, sizeof process_unsol);
    if (len > 0) deferred_length = len - 1;
  }
  if (deferred_length > 0)
    write_to(e.connfd, part, part_length, process_unsol, deferred_length);
  else if (part != nullptr)
    write_to(e.connfd, part, part_length);
  ZLOG_INFO("=== at_cmd_q_entry_rd_index %d to %X:%d\n", rd, e.addr, e.port);
  relaxed_store(at_cmd_q_entry_rd_index, (rd + 1) % AT_Q_SIZE);  // the handlers read it
  // Only what was stored: the rest of the buffer is still zero.
  memset(rsp, 0, count > 0 ? static_cast<size_t>(count) : 0);
  *rsp_end = 0;
  *rsp_start = 0;
  *rsp_count = 0;
  *rsp_handled = 1;
  return 0;
}

void zor_handle_unsol_rsp(const char* text, int length, int pending) {
  ZLOG_INFO("%s entry\n", "zor_handle_unsol_rsp");
  LOG_AT_MSG(1, length, text);
  for (int i = 0; i < MAX_CHILDS; ++i) {
    ChildEntry& child = childs[i];
    // The descriptor is read once: a slot freed by its client thread between
    // two reads would have sent the text to descriptor 0.
    int fd = relaxed_load(child.connfd);
    if (fd == 0 || relaxed_load(child.unsol_enabled) != 1) continue;
    uint32_t addr = relaxed_load(child.addr), port = relaxed_load(child.port);
    if (pending <= 0) {
      write_to(fd, text, static_cast<size_t>(length));
      ZLOG_INFO("send unsolicited response to child #%d, address %X:%d\n", i, addr, port);
      continue;
    }
    // Commands are queued: their clients get the text after their answers.
    int last = 0;
    for (int j = 0; j < pending; ++j) {
      last = (at_cmd_q_entry_rd_index + 1 + j) % AT_Q_SIZE;
      at_cmd_q_entry[last].delay_unsol = 1;
    }
    // strncpy: a text that fills its length gets no terminator, and the tail
    // of a longer earlier text stays behind it.
    size_t copied = static_cast<size_t>(length) < sizeof process_unsol ? static_cast<size_t>(length)
                                                                       : sizeof process_unsol;
    strncpy(process_unsol, text, copied);
    ZLOG_INFO("Process AT delay unsolicited response to q index %d, address %X:%d\n", last, addr,
              port);
  }
}

void* run_at_q_thread(void*) {
  static Dispatcher state;  // 32 KiB of buffers: not on the thread's stack
  Dispatcher* d = &state;
  d->epfd = epoll_create(3);
  ZLOG_INFO("%s entry\n", NAME);
  d->prs_fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (d->prs_fd < 0)
    ZLOG_ERROR("ERROR: create at parser socket %s\n", strerror(errno));
  else
    ZLOG_INFO("AT_CMD_SOCKET_NAME: %s\n", "/tmp/zor-vvm_at_cmd_srv");

  ZLOG_INFO("adding at_prs (fd:%d ) to epoll\n", d->prs_fd);
  add_to_epoll(d->epfd, d->prs_fd, EPOLLIN, "epoll_ctl - add prs");
  ZLOG_INFO("adding at_cmd (fd:%d ) to epoll\n", at_cmd_sockfd[0]);
  add_to_epoll(d->epfd, at_cmd_sockfd[0], EPOLLIN, "epoll_ctl - add cmd");
  ZLOG_INFO("adding at_unsol (fd:%d ) to epoll\n", at_unsol_sockfd[0]);
  add_to_epoll(d->epfd, at_unsol_sockfd[0], EPOLLIN | EPOLLET, "epoll_ctl - add unsol");
  if (d->prs_fd >= 0) connect_to_server(d->prs_fd);

  for (;;) {
    int timeout = -1;
    if (d->cmd_in_progress == 1 && d->rsp_handled == 1) {
      d->cmd_in_progress = 0;
      d->rsp_handled = 0;
      timeout = 0;  // the next command goes out at once
    } else if (relaxed_load(*childs_count) != 0) {
      timeout = station_timeout;
    }
    epoll_event events[2];
    int n = epoll_wait(d->epfd, events, 2, timeout);
    if (n < 0) {
      if (errno != EINTR) ZLOG_ERROR("epoll_wait() unexpected error: %s", strerror(errno));
      continue;
    }
    for (int i = 0; i < n; ++i) {
      int fd = events[i].data.fd;
      if (!(events[i].events & EPOLLIN) && (events[i].events & (EPOLLERR | EPOLLHUP))) {
        ZLOG_ERROR("EPOLLERR or EPOLLHUP after epoll_wait() !?");
        close(fd);
        forget(*d, fd);
      } else if (fd == d->prs_fd) {
        collect_answer_byte(*d);
      } else if (fd == at_unsol_sockfd[0]) {
        take_unsolicited(*d);
      } else if (fd == at_cmd_sockfd[0]) {
        take_command(*d);
      }
    }
    send_next(*d);
  }
}
