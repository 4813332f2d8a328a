// source.h - where subjects come from: the command line, and standard input in place of a "-".
#ifndef KAVO_TOOLS_KAVO_SOURCE_H
#define KAVO_TOOLS_KAVO_SOURCE_H

#include <cstddef>
#include <cstdio>
#include <deque>
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

// ask_all keeps `window` subjects on their way: `ask` starts one and returns what it then is; `show`, given all that
// are on their way, waits for the first of them and shows it. The subjects are shown in the order of `words`.
template <typename Ask, typename Show>
void ask_all(const std::vector<std::string> &words, size_t window, Ask ask, Show show) {
  SubjectSource source(words);
  std::deque<decltype(ask(std::string()))> asked;
  for (;;) {
    bool starved = false;
    while (asked.size() < window) {
      const std::optional<std::string> text = source.next(asked.empty(), &starved);
      if (!text) break;
      asked.push_back(ask(*text));
    }
    if (asked.empty()) return;
    show(asked);
    asked.pop_front();
    if (starved) std::fflush(stdout);
  }
}

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_SOURCE_H
