// The gateway's shared state: the client table, the ring of AT commands, the
// deferred unsolicited text, the two socket pairs and the locks over them.
// Made once by init_shared_ipc before any thread starts.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

constexpr int CHILD_SLOTS = 11;  // slot 10 is never used
constexpr int MAX_CHILDS = 10;
constexpr uint32_t CHILD_MID = 123456;
constexpr uint32_t CHILD_UCAST_PORT = 6688;

// One client. A slot is free when connfd is 0.
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

extern ChildEntry* childs;     // the slots of the shared mapping
extern int32_t* childs_count;  // its count

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

extern AtQEntry at_cmd_q_entry[AT_Q_SIZE];
extern int32_t at_cmd_q_entry_wr_index;
extern int32_t at_cmd_q_entry_rd_index;

constexpr size_t PROCESS_UNSOL_SIZE = 16384;
extern char process_unsol[PROCESS_UNSOL_SIZE];

// [1] writes, [0] is read by the dispatcher.
extern int at_cmd_sockfd[2];
extern int at_unsol_sockfd[2];

struct AtqLock {
  pthread_mutex_t mutex;
  pthread_cond_t cond;  // initialised, never waited on
};
extern pthread_mutex_t childs_mtx;
extern AtqLock atq_mtx;

// 0 on success, 2 when a socket pair could not be made.
int32_t init_shared_ipc();

// Frees the first slot among 0..9 whose connfd is fd. 1 if one was freed.
int remove_child_by_fd(int fd);
// The same for a caller that holds childs_mtx.
int remove_child_by_fd_locked(int fd);

// 0 and the slot when a slot among 0..9 has this port and address, else -1.
int find_child_by_addr(uint32_t addr, uint32_t port, int* slot);

// The entry whose command is being handled.
AtQEntry* zor_getCurrAtQEntry();
