// random_source.h - secure random numbers for one engine context. The thread that drives the context uses it alone.
#ifndef RANDOM_SOURCE_H
#define RANDOM_SOURCE_H

#include <stdint.h>
#include <string.h>

#include <dns_io.h>
#include <pelk_process.h>

namespace dns {

// RandomSource hands out the secure random bytes of an Io, fetched in blocks so that an id does not cost a system call.
// A forked child fetches a block of its own, or parent and child would hand out the same bytes.
class RandomSource {
 public:
  explicit RandomSource(const Io *io) : io_(io) {}
  [[nodiscard]] bool u16(uint16_t *value) { return take(value); }
  [[nodiscard]] bool u64(uint64_t *value) { return take(value); }
  // discard drops the rest of the block.
  void discard() { left_ = 0; }

 private:
  template <typename T>
  [[nodiscard]] bool take(T *value) {
    if ((left_ < sizeof *value || process_ != pelk_process()) && !fill()) return false;
    left_ -= static_cast<unsigned>(sizeof *value);
    memcpy(value, bytes_ + left_, sizeof *value);
    // Bytes that were handed out do not stay in memory.
    memset(bytes_ + left_, 0, sizeof *value);
    return true;
  }
  [[nodiscard]] bool fill();

  const Io *io_;
  uint64_t process_ = 0;  // the process that fetched the bytes
  uint8_t bytes_[1024];
  unsigned left_ = 0;
};

}  // namespace dns

#endif  // RANDOM_SOURCE_H
