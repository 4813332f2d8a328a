// cache.h - the record of a built-in cache, shared by cache.cc (the operations of a cacher) and cache_walk.cc (many
// entries out of a cache and back).
//
// Any thread may use a cache at any time. The key's hash chooses one of its shards (cache_shard.h), each with its own
// mutex and its own share of the bytes. Keys come from untrusted peers, so they are hashed under a secret of the
// cache's own. Options are atomics.
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

// No entry lives longer, whatever its TTL says, unless DNS_CROPT_MINTTL is above it.
inline constexpr int32_t kTtlMax = 7 * 24 * 3600;

// For how long a cache that returns expired entries still returns one (RFC 8767, section 5: 1 to 3 days).
inline constexpr int32_t kStaleMax = 3 * 24 * 3600;

// There are enough shards that two threads seldom need the same one, and few enough that the largest entry (kRunMax and
// its name) takes about a quarter of a shard at most. A cache too small for two has one.
inline constexpr unsigned kShardsMax = 16;
inline constexpr uint64_t kShardBytesMin = 256 * 1024;
inline constexpr int kShardHashBits = 16;  // the hash's uppermost bits choose the shard, its lowest the bucket
static_assert(std::has_single_bit(kShardsMax) && kShardsMax <= 1U << kShardHashBits);

}  // namespace dns

struct dns_cache : dns_cacher {
  std::atomic<uint32_t> flags = DNS_CR_NCACHE;
  std::atomic<uint32_t> default_ttl = 0;
  std::atomic<uint32_t> minimum_ttl = 0;
  std::atomic<unsigned> restores = 0;  // how often cache_restore was called
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
  // grace is for how many seconds after its expiry an entry is still returned.
  [[nodiscard]] int32_t grace() const { return keeps_expired() ? dns::kStaleMax : 0; }
  [[nodiscard]] bool keeps_negative() const { return (flags & DNS_CR_NCACHE) != 0; }
  [[nodiscard]] int32_t ttl_max() const { return std::max(dns::kTtlMax, static_cast<int32_t>(minimum_ttl)); }
};

#endif  // CACHE_H
