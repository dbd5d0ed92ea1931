// The client listener and the client threads.
#include "gateway/listener.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/host.h"
#include "core/log.h"
#include "core/mutex_lock.h"
#include "core/options.h"
#include "core/relaxed.h"
#include "core/threads.h"
#include "gateway/at_queue.h"

namespace {

// Guarded by childs_mtx. A slot's generation changes whenever it is filled,
// and when it is dropped before its thread has read it; a client thread
// is started with its slot and that slot's generation, so a thread that
// starts late never takes a later client's slot for its own. pending: the
// slot's thread has not read it yet.
struct SlotStart {
  uint32_t generation;
  bool pending;
};
SlotStart slot_start[MAX_CHILDS];

// The thread's one argument: its slot, and the generation in the bits above
// (as many as a pointer has left on the 32-bit target).
constexpr int SLOT_BITS = 4;
static_assert(MAX_CHILDS <= 1 << SLOT_BITS);
uint32_t next_generation(uint32_t generation) {
  return (generation + 1) & (UINT32_MAX >> SLOT_BITS);
}

// A new connection from the address of the client in slot 0 replaces that
// client. Only slot 0 is looked at, ten times over, as the daemon always did.
void drop_slot0_on_reconnect(uint32_t peer_addr, int new_fd) {
  for (int i = 0; i < MAX_CHILDS; ++i) {
    {
      MutexLock lock(childs_mtx);
      if (childs[0].addr != peer_addr) continue;
      int fd0 = childs[0].connfd;
      shutdown(fd0, SHUT_RDWR);
      remove_child_by_fd_locked(fd0);
      // Each descriptor is closed once, by whoever holds it. A running
      // client thread does: the shutdown ends its receive. Closing it here
      // would free the number for a new client while that thread still
      // reads and writes it. A thread that has not read its slot yet finds
      // its generation gone and leaves the descriptor alone, so it is
      // closed here.
      if (slot_start[0].pending) {
        close(fd0);
        slot_start[0] = {next_generation(slot_start[0].generation), false};
      }
    }
    ZLOG_INFO(" Re-connect Addr %X,#connfd=%d \n", peer_addr, new_fd);
  }
}

// The four keepalive options, in order; false (after the entry) at the first failure.
bool set_keepalive(int fd) {
  static const struct {
    int level, name, value;
    const char* failed;
  } options[] = {
      {SOL_SOCKET, SO_KEEPALIVE, 1, "setsockopt():so_keepalive"},
      {IPPROTO_TCP, TCP_KEEPIDLE, 10, "setsockopt():so_keepidle"},
      {IPPROTO_TCP, TCP_KEEPCNT, 3, "setsockopt():so_keepcnt"},
      {IPPROTO_TCP, TCP_KEEPINTVL, 10, "setsockopt():so_keepintvl"},
  };
  for (const auto& o : options) {
    if (setsockopt(fd, o.level, o.name, &o.value, sizeof o.value) < 0) {
      ZLOG_ERROR("%s", o.failed);
      return false;
    }
  }
  return true;
}

// Fills the first free slot and starts its thread; false when no slot is free.
bool add_child(uint32_t addr, uint32_t port, int fd) {
  MutexLock lock(childs_mtx);
  int slot = 0;
  while (slot < MAX_CHILDS && childs[slot].connfd != 0) ++slot;
  if (slot == MAX_CHILDS) return false;
  ChildEntry& c = childs[slot];
  relaxed_store(c.mid, CHILD_MID);
  relaxed_store(c.port, port);
  relaxed_store(c.addr, addr);
  relaxed_store(c.connfd, fd);
  relaxed_store(c.ucast_port, CHILD_UCAST_PORT);
  relaxed_store(c.cmd_enabled, 0);
  relaxed_store(c.unsol_enabled, 0);
  ZLOG_INFO("new child #%d: Addr %X:%d fd %d mid %X\n", slot, addr, port, fd, CHILD_MID);
  relaxed_store(*childs_count, *childs_count + 1);

  pthread_t tid;
  // Pending from here: a thread that never starts leaves its descriptor to
  // the reconnect rule to close.
  uint32_t generation = next_generation(slot_start[slot].generation);
  slot_start[slot] = {generation, true};
  uintptr_t arg = (static_cast<uintptr_t>(generation) << SLOT_BITS) | static_cast<uintptr_t>(slot);
  int rc = start_thread(&tid, zor_listener_handler, reinterpret_cast<void*>(arg), SMALL_STACK);
  if (rc != 0) {
    ZLOG_INFO("ERROR: on pthread create for new connection (%d) %s \n", fd, strerror(rc));
    return true;  // the slot and the count stay as they are
  }
  relaxed_store(c.tid, static_cast<uint32_t>(tid));
  pthread_detach(tid);
  return true;
}

}  // namespace

