// kavo_client.cc - kavo through its public interface: a context whose nodes are subscribed and waited for in turn, by
// any number of host threads.
#include <arpa/inet.h>
#include <kavo.h>

#include <algorithm>

#include "client.h"
#include "kavo_context.h"

namespace compare {
namespace {

constexpr const char *kName = "kavo";

class Kavo : public Client {
 public:
  Kavo(const Task &task, std::shared_ptr<Context> context)
      : task_(task), context_(std::move(context)), asked_(task.window()), iterator_(kavo_alloc_answer_iterator()) {
    if (iterator_ == nullptr) throw std::runtime_error("kavo_alloc_answer_iterator");
  }
  ~Kavo() override {
    // After a fault questions are left.
    for (const Asked &asked : asked_)
      if (asked.node != nullptr) kavo_unsubscribe_node(context_->get(), asked.node);
    kavo_free_answer_iterator(iterator_);
  }
  Kavo(const Kavo &) = delete;
  Kavo &operator=(const Kavo &) = delete;

  unsigned ask(unsigned first, unsigned count) override {
    const unsigned window = std::min(static_cast<unsigned>(asked_.size()), count);
    for (unsigned i = 0; i < window; ++i)
      start(&asked_[i], first + i);
    all_asked(task_);
    unsigned lost = 0;
    for (unsigned i = 0, slot = 0; i < count; ++i, slot = slot + 1 < window ? slot + 1 : 0) {
      if (!finish(&asked_[slot])) ++lost;
      if (i + window < count) start(&asked_[slot], first + i + window);
    }
    return lost;
  }

  [[nodiscard]] uint64_t packets_sent() const override { return context_->packets_sent(); }

 private:
  struct Asked {
    KAVO_QUERY_NODE node = nullptr;
    uint32_t address = 0;
    bool cached = false;
  };

  void start(Asked *asked, unsigned number) {
    asked->address = task_.address(number);
    asked->cached = task_.is_cached(number);
    const in_addr query = {htonl(asked->address)};
    must(kavo_subscribe_node(context_->get(), KAVOT_BL_IP, &query, sizeof query, 0, nullptr, &asked->node),
         "kavo_subscribe_node");
  }

  bool finish(Asked *asked) {
    must(kavo_wait_node(context_->get(), asked->node, KAVOWT_FULL, nullptr), "kavo_wait_node");
    must(kavo_set_answer_iterator(context_->get(), asked->node, iterator_), "kavo_set_answer_iterator");
    unsigned answers = 0, answered = 0;
    for (const KAVO_ANSWER *answer; (answer = kavo_get_answer(context_->get(), iterator_)) != nullptr; ++answers)
      if (is_answered(*answer, asked->address, asked->cached)) ++answered;
    if (answers != task_.zones) wrong(kName, asked->address);
    must(kavo_unsubscribe_node(context_->get(), asked->node), "kavo_unsubscribe_node");
    asked->node = nullptr;
    return answered == answers;
  }

  Task task_;
  std::shared_ptr<Context> context_;
  std::vector<Asked> asked_;
  KAVO_ANSWER_ITERATOR iterator_;
};

}  // namespace

Team make_kavo(const Task &task) {
  const std::vector<std::shared_ptr<Context>> contexts = Context::for_each_port(task);
  Team team;
  for (unsigned t = 0; t < task.threads; ++t)
    team.push_back(std::make_unique<Kavo>(task, contexts[t % contexts.size()]));
  return team;
}

}  // namespace compare
