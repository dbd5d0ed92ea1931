#include "core/threads.h"

#include <malloc.h>
#include <sys/prctl.h>

int start_thread(pthread_t* thread, void* (*entry)(void*), void* arg, size_t stack_size) {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, stack_size);
  int rc = pthread_create(thread, &attr, entry, arg);
  pthread_attr_destroy(&attr);
  return rc;
}

void limit_malloc_arenas() {
#ifdef M_ARENA_MAX
  mallopt(M_ARENA_MAX, 1);
#endif
}

void tighten_timer_slack() {
#ifdef PR_SET_TIMERSLACK
  prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
#endif
}
