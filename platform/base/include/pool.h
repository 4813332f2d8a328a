// pool.h - blocks of one size, allocated in chunks and reused: once a context is warm, a query allocates nothing.
//
// A pool never returns a chunk to the system before its own destruction. Nothing here locks.
#ifndef DNS_ENGINE_POOL_H
#define DNS_ENGINE_POOL_H

#include <stddef.h>
#include <stdlib.h>

#include <prefetch.h>
#include <sanitizer.h>

namespace base {

// Under AddressSanitizer every block is an allocation of its own, so that it reports the use of a block after put.
inline constexpr bool kPooled = !kAddressSanitizer;

template <typename T, size_t kPerChunk>
class Pool {
 public:
  Pool() = default;
  Pool(const Pool &) = delete;
  Pool &operator=(const Pool &) = delete;
  ~Pool() {
    while (chunks_ != nullptr) {
      Chunk *chunk = chunks_;
      chunks_ = chunk->next;
      free(chunk);
    }
  }

  // get returns a block with whatever its last user left in it, or null without memory.
  [[nodiscard]] void *get() {
    if (!kPooled) return malloc(sizeof(T));
    if (free_ == nullptr && !grow()) return nullptr;
    Cell *cell = free_;
    free_ = cell->next;
    prefetch_all<T>(free_);  // many are taken one after the other
    return cell;
  }

  void put(void *block) {
    if (!kPooled) {
      free(block);
      return;
    }
    auto *cell = static_cast<Cell *>(block);
    cell->next = free_;
    free_ = cell;
  }

 private:
  union Cell {
    Cell *next;
    alignas(T) unsigned char bytes[sizeof(T)];
  };
  struct Chunk {
    Chunk *next;
    Cell cells[kPerChunk];
  };

  bool grow() {
    auto *chunk = static_cast<Chunk *>(malloc(sizeof(Chunk)));
    if (chunk == nullptr) return false;
    chunk->next = chunks_;
    chunks_ = chunk;
    for (size_t i = kPerChunk; i-- > 0;)
      put(&chunk->cells[i]);
    return true;
  }

  Chunk *chunks_ = nullptr;
  Cell *free_ = nullptr;
};

}  // namespace base

#endif  // DNS_ENGINE_POOL_H
