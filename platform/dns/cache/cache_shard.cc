// cache_shard.cc - the index and the list of one shard. Every operation on a shard runs under its mutex.
#include "cache_shard.h"

#include <string.h>

#include <algorithm>

#include <dns_wire.h>
#include <prefetch.h>

namespace dns {

namespace {

// How many entries from the old end of the list are looked at for an expired one to evict first.
constexpr unsigned kVictimsSeen = 4;

// Second chances given before one eviction. The number bounds the work of a call, and it suffices on average as long as
// there are fewer lookups than this for each new entry.
constexpr unsigned kSecondChances = 64;

// Buckets added in one call ahead of the entries, and the part of a shard that they may take: less than in a shard full
// of small entries.
constexpr unsigned kGrowthStep = 256;
constexpr size_t kIndexShare = 16;

}  // namespace

int32_t age_since(dns_time stored, dns_time now) {
  dns_time age = 0;
  if (now < stored) return 0;
  if (__builtin_sub_overflow(now, stored, &age)) return INT32_MAX;
  return static_cast<int32_t>(std::min<dns_time>(age, INT32_MAX));
}

int32_t age_of(Entry *entry, dns_time now) {
  entry->stored = std::min(entry->stored, now);
  return age_since(entry->stored, now);
}

bool Shard::begin(size_t bytes_max) {
  bytes_max_ = bytes_max;
  return pelk_mutex_init(&mutex) == 0;
}

void Shard::end() {
  while (newest_ != nullptr)
    free(std::exchange(newest_, newest_->older));
  index_.release();
  (void)pelk_mutex_destroy(&mutex);
}

Entry *Shard::find(const Key &key) {
  return index_.find(static_cast<uint32_t>(key.hash), [&](Entry *entry) {
    prefetch(entry + 1);
    if (entry->hash != key.hash || entry->typ != key.typ || entry->cls != key.cls) return false;
    if (entry->dn_size != key.dn_size) return false;
    return memcmp(entry->dn(), key.dn, key.dn_size) == 0 || dns_dnequal(entry->dn(), key.dn) != 0;
  });
}

void Shard::link(Entry *entry) {
  entry->newer = nullptr;
  entry->older = newest_;
  (newest_ != nullptr ? newest_->newer : oldest_) = entry;
  newest_ = entry;
}

void Shard::unlink(Entry *entry) {
  (entry->newer != nullptr ? entry->newer->older : newest_) = entry->older;
  (entry->older != nullptr ? entry->older->newer : oldest_) = entry->newer;
}

void Shard::remove(Entry *entry) {
  index_.remove(entry);
  unlink(entry);
  bytes_ -= entry->charge();
}

// victim chooses the entry to evict: the oldest that was not used since its last turn, or one shortly after it that has
// expired and that no lookup returns any more.
Entry *Shard::victim(dns_time now, bool keep_expired) {
  for (unsigned i = 0; i < kSecondChances && oldest_->used != 0; ++i) {
    Entry *used = oldest_;
    used->used = 0;
    unlink(used);
    link(used);
  }
  Entry *entry = oldest_;
  for (unsigned i = 0; !keep_expired && entry != nullptr && i < kVictimsSeen; ++i, entry = entry->newer) {
    if (age_of(entry, now) > entry->ttl) return entry;
  }
  return oldest_;
}

void Shard::make_room(size_t bytes, dns_time now, bool keep_expired, Graveyard *dead) {
  while (oldest_ != nullptr && bytes_ + index_.bytes() + bytes > bytes_max_) {
    Entry *entry = victim(now, keep_expired);
    remove(entry);
    dead->add(entry);
  }
}

bool Shard::expect(size_t entries) {
  for (unsigned i = 0; i < kGrowthStep; ++i) {
    const size_t index_bytes = index_.bytes() + index_.growth();
    if (index_.buckets() * Index::kItemsPerBucket >= entries || index_bytes > bytes_max_ / kIndexShare) return false;
    if (bytes_ + index_bytes > bytes_max_ || !index_.grow()) return false;
  }
  return true;
}

dns_status Shard::insert(Entry *entry, Entry *old, dns_time now, bool keep_expired, Graveyard *dead) {
  const size_t needed = entry->charge() + (index_.due() ? index_.growth() : 0);
  if (index_.bytes() + needed > bytes_max_) return DNS_E_NOBUFS;
  if (index_.buckets() == 0 && !index_.grow()) return DNS_E_NOMEM;
  if (old != nullptr) {
    remove(old);
    dead->add(old);
  }
  make_room(needed, now, keep_expired, dead);
  (void)index_.insert(entry);  // cannot fail, as there is a bucket
  link(entry);
  bytes_ += entry->charge();
  return DNS_E_NOERROR;
}

}  // namespace dns
