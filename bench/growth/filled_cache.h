// filled_cache.h - an answer cache of the host's, full like a mail filter's: one address for each name of a list.
#ifndef KAVO_BENCH_GROWTH_FILLED_CACHE_H
#define KAVO_BENCH_GROWTH_FILLED_CACHE_H

#include <kavo.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "dimension.h"

namespace growth {

class FilledCache {
 public:
  explicit FilledCache(unsigned entries);
  ~FilledCache() { dns_cache_destroy(cache_); }
  FilledCache(const FilledCache &) = delete;
  FilledCache &operator=(const FilledCache &) = delete;

  [[nodiscard]] KAVO_CACHE cacher() const { return dns_cache_cacher(cache_); }
  // address returns an address that the cache has an entry for. Successive values of `n` go through all of them, none
  // near the one before.
  [[nodiscard]] uint32_t address(uint32_t n) const;

 private:
  unsigned entries_;
  dns_cache *cache_;
};

// Lookups fetches entries with kavo_cache_get, from one thread.
class Lookups final : public Work {
 public:
  explicit Lookups(unsigned entries);
  ~Lookups() override { kavo_rr_free(&found_.rr); }
  void prepare(unsigned count) override;
  void run(unsigned count) override;

 private:
  FilledCache cache_;
  std::vector<std::string> names_;  // of this round
  KAVO_ANSWER found_ = {};
  uint32_t next_ = 0;
};

}  // namespace growth

#endif  // KAVO_BENCH_GROWTH_FILLED_CACHE_H
