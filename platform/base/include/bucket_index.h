// bucket_index.h - finds records by their hashes, in memory that no processor cache has room for.
//
// The index is an array of buckets that grows by one bucket at a time (linear hashing): the records of one older bucket
// are shared out between it and the new one, so that no call ever pays for a large step. The array lies in segments
// that never move, four for each doubling.
//
// A bucket is one cache line of pointers. What it knows of its records' hashes lies apart, eight bytes a bucket: that
// tells of nearly all keys that they are not there, and which record to compare, before any record is touched. Filing a
// record and taking it out touch no other one, but for the few that wait in chains. Nothing here locks.
#ifndef BUCKET_INDEX_H
#define BUCKET_INDEX_H

#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <bit>

#include <prefetch.h>

// kNext is the member that links a record to another one of its bucket's chain, kHash the one that holds its hash, of
// which the index takes 32 bits. A BucketIndex is all zeros at first; release() makes it so again.
template <typename T, T *T::*kNext, auto kHash>
class BucketIndex {
 public:
  // A bucket has room for kSlots records; those that find no free slot wait in a chain. There are enough buckets for
  // kItemsPerBucket records in each.
  static constexpr unsigned kSlots = 7;
  static constexpr size_t kItemsPerBucket = 4;

  [[nodiscard]] size_t buckets() const { return buckets_; }
  [[nodiscard]] size_t items() const { return items_; }
  // bytes is the memory that the index takes at most, growth what it grows by with the next bucket.
  [[nodiscard]] size_t bytes() const { return bytes_of(buckets_); }
  [[nodiscard]] size_t growth() const { return bytes_of(buckets_ + 1) - bytes(); }

  // find returns the record of this hash that `is_it` accepts, or null.
  template <typename IsIt>
  [[nodiscard]] T *find(uint32_t hash, IsIt is_it) const {
    if (buckets_ == 0) return nullptr;
    const Place place = place_of(hash, buckets_);
    prefetch(place.bucket);  // a search in vain is mostly followed by an insertion
    for (uint64_t left = tagged(*place.tags, tag_of(hash)); left != 0; left &= left - 1) {
      T *item = place.bucket->slots[slot_of(left)];
      if (is_it(item)) return item;
    }
    if ((place.tags->chain & chain_bit_of(hash)) == 0) return nullptr;
    for (T *item = place.bucket->chain; item != nullptr; item = item->*kNext)
      if (is_it(item)) return item;
    return nullptr;
  }

  // insert files a record and, where one is due, adds a bucket. False without memory for the first bucket; without
  // memory for another one the chains only get longer, and a later insertion tries again.
  [[nodiscard]] bool insert(T *item) {
    if (due() && !grow() && buckets_ == 0) return false;
    put(place_of(hash_of(item), buckets_), item);
    items_ += 1;
    return true;
  }

  // remove takes a record out. A slot that falls free goes to the first record of the chain, so that chains stay rare
  // and searches short.
  void remove(T *item) {
    const Place place = place_of(hash_of(item), buckets_);
    items_ -= 1;
    for (uint64_t left = tagged(*place.tags, tag_of(hash_of(item))); left != 0; left &= left - 1) {
      const int slot = slot_of(left);
      if (place.bucket->slots[slot] != item) continue;
      place.tags->slots[slot] = 0;
      if (place.tags->chain != 0) put(place, drop(place, &place.bucket->chain));
      return;
    }
    T **link = &place.bucket->chain;
    while (*link != item)
      link = &((*link)->*kNext);
    drop(place, link);
  }

  // due tells whether one more record asks for one more bucket.
  [[nodiscard]] bool due() const { return items_ >= buckets_ * kItemsPerBucket; }
  // grow adds a bucket; false without memory.
  [[nodiscard]] bool grow() {
    const size_t segment = segment_of(buckets_);
    if (segment >= segments_.size()) return false;
    if (segments_[segment] == nullptr) segments_[segment] = make_segment(segment_size(segment));
    if (segments_[segment] == nullptr) return false;
    const size_t fresh = buckets_;
    *bucket_at(fresh).tags = {};
    bucket_at(fresh).bucket->chain = nullptr;
    __atomic_store_n(&buckets_, fresh + 1, __ATOMIC_RELEASE);
    if (fresh != 0) share_out(fresh - std::bit_floor(fresh), fresh);
    return true;
  }

