// Accepted races, made visible: flags and counters that threads read (and
// some write) without a lock, by design, go through these relaxed accesses.
#pragma once

#include <atomic>

template <class T>
T relaxed_load(T& value) {
  return std::atomic_ref<T>(value).load(std::memory_order_relaxed);
}

template <class T>
void relaxed_store(T& value, T desired) {
  std::atomic_ref<T>(value).store(desired, std::memory_order_relaxed);
}

// A descriptor (or pointer) that one thread sets up and another starts using
// once it sees it: the store publishes what was done before it.
template <class T>
T acquire_load(T& value) {
  return std::atomic_ref<T>(value).load(std::memory_order_acquire);
}

template <class T>
void release_store(T& value, T desired) {
  std::atomic_ref<T>(value).store(desired, std::memory_order_release);
}
