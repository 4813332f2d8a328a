// cache.cc - the built-in answer cache and the calls by which the engine reaches any cacher.
//
// Any thread may use a cache at any time. It is split into shards (cache_shard.h) by the key's hash, each with a mutex
// and a share of the bytes of its own. Keys come from strangers and are hashed under a secret of the cache's own.
// Options are atomics.
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <new>

#include "cache_image.h"
#include "cache_shard.h"
#include "cdata.h"
#include "dns_engine.h"
#include "siphash.h"

namespace {

using dns::Entry;
using dns::Graveyard;
using dns::Key;
using dns::Shard;

// No entry lives longer, whatever its TTL says.
constexpr int32_t kTtlMax = 7 * 24 * 3600;

// Shards are few enough that the largest entry (kRunMax and its name) takes a quarter of a shard at most, and enough
// that threads seldom meet in one. A cache too small for two has one.
constexpr unsigned kShardsMax = 16;
constexpr uint64_t kShardBytesMin = 256 * 1024;
constexpr int kShardHashBits = 16;  // the hash's uppermost bits choose the shard, its lowest the bucket

constexpr unsigned kFlagsKnown = DNS_CR_EXPIRED | DNS_CR_NCACHE;

}  // namespace

struct dns_cache : dns_cacher {
  std::atomic<uint32_t> flags = DNS_CR_NCACHE;
  std::atomic<uint32_t> default_ttl = 0;
  std::atomic<uint32_t> minimum_ttl = 0;
  uint8_t secret[16] = {};
  unsigned shards_begun = 0;
  unsigned shards_count = 1;  // a power of two
  std::array<Shard, kShardsMax> shards;

  explicit dns_cache(const dns_cacher_ops *ops) : dns_cacher{ops} {}
  ~dns_cache() {
    for (unsigned i = 0; i < shards_begun; ++i)
      shards[i].end();
  }
  [[nodiscard]] size_t shard_number(uint64_t hash) const {
    return (hash >> (64 - kShardHashBits)) & (shards_count - 1);
  }
  Shard *shard_of(const Key &key) { return &shards[shard_number(key.hash)]; }
};

