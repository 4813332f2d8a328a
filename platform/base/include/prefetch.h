// prefetch.h - asks the processor for memory that will be used soon.
#ifndef PREFETCH_H
#define PREFETCH_H

#include <stddef.h>

inline constexpr size_t CACHE_LINE = 64;

// prefetch asks for the cache line at `memory`, which may be any address, null and freed memory too. It is written as
// an instruction because g++ takes a function that only prefetches by its builtin for one without effect and drops the
// calls.
inline void prefetch(const void *memory) {
  asm volatile("prefetcht0 (%0)" : : "r"(memory));
}

// prefetch_all asks for each line of a T that may be at `memory`; for nothing at null.
template <typename T>
inline void prefetch_all(const void *memory) {
  if (memory == nullptr) return;
  for (size_t at = 0; at < sizeof(T); at += CACHE_LINE)
    prefetch(static_cast<const unsigned char *>(memory) + at);
}

#endif  // PREFETCH_H
