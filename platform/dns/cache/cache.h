// cache.h - the record behind a built-in cache, for the sources that share it: cache.cc, what a cacher does, and
// cache_walk.cc, the ways of many entries out of a cache and back.
//
// Any thread may use a cache at any time. It is split into shards (cache_shard.h) by the key's hash, each with a mutex
// and a share of the bytes of its own. Keys come from strangers and are hashed under a secret of the cache's own.
// Options are atomics.
#ifndef CACHE_H
#define CACHE_H

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <memory>

#include <kavo/dns.h>

#include "cache_shard.h"

namespace dns {

// No entry lives longer, whatever its TTL says, unless the cache's least TTL is above it.
inline constexpr int32_t kTtlMax = 7 * 24 * 3600;

// An expired entry serves this long where the cache returns such (RFC 8767, section 5: 1 to 3 days).
inline constexpr int32_t kStaleMax = 3 * 24 * 3600;

// Shards are few enough that the largest entry (kRunMax and its name) takes a quarter of a shard at most, and enough
// that threads seldom meet in one. A cache too small for two has one.
inline constexpr unsigned kShardsMax = 16;
inline constexpr uint64_t kShardBytesMin = 256 * 1024;
inline constexpr int kShardHashBits = 16;  // the hash's uppermost bits choose the shard, its lowest the bucket
static_assert(std::has_single_bit(kShardsMax) && kShardsMax <= 1U << kShardHashBits);

}  // namespace dns

struct dns_cache : dns_cacher {
  std::atomic<uint32_t> flags = DNS_CR_NCACHE;
  std::atomic<uint32_t> default_ttl = 0;
  std::atomic<uint32_t> minimum_ttl = 0;
  std::atomic<unsigned> restores = 0;  // how often images were put back
  uint8_t secret[16] = {};
  unsigned shards_begun = 0;
  unsigned shards_count = 1;  // a power of two
  std::unique_ptr<dns::Shard[]> shards;

  explicit dns_cache(const dns_cacher_ops *ops) : dns_cacher{ops} {}
  ~dns_cache() {
    for (unsigned i = 0; i < shards_begun; ++i)
      shards[i].end();
  }
  [[nodiscard]] size_t shard_number(uint64_t hash) const {
    return (hash >> (64 - dns::kShardHashBits)) & (shards_count - 1);
  }
  [[nodiscard]] bool keeps_expired() const { return (flags & DNS_CR_EXPIRED) != 0; }
  // grace is for how many seconds behind its time an entry is still returned.
  [[nodiscard]] int32_t grace() const { return keeps_expired() ? dns::kStaleMax : 0; }
  [[nodiscard]] bool keeps_denials() const { return (flags & DNS_CR_NCACHE) != 0; }
  [[nodiscard]] int32_t ttl_max() const { return std::max(dns::kTtlMax, static_cast<int32_t>(minimum_ttl)); }
};

#endif  // CACHE_H
