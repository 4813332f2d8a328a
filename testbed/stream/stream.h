// stream.h - bytes, files and streams in memory.
#ifndef KAVO_TESTBED_STREAM_H
#define KAVO_TESTBED_STREAM_H

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace testbed {

// Exact is a copy of bytes in memory of exactly their size, so that a read past their end is seen.
class Exact {
 public:
  explicit Exact(std::span<const uint8_t> bytes) : memory_(new uint8_t[bytes.size()]), size_(bytes.size()) {
    std::copy(bytes.begin(), bytes.end(), memory_.get());
  }
  [[nodiscard]] const uint8_t *begin() const { return memory_.get(); }
  [[nodiscard]] const uint8_t *end() const { return memory_.get() + size_; }
  [[nodiscard]] std::span<const uint8_t> span() const { return {begin(), size_}; }

 private:
  std::unique_ptr<uint8_t[]> memory_;
  size_t size_;
};

// MemoryFile is a file without a disk, by its path and its descriptor.
class MemoryFile {
 public:
  explicit MemoryFile(std::span<const uint8_t> bytes = {});
  MemoryFile(const MemoryFile &) = delete;
  MemoryFile &operator=(const MemoryFile &) = delete;
  ~MemoryFile() { close(fd_); }

  [[nodiscard]] int fd() const { return fd_; }
  [[nodiscard]] std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }
  [[nodiscard]] std::vector<uint8_t> content() const;

 private:
  int fd_;
};

using Stream = std::unique_ptr<FILE, decltype(&fclose)>;

// reading returns a stream over the bytes themselves, so that a read past their end is seen; from a text, over a copy.
[[nodiscard]] Stream reading(std::span<const uint8_t> bytes);
[[nodiscard]] Stream reading(std::string_view text);

// written returns what `write` writes to the stream that it is given.
[[nodiscard]] std::string written(const std::function<void(FILE *)> &write);

// expect_printable checks that a text can be shown on a terminal and be read line by line.
void expect_printable(std::string_view text);

}  // namespace testbed

#endif  // KAVO_TESTBED_STREAM_H
