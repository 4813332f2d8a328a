// random_source.h - secure random numbers for one engine context, on the thread that drives it.
#ifndef RANDOM_SOURCE_H
#define RANDOM_SOURCE_H

#include <stdint.h>
#include <string.h>

#include <dns_io.h>
#include <pelk_process.h>

namespace dns {

// RandomSource hands out the secure random bytes of an Io, fetched in blocks so that an id does not cost a system call.
// What is left of a block is for the process that fetched it: forked children would all hand out the same.
class RandomSource {
 public:
  explicit RandomSource(const Io *io) : io_(io) {}
  [[nodiscard]] bool u16(uint16_t *value) { return take(value); }
  [[nodiscard]] bool u64(uint64_t *value) { return take(value); }
  // discard has the next bytes fetched anew.
  void discard() { left_ = 0; }

 private:
  template <typename T>
  [[nodiscard]] bool take(T *value) {
    if ((left_ < sizeof *value || process_ != pelk_process()) && !fill()) return false;
    left_ -= static_cast<unsigned>(sizeof *value);
    memcpy(value, bytes_ + left_, sizeof *value);
    // What was handed out does not stay behind in memory.
    memset(bytes_ + left_, 0, sizeof *value);
    return true;
  }
  [[nodiscard]] bool fill();

  const Io *io_;
  uint64_t process_ = 0;  // that fetched the bytes
  uint8_t bytes_[1024];
  unsigned left_ = 0;
};

}  // namespace dns

#endif  // RANDOM_SOURCE_H