  // each hands every record of bucket `number`, below buckets(), to `use` until that returns false; false then. While
  // the index grows a record only ever moves to the new last bucket, so that a walk in ascending order meets it.
  template <typename Use>
  bool each(size_t number, Use use) const {
    const Place place = bucket_at(number);
    for (unsigned i = 0; i < kSlots; ++i)
      if (place.tags->slots[i] != 0 && !use(place.bucket->slots[i])) return false;
    for (T *item = place.bucket->chain; item != nullptr; item = item->*kNext)
      if (!use(item)) return false;
    return true;
  }

  // prefetch_place asks the processor for a hash's bucket. Any thread may call it at any time, without the lock that
  // keeps the others apart: what it reads is there before buckets_ says so, and never changes.
  void prefetch_place(uint32_t hash) const {
    const size_t buckets = __atomic_load_n(&buckets_, __ATOMIC_ACQUIRE);
    if (buckets == 0) return;
    const Place place = place_of(hash, buckets);
    prefetch(place.tags);
    prefetch(place.bucket);
  }
  // prefetch_found asks for the records that find would look at.
  void prefetch_found(uint32_t hash) const {
    if (buckets_ == 0) return;
    const Place place = place_of(hash, buckets_);
    for (uint64_t left = tagged(*place.tags, tag_of(hash)); left != 0; left &= left - 1)
      prefetch(place.bucket->slots[slot_of(left)]);
  }

  void release() {
    for (Bucket *segment : segments_)
      free(segment);
    *this = {};
  }

 private:
  static constexpr size_t kFirstBuckets = 8;  // which is the size of the first segment
  static constexpr size_t kSegmentsEach = 4;  // segments of each doubling
  static constexpr unsigned kFirstShift = std::countr_zero(kFirstBuckets / kSegmentsEach);
  static constexpr unsigned kBitsMax = 24;  // of a hash that choose the bucket
  static constexpr size_t kSegmentsMax = 1 + kSegmentsEach * (kBitsMax - std::countr_zero(kFirstBuckets));
  static constexpr uint64_t kEachSlot = 0x01010101010101;
  static_assert(std::has_single_bit(kFirstBuckets) && kItemsPerBucket < kSlots);

  // A tag for each slot, 0 for a free one, and a few bits for the hashes in the chain.
  struct Tags {
    uint8_t slots[kSlots];
    uint8_t chain;
  };
  struct alignas(CACHE_LINE) Bucket {
    T *slots[kSlots];
    T *chain;
  };
  struct Place {
    Tags *tags;
    Bucket *bucket;
  };
  static constexpr size_t kBucketBytes = sizeof(Tags) + sizeof(Bucket);

  // bytes_of reckons with a segment that was just begun: it is a fourth of all before it at most.
  static size_t bytes_of(size_t buckets) {
    return buckets == 0 ? 0 : std::max(kFirstBuckets, buckets + buckets / kSegmentsEach + 1) * kBucketBytes;
  }

  static uint32_t hash_of(const T *item) { return static_cast<uint32_t>(item->*kHash); }

  // shift_of is the binary logarithm of the size of a bucket's segment, past the first one.
  static unsigned shift_of(size_t bucket) { return static_cast<unsigned>(std::bit_width(bucket / kSegmentsEach)) - 1; }
  static size_t segment_of(size_t bucket) {
    if (bucket < kFirstBuckets) return 0;
    const unsigned shift = shift_of(bucket);
    return 1 + kSegmentsEach * (shift - kFirstShift) + (bucket >> shift) - kSegmentsEach;
  }
  static size_t segment_size(size_t segment) {
    return segment == 0 ? kFirstBuckets : size_t{1} << (kFirstShift + (segment - 1) / kSegmentsEach);
  }
  // A segment is its buckets and, behind them, their tags.
  static Bucket *make_segment(size_t size) {
    void *memory = nullptr;
    return posix_memalign(&memory, alignof(Bucket), size * kBucketBytes) == 0 ? static_cast<Bucket *>(memory) : nullptr;
  }
  static Place place_in(Bucket *segment, size_t size, size_t offset) {
    void *tags = segment + size;
    return {static_cast<Tags *>(tags) + offset, segment + offset};
  }

