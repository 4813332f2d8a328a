// asker.h - a host program that asks list questions: one context, any number of host threads, each with questions of
// its own open all the time. Every answer is checked; a wrong or lost one is a std::runtime_error.
#ifndef KAVO_BENCH_GROWTH_ASKER_H
#define KAVO_BENCH_GROWTH_ASKER_H

#include <kavo.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "dimension.h"
#include "filled_cache.h"

namespace growth {

struct Host {
  unsigned table = 1024;        // nodes of the query table
  unsigned outstanding = 1024;  // questions open, of all threads together
  unsigned threads = 1;
  unsigned waiters = 0;  // further threads, each waiting for something else that never comes
  unsigned zones = 1;    // zones of a question
  std::vector<uint16_t> servers;
  bool best_server = false;  // ask the server that is known as the best, instead of all in turn
  // With a cache of the host's, it answers all questions, and no packet leaves.
  std::shared_ptr<FilledCache> cache;
};

class Asker final : public Work {
 public:
  explicit Asker(const Host &host);
  ~Asker() override;

  // run asks `count` questions, shared among the threads, and returns when all are answered.
  void run(unsigned count) override;

 private:
  class Thread;
  class Waiter;

  Host host_;
  KAVO kavo_ = nullptr;
  std::vector<std::unique_ptr<Waiter>> waiters_;
  uint32_t next_ = 0;  // the number of the next question
};

}  // namespace growth

#endif  // KAVO_BENCH_GROWTH_ASKER_H
