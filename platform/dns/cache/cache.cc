// cache.cc - the built-in cache (cache.h) as a cacher, and the functions that call any cacher (cacher.h).
//
// Any thread may call any of this at any time. An entry is built before its shard's mutex is taken, copied under it,
// and released after.
#include "cache.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <new>

#include <cache_image.h>
#include <cacher.h>
#include <cdata.h>
#include <pelk_thread.h>
#include <siphash.h>

#include "cache_shard.h"

namespace {

using dns::Entry;
using dns::Graveyard;
using dns::Key;
using dns::Shard;

constexpr unsigned kFlagsKnown = DNS_CR_EXPIRED | DNS_CR_NCACHE;

static_assert(dns::kRunMax + DNS_MAXDN + sizeof(Entry) < dns::kShardBytesMin / 3);
static_assert(dns::kRunMax <= UINT16_MAX && DNS_MAXDN <= UINT8_MAX, "the counts and sizes of an entry fit its fields");

dns_cache *of(dns_cacher *cacher) {
  return static_cast<dns_cache *>(cacher);
}

Shard *shard_of(dns_cache *cache, const Key &key) {
  return &cache->shards[cache->shard_number(key.hash)];
}

// hash_of hashes a key in its form in an image.
uint64_t hash_of(const dns_cache *cache, uint16_t typ, uint16_t cls, std::span<const uint8_t> dn) {
  std::array<uint8_t, dns::kImageKeyHead + DNS_MAXDN> bytes;
  const size_t size = dns::write_key(typ, cls, dn, bytes.data());
  return siphash_folded(cache->secret, bytes.data(), size);
}

Key key_of(const dns_cache *cache, const dns_cdata *entry) {
  const uint64_t hash =
      entry->hash != 0 ? entry->hash : hash_of(cache, entry->typ, entry->cls, {entry->dn, entry->dn_size});
  return {entry->dn, entry->dn_size, entry->typ, entry->cls, hash};
}

constexpr int32_t kNotKept = -1;

// lifetime returns for how many seconds the cache keeps `entry`, or kNotKept.
int32_t lifetime(const dns_cache *cache, const dns_cdata *entry) {
  int32_t ttl = entry->ttl;
  if (dns::cdata_is_negative(entry)) {
    if (!cache->keeps_negative()) return kNotKept;
    if ((entry->flags & dns::kNoSoa) != 0) {
      ttl = static_cast<int32_t>(cache->default_ttl);
      if (ttl == 0) return kNotKept;
    }
  }
  return std::max(std::clamp(ttl, 0, dns::kTtlMax), static_cast<int32_t>(cache->minimum_ttl));
}

// build makes the block that a shard keeps of `from`, to be released with free; null without memory.
Entry *build(const dns_cache *cache, const dns_cdata *from, const Key &key, int32_t ttl, dns_time now) {
  auto *entry = static_cast<Entry *>(malloc(sizeof(Entry) + from->dn_size + from->run_size));
  if (entry == nullptr) return nullptr;
  *entry = {.bucket_next = nullptr,
            .hash = key.hash,
            .newer = nullptr,
            .older = nullptr,
            .stored = now,
            .ttl = ttl,
            .run_size = static_cast<uint16_t>(from->run_size),
            .typ = from->typ,
            .cls = from->cls,
            .records = static_cast<uint16_t>(from->records),
            .cnames = static_cast<uint16_t>(from->cnames),
            .rcode = static_cast<uint8_t>(from->rcode & 0xF),
            .used = 0,
            .dn_size = from->dn_size};
  memcpy(entry->dn(), from->dn, from->dn_size);
  if (from->run_size > 0) memcpy(entry->run(), from->run, from->run_size);
  const auto least = static_cast<int32_t>(cache->minimum_ttl);
  dns::run_settle({entry->run(), from->run_size}, from->age, least, cache->ttl_max());
  return entry;
}

// copy_out fills `to`, whose key it is and whose buffer is large enough, with what `entry` holds after `age` seconds.
void copy_out(Entry *entry, int32_t age, dns_cdata *to) {
  if (entry->run_size > 0) memcpy(to->run, entry->run(), entry->run_size);
  to->run_size = entry->run_size;
  to->records = entry->records;
  to->cnames = entry->cnames;
  to->rcode = entry->rcode;
  to->ttl = entry->ttl - age;
  to->age = age;
  to->next = 0;
}

// look_up copies the key's entry into `to`. 1 or 0 as cache_get; DNS_E_NOBUFS when its buffer must hold `*needed`
// bytes.
[[nodiscard]] int look_up(Shard *shard, const Key &key, int32_t grace, dns_time now, dns_cdata *to, size_t *needed) {
  const pelk_lock lock(&shard->mutex);
  if (lock.error != 0) return DNS_E_FAIL;
  Entry *entry = shard->find(key);
  if (entry == nullptr) return 0;
  const int32_t age = age_of(entry, now);
  if (int64_t{age} - entry->ttl > grace) return 0;
  shard->used(entry);
  *needed = entry->run_size;
  if (*needed > to->run_capacity) return DNS_E_NOBUFS;
  copy_out(entry, age, to);
  return 1;
}

// A buffer that is too small is enlarged without the lock. The entry may have changed meanwhile, so the lookup is
// repeated. Each round enlarges the buffer, and kRunMax bounds it.
int cache_get(dns_cacher *cacher, dns_cdata *entry, dns_time now) {
  dns_cache *cache = of(cacher);
  const Key key = key_of(cache, entry);
  const int32_t grace = (entry->flags & DNS_CD_FORCE_EXPIRED) != 0 ? INT32_MAX : cache->grace();
  for (;;) {
    size_t needed = 0;
    const int found = look_up(shard_of(cache, key), key, grace, now, entry, &needed);
    if (found != DNS_E_NOBUFS) return found;
    if (!dns::cdata_reserve(entry, needed)) return DNS_E_NOMEM;
  }
}

int cache_delete(dns_cacher *cacher, const dns_cdata *entry, dns_time) {
  dns_cache *cache = of(cacher);
  const Key key = key_of(cache, entry);
  Shard *shard = shard_of(cache, key);
  Graveyard dead;
  const pelk_lock lock(&shard->mutex);
  if (lock.error != 0) return DNS_E_FAIL;
  Entry *old = shard->find(key);
  if (old == nullptr) return 0;
  shard->remove(old);
  dead.add(old);
  return 1;
}

[[nodiscard]] int store(dns_cache *cache, const Key &key, Entry *entry) {
  Shard *shard = shard_of(cache, key);
  Graveyard dead;
  const pelk_lock lock(&shard->mutex);
  dns_status status = DNS_E_FAIL;
  if (lock.error == 0) status = shard->insert(entry, shard->find(key), entry->stored, cache->keeps_expired(), &dead);
  if (status != DNS_E_NOERROR) dead.add(entry);
  return status;
}

// An answer that is not kept still removes an older one of its key, which is now outdated.
int cache_put(dns_cacher *cacher, const dns_cdata *entry, dns_time now) {
  dns_cache *cache = of(cacher);
  const int32_t ttl = lifetime(cache, entry);
  if (ttl == kNotKept) return std::min(cache_delete(cacher, entry, now), 0);
  const Key key = key_of(cache, entry);
  Entry *fresh = build(cache, entry, key, ttl, now);
  return fresh == nullptr ? DNS_E_NOMEM : store(cache, key, fresh);
}

// option_of finds an option and the largest value that it takes; null for an unknown one.
std::atomic<uint32_t> *option_of(dns_cacher *cacher, int opt, uint32_t *most) {
  dns_cache *cache = of(cacher);
  *most = INT32_MAX;
  switch (opt) {
    case DNS_CROPT_FLAGS:
      *most = kFlagsKnown;
      return &cache->flags;
    case DNS_CROPT_DEFTTL:
      return &cache->default_ttl;
    case DNS_CROPT_MINTTL:
      return &cache->minimum_ttl;
    default:
      return nullptr;
  }
}

int cache_getopt(dns_cacher *cacher, int opt, void *value, unsigned size) {
  uint32_t most = 0;
  const std::atomic<uint32_t> *option = option_of(cacher, opt, &most);
  if (option == nullptr || size != sizeof(uint32_t)) return DNS_E_INVAL;
  const uint32_t current = *option;
  memcpy(value, &current, sizeof current);
  return 0;
}

int cache_setopt(dns_cacher *cacher, int opt, const void *value, unsigned size) {
  uint32_t most = 0;
  std::atomic<uint32_t> *option = option_of(cacher, opt, &most);
  if (option == nullptr || size != sizeof(uint32_t)) return DNS_E_INVAL;
  uint32_t wanted = 0;
  memcpy(&wanted, value, sizeof wanted);
  if (wanted > most) return DNS_E_INVAL;
  *option = wanted;
  return 0;
}

constexpr dns_cacher_ops kOps = {cache_get, cache_put, cache_delete, cache_getopt, cache_setopt};

unsigned shards_for(uint64_t bytes) {
  return static_cast<unsigned>(std::bit_floor(std::clamp<uint64_t>(bytes / dns::kShardBytesMin, 1, dns::kShardsMax)));
}

[[nodiscard]] bool begin(dns_cache *cache, uint64_t bytes) {
  cache->shards_count = shards_for(bytes);
  cache->shards.reset(new (std::nothrow) Shard[cache->shards_count]);
  if (cache->shards == nullptr) return false;
  while (cache->shards_begun < cache->shards_count) {
    if (!cache->shards[cache->shards_begun].begin(bytes / cache->shards_count)) return false;
    cache->shards_begun += 1;
  }
  return siphash_secret(cache->secret) == 0;
}

bool usable(const dns_cacher *cacher) {
  return cacher != nullptr && cacher->dnscr_ops != nullptr;
}
bool has_key(const dns_cdata *entry) {
  return entry != nullptr && entry->dn_size != 0;
}

}  // namespace

