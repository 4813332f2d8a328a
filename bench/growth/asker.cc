#include "asker.h"

#include <arpa/inet.h>
#include <library.h>
#include <questions.h>

#include <algorithm>
#include <exception>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace growth {
using bench::must;

// Thread is one host thread's part: its questions go round, and it waits for one while the others are open.
class Asker::Thread {
 public:
  Thread(const Asker *asker, uint32_t first, unsigned count)
      : asker_(asker),
        next_(first),
        left_(count),
        open_(std::max(1U, asker->host_.outstanding / asker->host_.threads)),
        iterator_(kavo_alloc_answer_iterator(), kavo_free_answer_iterator) {}

  void run() {
    const size_t count = left_;
    for (size_t i = 0; i < count + open_.size(); ++i) {
      Question &slot = open_[i % open_.size()];
      if (slot.node != nullptr) finish(&slot);
      if (i < count) start(&slot);
    }
  }

 private:
  struct Question {
    KAVO_QUERY_NODE node = nullptr;
    uint32_t address = 0;
  };

  void start(Question *question) {
    const Host &host = asker_->host_;
    const uint32_t n = next_;
    next_ += host.threads;
    question->address = host.cache == nullptr ? bench::question(n) : host.cache->address(n);
    const in_addr query = {htonl(question->address)};
    must(kavo_subscribe_node(asker_->kavo_, KAVOT_BL_IP, &query, sizeof query, 0, nullptr, &question->node),
         "kavo_subscribe_node");
  }

  void finish(Question *question) {
    const KAVO kavo = asker_->kavo_;
    must(kavo_wait_node(kavo, question->node, KAVOWT_FULL, nullptr), "kavo_wait_node");
    must(kavo_set_answer_iterator(kavo, question->node, iterator_.get()), "kavo_set_answer_iterator");
    unsigned answers = 0;
    for (; const KAVO_ANSWER *answer = kavo_get_answer(kavo, iterator_.get()); ++answers)
      bench::check(*answer, bench::listed(question->address));
    if (answers != asker_->host_.zones) throw std::runtime_error("an answer is missing");
    must(kavo_unsubscribe_node(kavo, question->node), "kavo_unsubscribe_node");
    question->node = nullptr;
  }

  const Asker *asker_;
  uint32_t next_;
  unsigned left_;
  std::vector<Question> open_;
  std::unique_ptr<std::remove_pointer_t<KAVO_ANSWER_ITERATOR>, decltype(&kavo_free_answer_iterator)> iterator_;
};

// Waiter is a thread that waits for a sync node, until its end signals it.
class Asker::Waiter {
 public:
  explicit Waiter(KAVO kavo) : kavo_(kavo) {
    must(kavo_subscribe_syncnode(kavo, nullptr, &node_), "kavo_subscribe_syncnode");
    thread_ = std::thread([this] { (void)kavo_wait_node(kavo_, node_, KAVOWT_FULL, nullptr); });
  }
  ~Waiter() {
    kavo_signal_syncnode(kavo_, node_);
    thread_.join();
    kavo_unsubscribe_node(kavo_, node_);
  }
  Waiter(const Waiter &) = delete;
  Waiter &operator=(const Waiter &) = delete;

 private:
  KAVO kavo_;
  KAVO_QUERY_NODE node_ = nullptr;
  std::thread thread_;
};

Asker::Asker(const Host &host) : host_(host) {
  must(kavo_init_ext(&kavo_, static_cast<int>(host.table), 0, static_cast<int>(host.zones), 0), "kavo_init_ext");
  for (unsigned zone = 0; zone < host.zones; ++zone)
    must(kavo_add_zone(kavo_, KAVOT_BL_IP, bench::zone(zone).c_str()), "kavo_add_zone");
  must(kavo_add_dns_server(kavo_, nullptr, 0), "kavo_add_dns_server");
  for (const uint16_t port : host.servers)
    must(kavo_add_dns_server(kavo_, "127.0.0.1", port), "kavo_add_dns_server");
  must(kavo_set_opt(kavo_, KAVOOPT_SERV_RRB, host.best_server ? 0 : 1), "kavo_set_opt");
  if (host.best_server)
    must(kavo_set_opt(kavo_, KAVOOPT_BSC_SIZE, static_cast<uint32_t>(host.servers.size())), "kavo_set_opt");
  if (host.cache != nullptr) must(kavo_set_ext_cache(kavo_, KAVOCT_ANS, host.cache->cacher()), "kavo_set_ext_cache");
  must(kavo_open(kavo_), "kavo_open");
  for (unsigned i = 0; i < host.waiters; ++i)
    waiters_.push_back(std::make_unique<Waiter>(kavo_));
}

Asker::~Asker() {
  waiters_.clear();
  kavo_close(kavo_);
  kavo_free(kavo_);
}

void Asker::run(unsigned count) {
  std::vector<std::future<void>> threads;
  for (unsigned i = 0; i < host_.threads; ++i) {
    const unsigned share = count / host_.threads + (i < count % host_.threads ? 1 : 0);
    threads.push_back(
        std::async(std::launch::async, [this, first = next_ + i, share] { Thread(this, first, share).run(); }));
  }
  next_ += count + host_.threads;
  for (std::future<void> &thread : threads)
    thread.get();
}

}  // namespace growth