void* run_listener_thread(void*) {
  ZLOG_INFO("%s entry\n", "run_listener_thread");

  int listenfd = socket(AF_INET, SOCK_STREAM, 0);
  int on = 1;
  setsockopt(listenfd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in serv{};
  serv.sin_family = AF_INET;
  serv.sin_addr.s_addr = htonl(INADDR_ANY);
  serv.sin_port = htons(static_cast<uint16_t>(zord_port()));
  if (bind(listenfd, reinterpret_cast<sockaddr*>(&serv), sizeof serv) != 0)
    foreground_warning(
        "cannot bind TCP port %d: %s; clients cannot reach this zord (ZORD_PORT moves the port)",
        zord_port(), strerror(errno));
  listen(listenfd, CLIENT_BACKLOG);

  for (;;) {
    sockaddr_in cli{};
    socklen_t len = sizeof cli;
    int connfd = accept(listenfd, reinterpret_cast<sockaddr*>(&cli), &len);
    if (connfd < 0) {
      ZLOG_INFO("ERROR: on accept %s connfd=%d\n", strerror(errno), connfd);
      break;
    }
    // Address and port as the accepted address holds them.
    uint32_t addr = cli.sin_addr.s_addr;
    uint32_t port = cli.sin_port;
    drop_slot0_on_reconnect(addr, connfd);

    if (relaxed_load(*childs_count) >= MAX_CHILDS) {
      ZLOG_INFO("ERROR: over accept more %d \n", MAX_CHILDS);
      close(connfd);
      continue;
    }
    if (!set_keepalive(connfd)) break;  // the listener ends; the new socket stays open
    ZLOG_INFO("connection accepted from %X:%d, #connfd=%d \n", addr, port, connfd);
    if (!add_child(addr, port, connfd)) {
      // The count and the slots disagree (a slot held by descriptor 0): as full.
      ZLOG_INFO("ERROR: over accept more %d \n", MAX_CHILDS);
      close(connfd);
    }
  }
  ZLOG_INFO("%s EXIT\n", "run_listener_thread");
  return nullptr;
}

namespace {

const char* const HANDLER = "zor_listener_handler";

// Whether c stands anywhere from the first "=" of the line on.
bool holds_after_equals(const char* line, char c) {
  const char* eq = strchr(line, '=');
  return eq != nullptr && strchr(eq, c) != nullptr;
}

// Hands the line to the dispatcher as a command block; no reply here.
void hand_over(const ChildEntry& me, const char* line) {
  auto* block = static_cast<AtQEntry*>(malloc(sizeof(AtQEntry)));
  if (block == nullptr) return;
  *block = AtQEntry{me.addr, me.port, me.mid, me.connfd, me.ucast_port, 0, {}};
  memcpy(block->cmd, line, strnlen(line, AT_CMD_LEN - 1));  // at most 255 characters, terminated

  MutexLock lock(atq_mtx.mutex);
  ZLOG_INFO("-------------->write to cmd AT: %s\n", line);
  if (write(at_cmd_sockfd[1], &block, sizeof block) < static_cast<ssize_t>(sizeof block)) {
    ZLOG_ERROR("%s: could not send %d bytes to socket %d\n", HANDLER,
               static_cast<int>(sizeof block), at_cmd_sockfd[1]);
    free(block);  // nobody else will
  }
  usleep(5000);  // hand-overs are spaced at least 5 ms apart
}

}  // namespace

void* zor_listener_handler(void* arg) {
  const auto started = reinterpret_cast<uintptr_t>(arg);
  const int slot = static_cast<int>(started & ((1u << SLOT_BITS) - 1));
  const auto generation = static_cast<uint32_t>(started >> SLOT_BITS);
  ChildEntry me{};
  bool mine = false;
  {
    MutexLock lock(childs_mtx);
    mine = slot_start[slot].generation == generation;
    if (mine) {
      me = childs[slot];
      slot_start[slot].pending = false;
    }
  }
  ZLOG_INFO("%s entry\n", HANDLER);
  // Dropped under the reconnect rule before this thread started (the slot
  // may hold a newer client by now): the listener has closed the descriptor.
  if (!mine) {
    ZLOG_INFO("%s EXIT %d\n", HANDLER, slot);
    pthread_exit(reinterpret_cast<void*>(1));
  }
  int32_t cmd_enabled = me.cmd_enabled;
  ZLOG_INFO("%s: i am child num %d (%X:%d:%d:%X) timeout per child %d msec\n", HANDLER, slot,
            me.addr, me.port, me.connfd, me.mid, station_timeout);

  char line[1024] = {};
  char reply[100] = {};  // never cleared: a reply that is not replaced is sent again
  intptr_t status = 0;
  for (;;) {
    ssize_t n = recv(me.connfd, line, CLIENT_RECV_MAX, 0);
    if (n <= 0) {
      ZLOG_INFO("%X:%d:%d closed\n", me.addr, me.port, me.connfd);
      status = 1;
      break;
    }
    if (!is_cmd_accepted(line)) {
      ssize_t ignored = write(me.connfd, "ERROR\r\n", 7);
      (void)ignored;
      memset(line, 0, sizeof line);
      ZLOG_INFO("not accepted connection %X:%d:%d closed\n", me.addr, me.port, me.connfd);
      status = 2;
      break;
    }
    bool enable_cmd = strncasecmp(line, "AT+CEVVMCMD=", 12) == 0;
    if (cmd_enabled == 0) {
      ZLOG_INFO("====get cmd: %s\n", line);
      if (!enable_cmd) {
        strcpy(reply, "ERROR\r\n");
      } else if (holds_after_equals(line, '1')) {
        cmd_enabled = 1;
        relaxed_store(childs[slot].cmd_enabled, 1);
        strcpy(reply, "OK\r\n");
      } else if (holds_after_equals(line, '?')) {
        strcpy(reply, "ERROR\r\n");
      }
    } else if (enable_cmd) {
      ZLOG_INFO("====# get cmd: %s\n", line);
      if (holds_after_equals(line, '1'))
        cmd_enabled = 1;
      else if (holds_after_equals(line, '0'))
        cmd_enabled = 0;
      relaxed_store(childs[slot].cmd_enabled, cmd_enabled);
      strcpy(reply, "OK\r\n");
    } else if (strncasecmp(line, "AT+CEVVMEV=", 11) == 0) {
      ZLOG_INFO("====get cmd: %s\n", line);
      if (holds_after_equals(line, '1'))
        relaxed_store(childs[slot].unsol_enabled, 1);
      else if (holds_after_equals(line, '0'))
        relaxed_store(childs[slot].unsol_enabled, 0);
      strcpy(reply, "OK\r\n");
    } else {
      hand_over(me, line);
      memset(line, 0, sizeof line);
      continue;
    }
    ssize_t ignored = write(me.connfd, reply, strlen(reply));
    (void)ignored;
    memset(line, 0, sizeof line);
  }
  // Free the slot before closing: once closed, the number may go to a new
  // client, whose slot must not be the one freed. (The reconnect rule may
  // have freed it already; then nothing is found.)
  remove_child_by_fd(me.connfd);
  close(me.connfd);
  ZLOG_INFO("%s EXIT %d\n", HANDLER, slot);
  pthread_exit(reinterpret_cast<void*>(status));
}
