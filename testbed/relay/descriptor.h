// descriptor.h - a file descriptor that is closed with its owner.
#ifndef KAVO_BENCH_RELAY_DESCRIPTOR_H
#define KAVO_BENCH_RELAY_DESCRIPTOR_H

#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

namespace relay {

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor &operator=(Descriptor &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  [[nodiscard]] int get() const { return fd_; }

 private:
  int fd_ = -1;
};

// must returns the result of a system call, or throws what went wrong with it.
inline int must(int result, const std::string &what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

}  // namespace relay

#endif  // KAVO_BENCH_RELAY_DESCRIPTOR_H
