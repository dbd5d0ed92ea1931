// The gateway's shared state: the client table, the ring of AT commands, the
// deferred unsolicited text, the two socket pairs and the locks over them.
// Made once by init_shared_ipc before any thread starts.
//
// Who touches what:
// - init_shared_ipc sets the pointers, the descriptors and the locks before
//   any thread starts; the pointers and the write ends never change after.
// - The client table (slots and count) is guarded by childs_mtx: the listener
//   fills slots, client threads and the listener's reconnect rule free them,
//   and a client thread copies its own slot once, all under the lock. Read
//   without it, by design: the dispatcher reads connfd, addr, port,
//   unsol_enabled and the count, the unsolicited thread unsol_enabled, the
//   listener the count; and a slot's own client thread sets its cmd_enabled
//   and unsol_enabled without it. So every field and the count are written
//   as relaxed atomics (core/relaxed.h), under the lock too. A slot read
//   without the lock may be freed a moment later: a text may then go to a
//   closed descriptor, or to the next owner of its number.
// - The ring (at_cmd_q_entry and both indexes) and process_unsol belong to
//   the dispatcher thread: it alone writes them and reads them without a
//   lock. The command server thread reads the entry being handled through
//   zor_getCurrAtQEntry; the read index is written and read relaxed for it.
// - atq_mtx.mutex is the hand-over lock, not the ring's: a client thread
//   holds it while it writes a block address to at_cmd_sockfd[1] and for the
//   5 ms pause after, the dispatcher while it takes a block (or queues its
//   own command) into the ring. Never on the dispatcher's per-byte path:
//   answers would wait behind the pauses.
// - at_unsol_sockfd[1] is written without a lock by the command server
//   thread (event lines) and the unsolicited thread ("+UNSOL:1"), one text a
//   write. The [0] ends are the dispatcher's, which may set them to -1.
// - Neither lock is taken while the other is held; the log's lock is taken
//   under both.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

constexpr int CHILD_SLOTS = 11;  // slot 10 is never used
constexpr int MAX_CHILDS = 10;
constexpr uint32_t CHILD_MID = 123456;
constexpr uint32_t CHILD_UCAST_PORT = 6688;

// One client. A slot is free when connfd is 0. Written under childs_mtx,
// but for the slot's own two flags (see above).
struct ChildEntry {
  uint32_t mid;
  uint32_t port;
  uint32_t addr;
  int32_t connfd;
  uint32_t ucast_port;
  int32_t cmd_enabled;
  int32_t unsol_enabled;
  uint32_t tid;  // the low 32 bits on a 64-bit host; nothing reads it back
};
static_assert(sizeof(ChildEntry) == 32, "ChildEntry is eight 32-bit words");

// The shared mapping: eleven slots, then the count of live clients.
struct ChildArea {
  ChildEntry slots[CHILD_SLOTS];
  int32_t count;
};
static_assert(sizeof(ChildArea) == 356, "the client area is 356 bytes");
static_assert(offsetof(ChildArea, count) == 352, "the count follows the eleven slots");

extern ChildEntry* childs;     // the slots of the shared mapping; guarded by childs_mtx
extern int32_t* childs_count;  // its count; guarded by childs_mtx, read relaxed without it

constexpr int AT_CMD_LEN = 256;
constexpr int AT_Q_SIZE = 20;

// One queued command. The numbers are stored in host order.
struct AtQEntry {
  uint32_t addr;
  uint32_t port;
  uint32_t mid;
  int32_t connfd;
  uint32_t ucast_port;
  int32_t delay_unsol;
  char cmd[AT_CMD_LEN];
};
static_assert(sizeof(AtQEntry) == 280, "AtQEntry is 280 bytes");
static_assert(offsetof(AtQEntry, cmd) == 24, "six 32-bit words precede the command");

// The dispatcher's ring, no lock (see above). No room check: a twenty-first
// command overwrites the oldest slot.
extern AtQEntry at_cmd_q_entry[AT_Q_SIZE];
extern int32_t at_cmd_q_entry_wr_index;
extern int32_t at_cmd_q_entry_rd_index;  // also read, relaxed, by the command server thread

// The dispatcher's: an unsolicited text kept for the clients of queued commands.
constexpr size_t PROCESS_UNSOL_SIZE = 16384;
extern char process_unsol[PROCESS_UNSOL_SIZE];

// [1] writes, [0] is read by the dispatcher.
extern int at_cmd_sockfd[2];    // client threads write block addresses, under atq_mtx
extern int at_unsol_sockfd[2];  // the command server and unsolicited threads write texts

struct AtqLock {
  pthread_mutex_t mutex;
  pthread_cond_t cond;  // initialised, never waited on
};
extern pthread_mutex_t childs_mtx;  // the client table, and the listener's slot starts
extern AtqLock atq_mtx;             // hand-overs through at_cmd_sockfd

// 0 on success, 2 when a socket pair could not be made.
int32_t init_shared_ipc();

// Frees the first slot among 0..9 whose connfd is fd. 1 if one was freed.
int remove_child_by_fd(int fd);
// The same for a caller that holds childs_mtx. (These two and
// find_child_by_addr take or expect the lock: any thread may call them.)
int remove_child_by_fd_locked(int fd);

// 0 and the slot when a slot among 0..9 has this port and address, else -1.
int find_child_by_addr(uint32_t addr, uint32_t port, int* slot);

// The entry whose command is being handled; for the command server thread.
AtQEntry* zor_getCurrAtQEntry();