  [[nodiscard]] Place bucket_at(size_t number) const {
    if (number < kFirstBuckets) return place_in(segments_[0], kFirstBuckets, number);
    const size_t size = size_t{1} << shift_of(number);
    return place_in(segments_[segment_of(number)], size, number & (size - 1));
  }
  // place_of returns the bucket of a hash: its low bits, with the top one dropped while the bucket that they name is
  // still to come.
  [[nodiscard]] Place place_of(uint32_t hash, size_t buckets) const {
    const size_t mask = std::bit_ceil(buckets) - 1;
    const size_t number = hash & mask;
    return bucket_at(number < buckets ? number : number & (mask >> 1));
  }

  // tag_of and chain_bit_of are what a bucket knows of a hash, from the end that does not choose the bucket.
  static uint8_t tag_of(uint32_t hash) { return static_cast<uint8_t>(hash >> 24 | 1); }
  static uint8_t chain_bit_of(uint32_t hash) { return static_cast<uint8_t>(1U << (hash >> 29)); }

  // tagged returns a number that has, for each slot with `tag`, the top bit of the slot's byte set. (All are compared
  // as one number: where a byte differs, its top bit does, or adding 0x7f to the others carries into it.)
  static uint64_t tagged(const Tags &tags, uint8_t tag) {
    constexpr uint64_t kLow = 0x7f * kEachSlot, kTop = 0x80 * kEachSlot;
    const uint64_t differ = (std::bit_cast<uint64_t>(tags) ^ (tag * kEachSlot)) & (kLow | kTop);
    return ~(((differ & kLow) + kLow) | differ) & kTop;
  }
  // free_slots returns such a number too: every tag has its lowest bit set.
  static uint64_t free_slots(const Tags &tags) { return ~std::bit_cast<uint64_t>(tags) & kEachSlot; }
  static int slot_of(uint64_t slots) { return std::countr_zero(slots) / CHAR_BIT; }

  static void put(Place place, T *item) {
    const uint32_t hash = hash_of(item);
    if (const uint64_t free = free_slots(*place.tags); free != 0) {
      const int slot = slot_of(free);
      place.tags->slots[slot] = tag_of(hash);
      place.bucket->slots[slot] = item;
      return;
    }
    place.tags->chain |= chain_bit_of(hash);
    item->*kNext = place.bucket->chain;
    place.bucket->chain = item;
  }
  // drop takes the record at `link` out of the chain and returns it. The bits are those of the others then, though it
  // costs a look at them: bits that stay behind would have every search in the bucket look at them in the end.
  static T *drop(Place place, T **link) {
    T *item = *link;
    *link = item->*kNext;
    place.tags->chain = 0;
    for (const T *left = place.bucket->chain; left != nullptr; left = left->*kNext)
      place.tags->chain |= chain_bit_of(hash_of(left));
    return item;
  }

  // share_out moves those records of the bucket `from` that belong to the new bucket `to`.
  void share_out(size_t from, size_t to) {
    const size_t mask = (std::bit_floor(to) << 1) - 1;
    const Place stay = bucket_at(from), move = bucket_at(to);
    const Tags tags = *stay.tags;
    const Bucket bucket = *stay.bucket;
    *stay.tags = {};
    stay.bucket->chain = nullptr;
    const auto place = [&](T *item) { put((hash_of(item) & mask) == to ? move : stay, item); };
    for (unsigned i = 0; i < kSlots; ++i)
      if (tags.slots[i] != 0) place(bucket.slots[i]);
    for (T *item = bucket.chain, *next; item != nullptr; item = next) {
      next = item->*kNext;
      place(item);
    }
  }

  std::array<Bucket *, kSegmentsMax> segments_;
  size_t buckets_;
  size_t items_;
};

#endif  // BUCKET_INDEX_H
