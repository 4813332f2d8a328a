// file.h - a file descriptor with an owner, and a cache dump that is open for reading.
#ifndef KAVO_TOOLS_KAVO_FILE_H
#define KAVO_TOOLS_KAVO_FILE_H

#include <string>
#include <utility>

namespace tool {

class File {
 public:
  explicit File(int fd) : fd_(fd) {}
  File(File &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  File &operator=(File &&) = delete;
  ~File();
  [[nodiscard]] int fd() const { return fd_; }

 private:
  int fd_;  // -1: none
};

// open_dump throws Usage for a file that cannot be read. no_dump is the message for one that is no dump.
File open_dump(const std::string &path);
std::string no_dump(const std::string &path);

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_FILE_H
