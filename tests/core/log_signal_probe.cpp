// Test program: threads that log in a tight loop, ended from outside by a
// signal or from inside by a fault.
//   log_signal_probe LOG_PATH load|segv|abort
// Prints "ready" once every worker has written entries.
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "core/log.h"
#include "core/signals.h"

namespace {

constexpr int WORKERS = 3;
constexpr unsigned ENTRIES_BEFORE_READY = 100;
std::atomic<unsigned> entries[WORKERS];

[[noreturn]] void log_for_good(int worker) {
  const char at_msg[] = "\r\n+CEREG: 0,1\r\n\r\nOK\r\n";
  for (unsigned n = 0;; ++n) {
    ZLOG_INFO("worker %d entry %u\n", worker, n);
    if (n % 16 == 0) LOG_AT_MSG(1, sizeof at_msg - 1, at_msg);
    entries[worker].fetch_add(1, std::memory_order_relaxed);
  }
}

bool all_ready() {
  for (auto& e : entries)
    if (e.load(std::memory_order_relaxed) < ENTRIES_BEFORE_READY) return false;
  return true;
}

[[noreturn]] void fault() {
  void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  *static_cast<volatile int*>(page) = 1;
  abort();  // not reached
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s LOG_PATH load|segv|abort\n", argv[0]);
    return 2;
  }
  const char* mode = argv[2];
  if (log_open(argv[1]) == nullptr) {
    perror(argv[1]);
    return 2;
  }
  setup_signals();

  for (int w = 0; w < WORKERS; ++w) std::thread(log_for_good, w).detach();
  while (!all_ready()) usleep(1000);
  printf("ready\n");
  fflush(stdout);

  if (strcmp(mode, "segv") == 0) std::thread(fault).detach();
  if (strcmp(mode, "abort") == 0) std::thread(abort).detach();
  for (;;) pause();  // until a signal ends the process
}