namespace {

static_assert(std::has_single_bit(kShardsMax) && kShardsMax <= 1U << kShardHashBits);
static_assert(dns::kRunMax + DNS_MAXDN + sizeof(Entry) < kShardBytesMin / 3);
static_assert(dns::kRunMax <= UINT16_MAX && DNS_MAXDN <= UINT8_MAX, "the counts and sizes of an entry fit its fields");

dns_cache *of(dns_cacher *cacher) {
  return static_cast<dns_cache *>(cacher);
}

Key key_of(const dns_cache *cache, std::span<const uint8_t> dn, uint16_t typ, uint16_t cls) {
  uint8_t bytes[DNS_MAXDN + sizeof typ + sizeof cls];
  size_t size = dn.size();
  memcpy(bytes, dn.data(), size);
  memcpy(bytes + size, &typ, sizeof typ);
  size += sizeof typ;
  memcpy(bytes + size, &cls, sizeof cls);
  size += sizeof cls;
  return {dn.data(), static_cast<uint8_t>(dn.size()), typ, cls, siphash_folded(cache->secret, bytes, size)};
}

Key key_of(const dns_cache *cache, const dns_cdata *entry) {
  return key_of(cache, {entry->dn, entry->dn_size}, entry->typ, entry->cls);
}

constexpr int32_t kNotKept = -1;

// lifetime is for how many seconds the cache keeps `entry`, or kNotKept.
int32_t lifetime(const dns_cache *cache, const dns_cdata *entry) {
  int32_t ttl = entry->ttl;
  if (dns::cdata_is_denial(entry)) {
    if ((cache->flags & DNS_CR_NCACHE) == 0) return kNotKept;
    if ((entry->flags & dns::kNoSoa) != 0) {
      ttl = static_cast<int32_t>(cache->default_ttl);
      if (ttl == 0) return kNotKept;
    }
  }
  return std::max(std::clamp(ttl, 0, kTtlMax), static_cast<int32_t>(cache->minimum_ttl));
}

// make_entry makes the block of an entry that `head` describes but for its sizes, to be released with free; null
// without memory.
Entry *make_entry(const Entry &head, std::span<const uint8_t> dn, std::span<const uint8_t> run) {
  auto *entry = static_cast<Entry *>(malloc(sizeof(Entry) + dn.size() + run.size()));
  if (entry == nullptr) return nullptr;
  *entry = head;
  entry->dn_size = static_cast<uint8_t>(dn.size());
  entry->run_size = static_cast<uint32_t>(run.size());
  memcpy(entry->dn(), dn.data(), dn.size());
  if (!run.empty()) memcpy(entry->run(), run.data(), run.size());
  return entry;
}

// build makes the block that a shard keeps of `from`, to be released with free; null without memory.
Entry *build(const dns_cache *cache, const dns_cdata *from, const Key &key, int32_t ttl, dns_time now) {
  const Entry head = {.bucket_next = nullptr,
                      .newer = nullptr,
                      .older = nullptr,
                      .hash = key.hash,
                      .stored = now,
                      .ttl = ttl,
                      .run_size = 0,
                      .typ = from->typ,
                      .cls = from->cls,
                      .records = static_cast<uint16_t>(from->records),
                      .cnames = static_cast<uint16_t>(from->cnames),
                      .rcode = from->rcode,
                      .dn_size = 0};
  Entry *entry = make_entry(head, {from->dn, from->dn_size}, {from->run, from->run_size});
  if (entry == nullptr) return nullptr;
  const auto least = static_cast<int32_t>(cache->minimum_ttl);
  dns::run_settle({entry->run(), from->run_size}, from->age, least, std::max(kTtlMax, least));
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
[[nodiscard]] int look_up(Shard *shard, const Key &key, bool expired_too, dns_time now, dns_cdata *to, size_t *needed) {
  const pelk_lock lock(&shard->mutex);
  if (lock.error != 0) return DNS_E_FAIL;
  Entry *entry = shard->find(key);
  if (entry == nullptr) return 0;
  const int32_t age = age_of(entry, now);
  if (age > entry->ttl && !expired_too) return 0;
  shard->used(entry);
  *needed = entry->run_size;
  if (*needed > to->run_capacity) return DNS_E_NOBUFS;
  copy_out(entry, age, to);
  return 1;
}

// A buffer that is too small is enlarged without the lock; the entry may have changed meanwhile, hence another look.
// Each round enlarges the buffer, which never needs to exceed kRunMax.
int cache_get(dns_cacher *cacher, dns_cdata *entry, dns_time now) {
  dns_cache *cache = of(cacher);
  const Key key = key_of(cache, entry);
  const bool expired_too = (cache->flags & DNS_CR_EXPIRED) != 0 || (entry->flags & DNS_CD_FORCE_EXPIRED) != 0;
  for (;;) {
    size_t needed = 0;
    const int found = look_up(cache->shard_of(key), key, expired_too, now, entry, &needed);
    if (found != DNS_E_NOBUFS) return found;
    if (!dns::cdata_reserve(entry, needed)) return DNS_E_NOMEM;
  }
}

int cache_delete(dns_cacher *cacher, const dns_cdata *entry, dns_time) {
  dns_cache *cache = of(cacher);
  const Key key = key_of(cache, entry);
  Shard *shard = cache->shard_of(key);
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
  const bool keep_expired = (cache->flags & DNS_CR_EXPIRED) != 0;
  Shard *shard = cache->shard_of(key);
  Graveyard dead;
  const pelk_lock lock(&shard->mutex);
  const dns_status status =
      lock.error != 0 ? DNS_E_FAIL : shard->insert(entry, key, entry->stored, keep_expired, &dead);
  if (status != DNS_E_NOERROR) dead.add(entry);
  return status;
}

// An answer that is not kept still ends an older one of its key, which it has proved wrong.
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
  return static_cast<unsigned>(std::bit_floor(std::clamp<uint64_t>(bytes / kShardBytesMin, 1, kShardsMax)));
}

[[nodiscard]] bool begin(dns_cache *cache, uint64_t bytes) {
  cache->shards_count = shards_for(bytes);
  while (cache->shards_begun < cache->shards_count) {
    if (!cache->shards[cache->shards_begun].begin(bytes / cache->shards_count)) return false;
    cache->shards_begun += 1;
  }
  return siphash_secret(cache->secret) == 0;
}

// ---- the walk and the way back (cache_image.h) --------------------------------------------------------------------

// Buckets that are walked at a time: about as many entries, copied in a few microseconds.
constexpr size_t kWalkStep = 64;

// gone tells whether an entry would no longer be returned. It leaves the entry alone, unlike age_of: the walk's moment
// may be older than the entry.
bool gone(const Entry *entry, dns_time now, bool expired_too) {
  return !expired_too && dns::age_since(entry->stored, now) > entry->ttl;
}

// copy_bucket appends the images of a bucket's entries, or none of them when they do not all fit. False when the room
// is full.
[[nodiscard]] bool copy_bucket(Entry *first, dns_time now, bool expired_too, size_t *taken, dns::Images *images) {
  const dns::Images before = *images;
  size_t count = 0;
  for (Entry *entry = first; entry != nullptr; entry = entry->bucket_next, ++count) {
    if (count < *taken || gone(entry, now, expired_too)) continue;
    const size_t size = dns::image_size(*entry);
    if (size > images->room.size() - images->used) {
      *taken = before.used == 0 ? count : 0;
      if (before.used > 0) *images = before;
      return false;
    }
    dns::write_image(entry, &images->room[images->used]);
    images->used += size;
    images->entries += 1;
  }
  *taken = 0;
  return true;
}

enum class Step { kMore, kFull, kDone, kFailed };

// walk_step walks a few buckets of a shard.
[[nodiscard]] Step walk_step(Shard *shard, dns::CacheWalk *walk, dns_time now, bool expired_too, dns::Images *images) {
  const pelk_lock lock(&shard->mutex);
  if (lock.error != 0) return Step::kFailed;
  const dns::Index &index = shard->index();
  const size_t end = std::min(walk->bucket + kWalkStep, index.buckets());
  for (size_t i = walk->bucket; i < end; ++i) {
    const Entry *entry = index.head(i);
    __builtin_prefetch(entry);
    __builtin_prefetch(entry + 1);
  }
  for (; walk->bucket < end; ++walk->bucket) {
    if (!copy_bucket(index.head(walk->bucket), now, expired_too, &walk->taken, images)) return Step::kFull;
  }
  return end == index.buckets() ? Step::kDone : Step::kMore;
}

// Waiting holds entries on their way into a cache, by shard, linked through bucket_next.
using Waiting = std::array<Entry *, kShardsMax>;

Key key_of(Entry *entry) {
  return {entry->dn(), entry->dn_size, entry->typ, entry->cls, entry->hash};
}

// restored makes the entry of an image, to be released with free; null without memory.
[[nodiscard]] Entry *restored(const dns_cache *cache, const dns::Image &image, dns_time now) {
  const Key key = key_of(cache, image.dn, image.typ, image.cls);
  const int32_t longest = std::max(kTtlMax, static_cast<int32_t>(cache->minimum_ttl));
  Entry head = {};
  head.hash = key.hash;
  head.stored = std::min(image.stored, now);  // as age_of has it
  head.ttl = std::min(image.ttl, longest);
  head.typ = image.typ;
  head.cls = image.cls;
  head.records = image.records;
  head.cnames = image.cnames;
  head.rcode = image.rcode;
  Entry *entry = make_entry(head, image.dn, image.run);
  if (entry != nullptr) dns::run_settle({entry->run(), entry->run_size}, 0, 0, longest);
  return entry;
}

// sort_out makes entries of those images that the cache would keep and files them by shard. False without memory: then
// some are there.
[[nodiscard]] bool sort_out(dns_cache *cache, std::span<const dns::Image> images, dns_time now, Waiting *waiting) {
  const bool expired_too = (cache->flags & DNS_CR_EXPIRED) != 0;
  const bool denials_too = (cache->flags & DNS_CR_NCACHE) != 0;
  for (const dns::Image &image : images) {
    if (!denials_too && dns::is_denial(image.typ, image.rcode, image.records, image.cnames)) continue;
    Entry *entry = restored(cache, image, now);
    if (entry == nullptr) return false;
    if (gone(entry, now, expired_too)) {
      free(entry);
      continue;
    }
    entry->bucket_next = std::exchange((*waiting)[cache->shard_number(entry->hash)], entry);
  }
  return true;
}

// put_waiting inserts the entries that wait for one shard. Their buckets, and then the entries there, are fetched from
// memory side by side instead of one after another.
[[nodiscard]] dns_status put_waiting(Shard *shard, Entry *first, dns_time now, bool expired_too, uint64_t *kept) {
  Graveyard dead;
  const pelk_lock lock(&shard->mutex);
  dns_status status = lock.error != 0 ? DNS_E_FAIL : DNS_E_NOERROR;
  for (const Entry *entry = first; entry != nullptr; entry = entry->bucket_next)
    shard->index().prefetch(entry->hash);
  for (const Entry *entry = first; entry != nullptr; entry = entry->bucket_next)
    __builtin_prefetch(shard->index().first(entry->hash));
  while (first != nullptr) {
    Entry *entry = std::exchange(first, first->bucket_next);
    const Key key = key_of(entry);
    const Entry *there = status == DNS_E_NOERROR ? shard->find(key) : entry;
    const bool wanted = there == nullptr || there->stored < entry->stored;
    const dns_status outcome = wanted ? shard->insert(entry, key, now, expired_too, &dead) : DNS_E_NOBUFS;
    if (outcome != DNS_E_NOERROR) dead.add(entry);
    if (outcome == DNS_E_NOERROR) *kept += 1;
    if (outcome == DNS_E_NOMEM) status = outcome;
  }
  return status;
}

bool usable(const dns_cacher *cacher) {
  return cacher != nullptr && cacher->dnscr_ops != nullptr;
}
bool has_key(const dns_cdata *entry) {
  return entry != nullptr && entry->dn_size != 0;
}

}  // namespace

