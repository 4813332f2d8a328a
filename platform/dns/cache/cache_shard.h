// cache_shard.h - one shard of the built-in cache: its entries, the index that finds them, and the order of eviction.
//
// Any thread may use a shard while it holds the shard's mutex. A thread holds the mutex for one lookup and one copy; it
// builds entries before, and releases them after. An entry is one block: head, name, records.
//
// The shard's list has the entries in the order of insertion; eviction takes them from the old end when the shard's
// share of the bytes is used up. An entry that was looked up since gets a second chance and moves to the new end
// instead. This keeps what is in use about as well as a move at each lookup would, but a lookup does not have to load
// and write the entry's two neighbours.
#ifndef CACHE_SHARD_H
#define CACHE_SHARD_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <utility>

#include <bucket_index.h>
#include <kavo/dns.h>
#include <pelk_annotations.h>
#include <pelk_sync.h>

namespace dns {

// What the allocator adds to a block, at most.
inline constexpr size_t kBlockOverhead = 16;

// Entry is the head of an entry's block; its name and its run follow it.
struct Entry {
  Entry *bucket_next;
  uint64_t hash;
  Entry *newer;
  Entry *older;
  dns_time stored;
  int32_t ttl;
  uint16_t run_size;
  uint16_t typ;
  uint16_t cls;
  uint16_t records;
  uint16_t cnames;
  uint8_t rcode : 4;  // as many bits as in a packet's header
  uint8_t used : 1;   // it was looked up since it was last at the new end of the list
  uint8_t dn_size;

  uint8_t *dn() { return reinterpret_cast<uint8_t *>(this + 1); }
  uint8_t *run() { return dn() + dn_size; }
  [[nodiscard]] size_t charge() const { return sizeof(Entry) + dn_size + run_size + kBlockOverhead; }
};

// age_since returns the seconds from `stored` to `now`; 0 when `stored` is later.
[[nodiscard]] int32_t age_since(dns_time stored, dns_time now);

// age_of returns the seconds that an entry has been in the cache. If the wall clock was set back to before it was
// stored, its age restarts at 0.
[[nodiscard]] int32_t age_of(Entry *entry, dns_time now);

// Graveyard holds entries that left their shard until its mutex is released. Declare it before the lock.
class Graveyard {
 public:
  Graveyard() = default;
  Graveyard(const Graveyard &) = delete;
  Graveyard &operator=(const Graveyard &) = delete;
  ~Graveyard() {
    while (first_ != nullptr)
      free(std::exchange(first_, first_->bucket_next));
  }
  void add(Entry *entry) { entry->bucket_next = std::exchange(first_, entry); }

 private:
  Entry *first_ = nullptr;
};

// Index finds entries by hash. Its shard's mutex guards it.
using Index = base::BucketIndex<Entry, &Entry::bucket_next, &Entry::hash>;

// Key is what an entry is found by.
struct Key {
  const uint8_t *dn;
  uint8_t dn_size;
  uint16_t typ;
  uint16_t cls;
  uint64_t hash;
};

class alignas(CACHE_LINE) Shard {
 public:
  Shard() = default;
  Shard(const Shard &) = delete;
  Shard &operator=(const Shard &) = delete;

  pelk_mutex_t mutex;

  [[nodiscard]] Entry *find(const Key &key) PELK_REQUIRES(mutex);
  // prefetch_place has the processor fetch where an entry of this hash is filed; it needs no mutex.
  void prefetch_place(uint64_t hash) const PELK_NO_ANALYSIS { index_.prefetch_place(static_cast<uint32_t>(hash)); }
  // used gives an entry a second chance at its next turn to be evicted.
  void used(Entry *entry) PELK_REQUIRES(mutex) { entry->used = 1; }
  // remove takes an entry out; the caller releases it.
  void remove(Entry *entry) PELK_REQUIRES(mutex);
  // insert files `entry` in the place of `old`, which find gave for its key, and evicts entries as needed. DNS_E_NOBUFS
  // for one that is larger than the shard, DNS_E_NOMEM: nothing has changed.
  [[nodiscard]] dns_status insert(Entry *entry, Entry *old, dns_time now, bool keep_expired, Graveyard *dead)
      PELK_REQUIRES(mutex);
  // expect adds buckets for `entries` to the index, a bounded number each call. False when there are enough, or when
  // more would take too much of the shard.
  [[nodiscard]] bool expect(size_t entries) PELK_REQUIRES(mutex);
  [[nodiscard]] const Index &index() const PELK_REQUIRES(mutex) { return index_; }
  // begin comes first and end last, while no other thread knows the shard.
  [[nodiscard]] bool begin(size_t bytes_max) PELK_NO_ANALYSIS;
  void end() PELK_NO_ANALYSIS;

 private:
  void link(Entry *entry) PELK_REQUIRES(mutex);
  void unlink(Entry *entry) PELK_REQUIRES(mutex);
  [[nodiscard]] Entry *victim(dns_time now, bool keep_expired) PELK_REQUIRES(mutex);
  void make_room(size_t bytes, dns_time now, bool keep_expired, Graveyard *dead) PELK_REQUIRES(mutex);

  Index index_ PELK_GUARDED_BY(mutex) = {};
  Entry *newest_ PELK_GUARDED_BY(mutex) = nullptr;
  Entry *oldest_ PELK_GUARDED_BY(mutex) = nullptr;
  size_t bytes_ PELK_GUARDED_BY(mutex) = 0;  // of the entries
  size_t bytes_max_ PELK_GUARDED_BY(mutex) = 0;
};

}  // namespace dns

#endif  // CACHE_SHARD_H