uint64_t dns::cache_look_ahead(const dns_cacher *cacher, uint16_t typ, uint16_t cls, std::span<const uint8_t> dn) {
  if (cacher == nullptr || cacher->dnscr_ops != &kOps) return 0;
  const auto *cache = static_cast<const dns_cache *>(cacher);
  const uint64_t hash = hash_of(cache, typ, cls, dn);
  cache->shards[cache->shard_number(hash)].prefetch_place(hash);
  return hash;
}

extern "C" {

// dns_cache_init also returns null when the system has no secure random source for the cache's secret.
dns_cache *dns_cache_init(uint64_t size) {
  const pelk_no_cancel whole;  // reads the secret from the system
  auto *cache = new (std::nothrow) dns_cache(&kOps);
  if (cache == nullptr || begin(cache, size)) return cache;
  delete cache;
  return nullptr;
}

dns_cacher *dns_cache_cacher(dns_cache *cache) {
  return cache;
}

void dns_cache_destroy(dns_cache *cache) {
  delete cache;
}

// The operations of any cacher: 0 or above, or a status; DNS_E_INVAL without a cacher, an entry with a name, or a
// value.

int dns_cacher_get(dns_cacher *cacher, dns_cdata *entry, dns_time now) {
  return usable(cacher) && has_key(entry) ? cacher->dnscr_ops->get(cacher, entry, now) : DNS_E_INVAL;
}

int dns_cacher_put(dns_cacher *cacher, const dns_cdata *entry, dns_time now) {
  return usable(cacher) && has_key(entry) ? cacher->dnscr_ops->put(cacher, entry, now) : DNS_E_INVAL;
}

int dns_cacher_delete(dns_cacher *cacher, const dns_cdata *entry, dns_time now) {
  return usable(cacher) && has_key(entry) ? cacher->dnscr_ops->del(cacher, entry, now) : DNS_E_INVAL;
}

int dns_cacher_getopt(dns_cacher *cacher, int opt, void *value, unsigned size) {
  return usable(cacher) && value != nullptr ? cacher->dnscr_ops->getopt(cacher, opt, value, size) : DNS_E_INVAL;
}

int dns_cacher_setopt(dns_cacher *cacher, int opt, const void *value, unsigned size) {
  return usable(cacher) && value != nullptr ? cacher->dnscr_ops->setopt(cacher, opt, value, size) : DNS_E_INVAL;
}

}  // extern "C"
