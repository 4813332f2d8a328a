// fuzz.h - what the fuzz targets share: a cursor over the fuzzer's bytes, and the watch over log lines.
//
// A target is deterministic: the same bytes take the same way. A property that fails ends the process, as a fault that
// a sanitizer finds does; libFuzzer then keeps the input.
#ifndef KAVO_FUZZ_FUZZ_H
#define KAVO_FUZZ_FUZZ_H

#include <block_text.h>
#include <check.h>
#include <kavo.h>
#include <stream.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <vector>

namespace fuzz {

using namespace testbed;

using Bytes = std::vector<uint8_t>;

// Input hands out the fuzzer's bytes; past their end everything is 0 or empty.
class Input {
 public:
  Input(const uint8_t *data, size_t size) : left_(data, size) {}

  [[nodiscard]] bool empty() const { return left_.empty(); }
  uint8_t u8() {
    const std::span<const uint8_t> byte = bytes(1);
    return byte.empty() ? 0 : byte[0];
  }
  size_t u16() { return u8() + 256U * u8(); }
  std::span<const uint8_t> bytes(size_t most) {
    const std::span<const uint8_t> taken = left_.first(std::min(most, left_.size()));
    left_ = left_.subspan(taken.size());
    return taken;
  }
  std::span<const uint8_t> rest() { return bytes(left_.size()); }

 private:
  std::span<const uint8_t> left_;
};

// quiet drops the library's log lines once it has looked at them.
inline void quiet() {
  kavo_set_log_cb(
      [](int, const char *line, void *) {
        check(std::none_of(line, line + strlen(line), [](char c) { return (c >= 0 && c < ' ') || c == 0x7f; }),
              "a log line holds no control characters");
      },
      nullptr);
}

}  // namespace fuzz

#endif  // KAVO_FUZZ_FUZZ_H
