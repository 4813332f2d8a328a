#include "asker.h"

#include <deque>
#include <stdexcept>

#include "source.h"

namespace tool {
namespace {

class Asker {
 public:
  Asker(const Session &session, KAVO_TYPE type, unsigned flags)
      : session_(session),
        kavo_(session.kavo()),
        large_(session.large()),
        type_(type),
        flags_(flags | KAVOQF_RECURSIVE) {}

  // Starts a query. Never blocks: the table has a node for each query of all subjects.
  AskedName ask(const std::string &text) {
    AskedName asked{text, std::nullopt, "", nullptr};
    try {
      asked.name = parse_name(text, type_);
    } catch (const std::runtime_error &fault) {
      asked.error = fault.what();
      return asked;
    }
    if (large_ != nullptr) large_->expect(asked.name->dn.data());
    const KAVO_ERR result = kavo_subscribe_node_dn(kavo_, type_, asked.name->dn.data(), flags_, nullptr, &asked.node);
    if (result != KAVOE_OK) asked.error = std::string("the question could not be asked: ") + kavo_strerror(result);
    return asked;
  }

  // Waits for the outcome of the first of the outstanding queries and shows it.
  void collect(const std::deque<AskedName> &outstanding, const std::function<void(const NameResult &)> &show) {
    const AskedName &asked = outstanding.front();
    if (!asked.error.empty()) return show({asked, KAVOE_FAIL, asked.error, nullptr});
    timeval deadline;
    kavo_get_deadline(session_.wait_ms(outstanding.size()), &deadline);
    KAVO_ERR result = kavo_wait_node(kavo_, asked.node, KAVOWT_FULL, &deadline);
    const KAVO_ANSWER *answer = nullptr;
    KAVO_ANSWER enlarged{};
    Block block;
    if (result == KAVOE_OK) result = kavo_set_answer_iterator(kavo_, asked.node, iterator_.get());
    if (result == KAVOE_OK) answer = kavo_get_answer(kavo_, iterator_.get());
    if (answer != nullptr) enlarged = *answer;
    if (large_ != nullptr && large_->take(asked.name->dn.data(), type_, flags_, &block, &enlarged)) answer = &enlarged;
    if (result == KAVOE_OK) result = answer == nullptr ? KAVOE_FAIL : answer->err_code;
    const bool failed = result != KAVOE_OK && !is_negative(result);
    show({asked, result, failed ? fault_of(result) : "", answer});
    kavo_unsubscribe_node(kavo_, asked.node);
  }

 private:
  static std::string fault_of(KAVO_ERR error) {
    return error == KAVOE_NOMEM ? "the answer is larger than the library hands out" : explain(error);
  }

  const Session &session_;
  KAVO kavo_;
  LargeAnswers *large_;  // null: answers that large are failures
  KAVO_TYPE type_;
  unsigned flags_;
  std::unique_ptr<kavo_answer_iterator_t, void (*)(KAVO_ANSWER_ITERATOR)> iterator_{kavo_alloc_answer_iterator(),
                                                                                    kavo_free_answer_iterator};
};

}  // namespace

void examine_names(const std::vector<std::string> &names, KAVO_TYPE type) {
  if (names.empty()) throw Usage{"nothing to ask: give a name, or - for standard input"};
  try {
    for (const std::string &name : names) {
      if (name != "-") (void)parse_name(name, type);
    }
  } catch (const std::runtime_error &fault) {
    throw Usage{fault.what()};
  }
}

void ask_names(const Session &session, const std::vector<std::string> &names, KAVO_TYPE type, unsigned flags,
               const std::function<void(const NameResult &)> &show) {
  Asker asker(session, type, flags);
  const auto ask = [&](const std::string &text) { return asker.ask(text); };
  const auto show_first = [&](const std::deque<AskedName> &asked) { asker.collect(asked, show); };
  ask_all(names, kSubjects, ask, show_first);
}

}  // namespace tool
