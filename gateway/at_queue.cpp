#include "gateway/at_queue.h"

#include <sys/mman.h>
#include <sys/socket.h>

#include "core/log.h"
#include "core/mutex_lock.h"
#include "core/relaxed.h"

ChildEntry* childs = nullptr;
int32_t* childs_count = nullptr;

AtQEntry at_cmd_q_entry[AT_Q_SIZE];
int32_t at_cmd_q_entry_wr_index = 0;
int32_t at_cmd_q_entry_rd_index = 0;

char process_unsol[PROCESS_UNSOL_SIZE];

int at_cmd_sockfd[2];
int at_unsol_sockfd[2];

pthread_mutex_t childs_mtx;
AtqLock atq_mtx;

namespace {

// Used when the shared mapping cannot be made: every user of the table lives
// in this process, so private memory serves the same.
ChildArea private_child_area;

// Client threads and the dispatcher read the flags without the lock, so even
// a locked clear goes field by field.
void clear_slot(ChildEntry& slot) {
  relaxed_store(slot.mid, 0u);
  relaxed_store(slot.port, 0u);
  relaxed_store(slot.addr, 0u);
  relaxed_store(slot.connfd, 0);
  relaxed_store(slot.ucast_port, 0u);
  relaxed_store(slot.cmd_enabled, 0);
  relaxed_store(slot.unsol_enabled, 0);
  relaxed_store(slot.tid, 0u);
}

}  // namespace

int32_t init_shared_ipc() {
  pthread_mutexattr_t childs_attr;
  pthread_mutexattr_t atq_attr;
  pthread_condattr_t cond_attr;
  pthread_mutexattr_init(&childs_attr);
  pthread_mutexattr_setpshared(&childs_attr, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_init(&atq_attr);
  pthread_mutexattr_setpshared(&atq_attr, PTHREAD_PROCESS_SHARED);
  pthread_condattr_init(&cond_attr);
  pthread_condattr_setpshared(&cond_attr, PTHREAD_PROCESS_SHARED);
  pthread_mutex_init(&childs_mtx, &childs_attr);
  pthread_mutex_init(&atq_mtx.mutex, &atq_attr);
  pthread_cond_init(&atq_mtx.cond, &cond_attr);

  void* area =
      mmap(nullptr, sizeof(ChildArea), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  auto* child_area = (area == MAP_FAILED) ? &private_child_area : static_cast<ChildArea*>(area);
  childs = child_area->slots;
  childs_count = &child_area->count;

  if (socketpair(AF_UNIX, SOCK_STREAM, 0, at_cmd_sockfd) < 0) {
    ZLOG_ERROR("socketpair()\n");
    return 2;
  }
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, at_unsol_sockfd) < 0) {
    ZLOG_ERROR("socketpair() at_unsol\n");
    return 2;
  }
  return 0;
}

int remove_child_by_fd(int fd) {
  MutexLock lock(childs_mtx);
  return remove_child_by_fd_locked(fd);
}

int remove_child_by_fd_locked(int fd) {
  int freed = 0;
  for (int i = 0; i < MAX_CHILDS; ++i) {
    if (childs[i].connfd != fd) continue;
    ZLOG_INFO("remove connfd %d from index %d of childs\n", fd, i);
    clear_slot(childs[i]);
    freed = 1;
    break;
  }
  if (freed && *childs_count > 0) relaxed_store(*childs_count, *childs_count - 1);
  return freed;
}

int find_child_by_addr(uint32_t addr, uint32_t port, int* slot) {
  MutexLock lock(childs_mtx);
  for (int i = 0; i < MAX_CHILDS; ++i) {
    if (childs[i].port == port && childs[i].addr == addr) {
      *slot = i;
      return 0;
    }
  }
  return -1;
}

AtQEntry* zor_getCurrAtQEntry() { return &at_cmd_q_entry[relaxed_load(at_cmd_q_entry_rd_index)]; }
