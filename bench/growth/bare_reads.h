// bare_reads.h - the cost of memory itself, without the library: reads that each depend on the one before, spread over
// as much memory as a cache of so many entries takes.
#ifndef KAVO_BENCH_GROWTH_BARE_READS_H
#define KAVO_BENCH_GROWTH_BARE_READS_H

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

#include "dimension.h"

namespace growth {

class BareReads final : public Work {
 public:
  explicit BareReads(unsigned entries) : entries_(entries) {
    // One cycle through all of them, in random order.
    std::vector<uint32_t> order(entries);
    std::iota(order.begin(), order.end(), 0);
    std::mt19937 random;
    std::shuffle(order.begin(), order.end(), random);
    for (size_t i = 0; i < order.size(); ++i)
      entries_[order[i]].next = order[(i + 1) % order.size()];
  }

  void run(unsigned count) override {
    for (unsigned i = 0; i < count; ++i)
      at_ = entries_[at_].next;
    if (at_ >= entries_.size()) throw std::runtime_error("a wrong entry");
  }

 private:
  // About what an entry of the answer cache takes with an address.
  struct alignas(128) Entry {
    uint32_t next;
  };

  std::vector<Entry> entries_;
  uint32_t at_ = 0;
};

}  // namespace growth

#endif  // KAVO_BENCH_GROWTH_BARE_READS_H
