// source.h - where subjects come from: the command line, and standard input where a "-" stands there.
#ifndef KAVO_TOOLS_KAVO_SOURCE_H
#define KAVO_TOOLS_KAVO_SOURCE_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace tool {

class SubjectSource {
 public:
  explicit SubjectSource(std::vector<std::string> words) : words_(std::move(words)) {}

  // next returns the next subject, without blanks around it; nothing at the end. Waits for standard input to give a
  // line only where `may_wait`; otherwise `starved` says afterwards that there may be more.
  std::optional<std::string> next(bool may_wait, bool *starved);

 private:
  std::optional<std::string> next_line(bool may_wait, bool *starved);
  bool fill(bool may_wait);

  std::vector<std::string> words_;
  size_t word_ = 0;
  std::string buffer_;  // of standard input: what has been read and not handed out
  size_t at_ = 0;
  bool ended_ = false;
};

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_SOURCE_H
