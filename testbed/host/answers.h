// answers.h - answers that a host program was given, as objects and as texts.
#ifndef KAVO_TESTBED_ANSWERS_H
#define KAVO_TESTBED_ANSWERS_H

#include <kavo.h>

#include <string>
#include <string_view>
#include <vector>

#include "host.h"

namespace testbed {

using Texts = std::vector<std::string>;

// Answers is an array of answers of the caller's, for kavo_copy_answer and kavo_query.
class Answers {
 public:
  Answers() = default;
  ~Answers();
  Answers(const Answers &) = delete;
  Answers &operator=(const Answers &) = delete;

  KAVO_ERR copy(KAVO kavo, KAVO_QUERY_NODE node);
  KAVO_ERR query(KAVO kavo, KAVO_TYPE type, std::string_view subject, unsigned flags = 0, unsigned timeout = kLongMs,
                 KAVO_WAIT_LEVEL level = KAVOWT_FULL);
  // ask checks that a question is answered and returns texts().
  Texts ask(KAVO kavo, KAVO_TYPE type, std::string_view subject, unsigned flags = 0);
  [[nodiscard]] int size() const { return written_; }
  [[nodiscard]] const KAVO_ANSWER *data() const { return data_; }
  const KAVO_ANSWER &operator[](int i) const { return data_[i]; }
  // The answers' texts in their order, as render() writes them.
  [[nodiscard]] Texts texts() const;

 private:
  KAVO_ANSWER *data_ = nullptr;
  int length_ = 0;
  int written_ = 0;
};

// render writes an answer down for comparison: its records, sorted and joined by commas, or the name of its error.
[[nodiscard]] std::string render(const KAVO_ANSWER &answer);
// in_place reads a node's answers through an iterator: the texts of what it yields now; empty when it cannot be set.
[[nodiscard]] Texts in_place(KAVO kavo, KAVO_QUERY_NODE node, std::vector<KAVO_ANSWER> *all = nullptr);

}  // namespace testbed

#endif  // KAVO_TESTBED_ANSWERS_H
