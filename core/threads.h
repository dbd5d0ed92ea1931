// Thread start with a stack sized to what the thread needs, instead of the
// default (8 MiB of address space each on a PC), and the allocator kept to
// one arena, so that fifteen threads stay small on a router.
#pragma once

#include <pthread.h>

#include <cstddef>

// The sanitizers' instrumentation needs several times the stack.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZORD_STACK_SCALE 8
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZORD_STACK_SCALE 8
#endif
#endif
#ifndef ZORD_STACK_SCALE
#define ZORD_STACK_SCALE 1
#endif

// Client threads, the listener, the watchers and the signal thread: a few
// KiB of buffers and a log entry. The command server and the dispatcher go
// deeper (parser, handler, switch link with its 6 KiB of buffers, AT dump).
constexpr size_t SMALL_STACK = 64 * 1024 * ZORD_STACK_SCALE;
constexpr size_t LARGE_STACK = 256 * 1024 * ZORD_STACK_SCALE;

// pthread_create with that stack size; its result.
int start_thread(pthread_t* thread, void* (*entry)(void*), void* arg, size_t stack_size);

// One malloc arena for the whole process (where the C library has arenas):
// every thread allocating its own would reserve 64 MiB of address space each.
void limit_malloc_arenas();

// Sleeps end when asked, not up to 50 us later (the kernel's default slack):
// the 5 ms hand-over pause sets the pace of every client's command.
// Threads started afterwards inherit it.
void tighten_timer_slack();