namespace dns {

int cache_walk(dns_cache *cache, CacheWalk *walk, dns_time now, Images *images) {
  const bool expired_too = (cache->flags & DNS_CR_EXPIRED) != 0;
  while (walk->shard < cache->shards_count) {
    switch (walk_step(&cache->shards[walk->shard], walk, now, expired_too, images)) {
      case Step::kMore:
        break;
      case Step::kFull:
        return 1;
      case Step::kFailed:
        return DNS_E_FAIL;
      case Step::kDone:
        *walk = {walk->shard + 1, 0, 0};
        break;
    }
  }
  return 0;
}

void cache_expect(dns_cache *cache, uint64_t entries) {
  for (unsigned i = 0; i < cache->shards_count; ++i) {
    Shard *shard = &cache->shards[i];
    for (bool more = true; more;) {
      const pelk_lock lock(&shard->mutex);
      more = lock.error == 0 && shard->expect(entries / cache->shards_count);
    }
  }
}

int cache_restore(dns_cache *cache, std::span<const Image> images, dns_time now, uint64_t *kept) {
  const bool expired_too = (cache->flags & DNS_CR_EXPIRED) != 0;
  Waiting waiting = {};
  dns_status status = sort_out(cache, images, now, &waiting) ? DNS_E_NOERROR : DNS_E_NOMEM;
  for (unsigned i = 0; i < cache->shards_count; ++i) {
    const dns_status outcome = put_waiting(&cache->shards[i], waiting[i], now, expired_too, kept);
    if (status == DNS_E_NOERROR) status = outcome;
  }
  return status;
}

}  // namespace dns

extern "C" {

// dns_cache_init also returns null when the system has no secure random source for the cache's secret.
dns_cache *dns_cache_init(uint64_t size) {
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

// The calls of any cacher: 0 or above, or a status; DNS_E_INVAL without a cacher, a named entry or a value.

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
