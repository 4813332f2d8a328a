#include "source.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace tool {
namespace {

constexpr size_t kBlock = 65536;
constexpr size_t kLineMax = 4096;  // no subject is as long; a longer line is handed out in pieces, each an error

std::string trimmed(const std::string &line) {
  constexpr const char *kBlanks = " \t\r";
  const size_t begin = line.find_first_not_of(kBlanks);
  if (begin == std::string::npos) return "";
  return line.substr(begin, line.find_last_not_of(kBlanks) - begin + 1);
}

}  // namespace

// Reads a block of standard input. False where that would have to wait and must not.
bool SubjectSource::fill(bool may_wait) {
  pollfd readable{STDIN_FILENO, POLLIN, 0};
  if (!may_wait && poll(&readable, 1, 0) == 0) return false;
  buffer_.erase(0, at_);
  at_ = 0;
  std::array<char, kBlock> block;
  ssize_t got;
  do {
    got = read(STDIN_FILENO, block.data(), block.size());
  } while (got < 0 && errno == EINTR);
  if (got < 0) throw std::system_error(errno, std::generic_category(), "standard input");
  if (got == 0) ended_ = true;
  buffer_.append(block.data(), static_cast<size_t>(got));
  return true;
}

std::optional<std::string> SubjectSource::next_line(bool may_wait, bool *starved) {
  for (;;) {
    const size_t end = buffer_.find('\n', at_);
    const bool whole = end != std::string::npos;
    const size_t size = (whole ? end : buffer_.size()) - at_;
    if (whole || size >= kLineMax || (ended_ && size != 0)) {
      std::string line = trimmed(buffer_.substr(at_, size));
      at_ += size + (whole ? 1 : 0);
      if (!line.empty()) return line;
    } else if (ended_) {
      return std::nullopt;
    } else if (!fill(may_wait)) {
      *starved = true;
      return std::nullopt;
    }
  }
}

std::optional<std::string> SubjectSource::next(bool may_wait, bool *starved) {
  *starved = false;
  for (; word_ < words_.size(); ++word_) {
    if (words_[word_] != "-") return words_[word_++];
    std::optional<std::string> line = next_line(may_wait, starved);
    if (line || *starved) return line;
  }
  return std::nullopt;
}

}  // namespace tool
