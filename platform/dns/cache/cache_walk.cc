// cache_walk.cc - many entries out of a cache, as images, and back (cache_image.h).
//
// Any thread may walk a cache or put images back while others use it: a shard's mutex is held for a few dozen entries
// at a time. Both directions spend their time waiting for memory, so what is read next is prefetched, many pieces at
// once.
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <utility>

#include <cache_image.h>
#include <prefetch.h>
#include <siphash.h>

#include "cache.h"

namespace dns {

namespace {

// Buckets that are walked at a time: a few dozen entries, copied in a few microseconds.
constexpr size_t kWalkStep = 16;

// Threads that restore at the same time start this many shards apart, so that they seldom need the same one.
constexpr unsigned kShardStride = 7;

// gone tells whether an entry would no longer be returned.
bool gone(dns_time stored, int32_t ttl, dns_time now, int32_t grace) {
  return age_since(stored, now) - int64_t{ttl} > grace;
}

// append_image appends an entry's image; false when it does not fit. An entry that is gone needs no room.
[[nodiscard]] bool append_image(Entry *entry, dns_time now, int32_t grace, Images *images) {
  if (gone(entry->stored, entry->ttl, now, grace)) return true;
  const size_t size = image_size(*entry);
  if (size > images->room.size() - images->used) return false;
  write_image(entry, &images->room[images->used]);
  images->used += size;
  images->entries += 1;
  return true;
}

// copy_rest appends what is left of a bucket that is larger than a whole room. Entries may come and go from one room to
// the next, so the walk remembers the hash that it has reached. (It compares all 64 bits, so that no two entries are
// equal.)
[[nodiscard]] bool copy_rest(const Index &index, CacheWalk *walk, dns_time now, int32_t grace, Images *images) {
  for (;;) {
    Entry *next = nullptr;
    (void)index.each(walk->bucket, [&](Entry *entry) {
      if (entry->hash > walk->through && (next == nullptr || entry->hash < next->hash)) next = entry;
      return true;
    });
    if (next != nullptr && !append_image(next, now, grace, images)) return false;
    walk->through = next != nullptr ? next->hash : 0;
    if (next == nullptr) return true;
  }
}

// copy_bucket appends the images of a bucket's entries, or none of them when they do not all fit what is left of the
// room. False when the room is full.
[[nodiscard]] bool copy_bucket(const Index &index, CacheWalk *walk, dns_time now, int32_t grace, Images *images) {
  const Images before = *images;
  if (walk->through == 0) {
    if (index.each(walk->bucket, [&](Entry *entry) { return append_image(entry, now, grace, images); })) return true;
    *images = before;
    if (before.used > 0) return false;
  }
  return copy_rest(index, walk, now, grace, images);
}

enum class Step { kMore, kFull, kDone, kFailed };

// walk_step walks a few buckets of a shard.
[[nodiscard]] Step walk_step(Shard *shard, CacheWalk *walk, dns_time now, int32_t grace, Images *images) {
  const pelk_lock lock(&shard->mutex);
  if (lock.error != 0) return Step::kFailed;
  const Index &index = shard->index();
  const size_t end = std::min(walk->bucket + kWalkStep, index.buckets());
  for (size_t i = walk->bucket; i < end; ++i) {
    (void)index.each(i, [](const Entry *entry) {
      prefetch(entry);
      prefetch(entry + 1);
      return true;
    });
  }
  for (; walk->bucket < end; ++walk->bucket) {
    if (!copy_bucket(index, walk, now, grace, images)) return Step::kFull;
  }
  return end == index.buckets() ? Step::kDone : Step::kMore;
}

// Waiting holds entries on their way into a cache, by shard, linked through bucket_next.
using Waiting = std::array<Entry *, kShardsMax>;

// restored makes the entry of an image, to be released with free; null without memory.
[[nodiscard]] Entry *restored(const Image &image, uint64_t hash, dns_time now, int32_t ttl_max) {
  const size_t body_size = image.body.size();
  auto *entry = static_cast<Entry *>(malloc(sizeof(Entry) + body_size));
  if (entry == nullptr) return nullptr;
  entry->hash = hash;
  entry->stored = std::min(image.stored, now);  // as in age_of
  entry->ttl = std::min(image.ttl, ttl_max);
  entry->typ = image.typ;
  entry->cls = image.cls;
  entry->records = image.facts.records;
  entry->cnames = image.facts.cnames;
  entry->rcode = image.rcode & 0xF;
  entry->used = 0;
  entry->dn_size = image.dn_size;
  entry->run_size = static_cast<uint16_t>(body_size - image.dn_size);
  memcpy(entry->dn(), image.body.data(), body_size);
  if (image.facts.ttl_max > static_cast<uint32_t>(ttl_max)) run_settle({entry->run(), entry->run_size}, 0, 0, ttl_max);
  return entry;
}

// sort_out makes entries of the images that the cache would keep and files them by shard. False without memory, with
// some of them filed.
[[nodiscard]] bool sort_out(dns_cache *cache, std::span<const Image> images, dns_time now, Waiting *waiting) {
  const int32_t grace = cache->grace();
  const bool negative_too = cache->keeps_negative();
  const int32_t ttl_max = cache->ttl_max();
  for (const Image &image : images) {
    if (!negative_too && is_negative(image.typ, image.rcode, image.facts.records, image.facts.cnames)) continue;
    if (gone(image.stored, std::min(image.ttl, ttl_max), now, grace)) continue;
    const uint64_t hash = siphash_folded(cache->secret, image.key.data(), image.key.size());
    Entry *entry = restored(image, hash, now, ttl_max);
    if (entry == nullptr) return false;
    entry->bucket_next = std::exchange((*waiting)[cache->shard_number(hash)], entry);
  }
  return true;
}

// put_back inserts an entry unless the cache has one that is as new. DNS_E_NOBUFS for an entry that is left out.
[[nodiscard]] dns_status put_back(Shard *shard, Entry *entry, dns_time now, bool expired_too, Graveyard *dead)
    PELK_REQUIRES(shard->mutex) {
  const Key key = {entry->dn(), entry->dn_size, entry->typ, entry->cls, entry->hash};
  Entry *there = shard->find(key);
  if (there != nullptr && there->stored >= entry->stored) return DNS_E_NOBUFS;
  return shard->insert(entry, there, now, expired_too, dead);
}

// prefetch_meetings prefetches what inserting the entries from `first` on will read: first their buckets, then the
// entries there that may have the same key. Each kind is fetched in parallel.
void prefetch_meetings(const Index &index, const Entry *first) {
  for (const Entry *entry = first; entry != nullptr; entry = entry->bucket_next)
    index.prefetch_place(static_cast<uint32_t>(entry->hash));
  for (const Entry *entry = first; entry != nullptr; entry = entry->bucket_next)
    index.prefetch_found(static_cast<uint32_t>(entry->hash));
}

// put_waiting inserts the entries that wait for one shard.
[[nodiscard]] dns_status put_waiting(Shard *shard, Entry *first, dns_time now, bool expired_too, uint64_t *kept) {
  Graveyard dead;
  const pelk_lock lock(&shard->mutex);
  dns_status status = lock.error != 0 ? DNS_E_FAIL : DNS_E_NOERROR;
  prefetch_meetings(shard->index(), first);
  while (first != nullptr) {
    Entry *entry = std::exchange(first, first->bucket_next);
    const dns_status outcome = status == DNS_E_NOERROR ? put_back(shard, entry, now, expired_too, &dead) : status;
    if (outcome != DNS_E_NOERROR) dead.add(entry);
    if (outcome == DNS_E_NOERROR) *kept += 1;
    if (outcome == DNS_E_NOMEM) status = outcome;
  }
  return status;
}

}  // namespace

int cache_walk(dns_cache *cache, CacheWalk *walk, dns_time now, Images *images) {
  while (walk->shard < cache->shards_count) {
    switch (walk_step(&cache->shards[walk->shard], walk, now, cache->grace(), images)) {
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
  const bool expired_too = cache->keeps_expired();
  Waiting waiting = {};
  dns_status status = sort_out(cache, images, now, &waiting) ? DNS_E_NOERROR : DNS_E_NOMEM;
  const unsigned first = cache->restores.fetch_add(1, std::memory_order_relaxed) * kShardStride;
  for (unsigned i = 0; i < cache->shards_count; ++i) {
    const unsigned number = (first + i) % cache->shards_count;
    const dns_status outcome = put_waiting(&cache->shards[number], waiting[number], now, expired_too, kept);
    if (status == DNS_E_NOERROR) status = outcome;
  }
  return status;
}

}  // namespace dns
