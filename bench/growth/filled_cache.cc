#include "filled_cache.h"

#include <library.h>
#include <questions.h>

#include <stdexcept>

namespace growth {
namespace {

constexpr uint64_t kBytes = uint64_t{1} << 30;  // more than the largest of them takes
constexpr uint32_t kStep = 2'654'435'761;       // prime, so that every number of entries is gone through

// entry_address returns the n-th address that has an entry: all of them are listed.
uint32_t entry_address(uint32_t n) {
  constexpr unsigned kLowBits = 16;
  constexpr uint32_t kLow = 0xFFFF, kNet = 0x0A000000;
  return kNet | (n >> kLowBits) << (kLowBits + 1) | bench::kListedBit | (n & kLow);
}

}  // namespace

FilledCache::FilledCache(unsigned entries) : entries_(entries), cache_(dns_cache_init(kBytes)) {
  if (cache_ == nullptr) throw std::runtime_error("no cache");
  bench::ListedBlock block;
  for (unsigned n = 0; n < entries; ++n)
    block.put(cacher(), bench::name_of(entry_address(n)));
}

uint32_t FilledCache::address(uint32_t n) const {
  return entry_address(static_cast<uint32_t>(uint64_t{n} * kStep % entries_));
}

Lookups::Lookups(unsigned entries) : cache_(entries) {}

void Lookups::prepare(unsigned count) {
  names_.clear();
  for (unsigned i = 0; i < count; ++i)
    names_.push_back(bench::name_of(cache_.address(next_++)));
}

void Lookups::run(unsigned count) {
  for (unsigned i = 0; i < count; ++i)
    bench::get(cache_.cacher(), names_.at(i), &found_);
}

}  // namespace growth
