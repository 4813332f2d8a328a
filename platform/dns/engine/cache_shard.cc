// cache_shard.cc - the index and the list of one shard. Every operation on a shard runs under its mutex.
#include "cache_shard.h"

#include <string.h>

#include <algorithm>
#include <bit>

#include "dns_wire.h"

namespace dns {

namespace {

constexpr size_t kDirectoryMin = 8;

// How many entries from the old end of the list are looked at for an expired one that can give way first.
constexpr unsigned kVictimsSeen = 4;

// Second chances given for one entry that gives way: few enough for one call, and more than are needed on the whole
// while fewer than as many look-ups come to each new entry.
constexpr unsigned kSecondChances = 64;

// Buckets made at once ahead of the entries, and the part of a shard that they may take: less than what they take of a
// shard full of small entries.
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

Index::~Index() {
  for (size_t i = 0; i < segments(); ++i)
    free(directory_[i]);
  free(directory_);
}

size_t Index::segments() const {
  return (buckets_ + kSegmentBuckets - 1) / kSegmentBuckets;
}

void Index::insert(Entry *entry) {
  Entry **head = bucket(place(entry->hash));
  entry->bucket_next = std::exchange(*head, entry);
  entries_ += 1;
}

void Index::remove(Entry *entry) {
  Entry **link = bucket(place(entry->hash));
  while (*link != entry)
    link = &(*link)->bucket_next;
  *link = entry->bucket_next;
  entries_ -= 1;
}

size_t Index::growth() const {
  if (buckets_ % kSegmentBuckets != 0) return 0;
  const size_t segment = kSegmentBuckets * sizeof(Entry *) + kBlockOverhead;
  if (segments() < directory_size_) return segment;
  return segment + std::max(kDirectoryMin, directory_size_) * sizeof(Entry **);
}

size_t Index::bytes() const {
  return segments() * (kSegmentBuckets * sizeof(Entry *) + kBlockOverhead) + directory_size_ * sizeof(Entry **);
}

bool Index::add_segment() {
  if (segments() == directory_size_) {
    const size_t size = std::max(kDirectoryMin, 2 * directory_size_);
    void *directory = realloc(directory_, size * sizeof(Entry **));
    if (directory == nullptr) return false;
    directory_ = static_cast<Entry ***>(directory);
    directory_size_ = size;
  }
  void *segment = calloc(kSegmentBuckets, sizeof(Entry *));
  if (segment == nullptr) return false;
  directory_[segments()] = static_cast<Entry **>(segment);
  return true;
}

bool Index::grow() {
  if (buckets_ % kSegmentBuckets == 0 && !add_segment()) return false;
  const size_t fresh = buckets_++;
  if (fresh == 0) return true;
  Entry **source = bucket(fresh - std::bit_floor(fresh));
  Entry *entry = std::exchange(*source, nullptr);
  while (entry != nullptr) {
    Entry *next = entry->bucket_next;
    Entry **head = bucket(place(entry->hash));
    entry->bucket_next = std::exchange(*head, entry);
    entry = next;
  }
  return true;
}

bool Shard::begin(size_t bytes_max) {
  bytes_max_ = bytes_max;
  return pelk_mutex_init(&mutex) == 0;
}

void Shard::end() {
  while (newest_ != nullptr)
    free(std::exchange(newest_, newest_->older));
  (void)pelk_mutex_destroy(&mutex);
}

Entry *Shard::find(const Key &key) {
  for (Entry *entry = index_.first(key.hash); entry != nullptr; entry = entry->bucket_next) {
    if (entry->hash != key.hash || entry->typ != key.typ || entry->cls != key.cls) continue;
    if (entry->dn_size != key.dn_size) continue;
    if (memcmp(entry->dn(), key.dn, key.dn_size) == 0 || dns_dnequal(entry->dn(), key.dn) != 0) return entry;
  }
  return nullptr;
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

// victim chooses the entry that gives way: the oldest that was not used since its last turn, or a neighbour of its that
// has expired and that no look-up returns any more.
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
    if (index_.buckets() >= entries || index_bytes > bytes_max_ / kIndexShare) return false;
    if (bytes_ + index_bytes > bytes_max_ || !index_.grow()) return false;
  }
  return true;
}

dns_status Shard::insert(Entry *entry, Entry *old, dns_time now, bool keep_expired, Graveyard *dead) {
  const size_t needed = entry->charge() + (index_.due() ? index_.growth() : 0);
  if (index_.bytes() + needed > bytes_max_) return DNS_E_NOBUFS;
  if (index_.empty() && !index_.grow()) return DNS_E_NOMEM;
  if (old != nullptr) {
    remove(old);
    dead->add(old);
  }
  make_room(needed, now, keep_expired, dead);
  if (index_.due()) (void)index_.grow();  // without memory the buckets grow longer instead
  index_.insert(entry);
  link(entry);
  bytes_ += entry->charge();
  return DNS_E_NOERROR;
}

}  // namespace dns
