// pelk_process.h - the number of this process, which tells a forked child from its parent.
//
// Any thread. The number is read from a page that the kernel clears in a forked child, so that it costs no system call.
#ifndef PELK_PROCESS_H
#define PELK_PROCESS_H

#include <stdint.h>

#include <atomic>

extern constinit std::atomic<std::atomic<uint64_t> *> pelk_process_number;
uint64_t pelk_process_begin();

// pelk_process_noted returns the process's number if pelk_process has assigned one, else 0.
inline uint64_t pelk_process_noted() {
  return pelk_process_number.load(std::memory_order_acquire)->load(std::memory_order_relaxed);
}

// pelk_process returns the process's number, which is never 0 and differs from those of all its ancestors.
inline uint64_t pelk_process() {
  const uint64_t number = pelk_process_noted();
  return number != 0 ? number : pelk_process_begin();
}

#endif  // PELK_PROCESS_H
