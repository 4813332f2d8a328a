// bucket.h - one bucket of a BucketIndex (bucket_index.h).
//
// A bucket is one cache line of pointers to records. A separate array holds eight bytes of tags for each bucket, made
// from the records' hashes. The tags rule out nearly every key that is absent, and they tell which record to compare,
// before any record is touched. Records that find no free slot are in a chain. Nothing here locks.
#ifndef BUCKET_H
#define BUCKET_H

#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <bit>

#include <prefetch.h>

namespace base {

template <typename T, T *T::*kNext, auto kHash>
struct Bucket {
  static constexpr unsigned kSlots = 7;

  // A tag for each slot, 0 for a free one, and a few bits for the hashes in the chain.
  struct Tags {
    uint8_t slots[kSlots];
    uint8_t chain;
  };
  struct alignas(CACHE_LINE) Line {
    T *slots[kSlots];
    T *chain;
  };

  static constexpr size_t kBytes = sizeof(Tags) + sizeof(Line);

  Tags *tags;
  Line *line;

  // make returns memory for `count` buckets, their lines and then their tags, or null. at is one of them.
  static Line *make(size_t count) {
    void *memory = nullptr;
    return posix_memalign(&memory, alignof(Line), count * kBytes) == 0 ? static_cast<Line *>(memory) : nullptr;
  }
  static Bucket at(Line *lines, size_t count, size_t number) {
    void *tags = lines + count;
    return {static_cast<Tags *>(tags) + number, lines + number};
  }

  static uint32_t hash_of(const T *item) { return static_cast<uint32_t>(item->*kHash); }

  void clear() const {
    *tags = {};
    line->chain = nullptr;
  }

  // find returns the record of this hash that `is_it` accepts, or null.
  template <typename IsIt>
  [[nodiscard]] T *find(uint32_t hash, IsIt is_it) const {
    for (uint64_t left = tagged(tag_of(hash)); left != 0; left &= left - 1) {
      T *item = line->slots[slot_of(left)];
      if (is_it(item)) return item;
    }
    if ((tags->chain & chain_bit_of(hash)) == 0) return nullptr;
    for (T *item = line->chain; item != nullptr; item = item->*kNext)
      if (is_it(item)) return item;
    return nullptr;
  }

  void put(T *item) const {
    const uint32_t hash = hash_of(item);
    if (const uint64_t free = free_slots(); free != 0) {
      const int slot = slot_of(free);
      tags->slots[slot] = tag_of(hash);
      line->slots[slot] = item;
      return;
    }
    tags->chain |= chain_bit_of(hash);
    item->*kNext = line->chain;
    line->chain = item;
  }

  // remove takes a record out. The first record of the chain takes over the slot, so that chains stay rare and searches
  // short.
  void remove(T *item) const {
    for (uint64_t left = tagged(tag_of(hash_of(item))); left != 0; left &= left - 1) {
      const int slot = slot_of(left);
      if (line->slots[slot] != item) continue;
      tags->slots[slot] = 0;
      if (tags->chain != 0) put(drop(&line->chain));
      return;
    }
    T **link = &line->chain;
    while (*link != item)
      link = &((*link)->*kNext);
    drop(link);
  }

  // each hands every record to `use` until that returns false; false then.
  template <typename Use>
  bool each(Use use) const {
    for (unsigned i = 0; i < kSlots; ++i)
      if (tags->slots[i] != 0 && !use(line->slots[i])) return false;
    for (T *item = line->chain, *next; item != nullptr; item = next) {
      next = item->*kNext;
      if (!use(item)) return false;
    }
    return true;
  }

  // prefetch_found asks the processor for the records that find would look at.
  void prefetch_found(uint32_t hash) const {
    for (uint64_t left = tagged(tag_of(hash)); left != 0; left &= left - 1)
      prefetch(line->slots[slot_of(left)]);
  }

 private:
  static constexpr uint64_t kEachSlot = 0x01010101010101;

  // tag_of and chain_bit_of are what a bucket keeps of a hash: bits from the end that does not choose the bucket.
  static uint8_t tag_of(uint32_t hash) { return static_cast<uint8_t>(hash >> 24 | 1); }
  static uint8_t chain_bit_of(uint32_t hash) { return static_cast<uint8_t>(1U << (hash >> 29)); }

  // tagged returns a number that has, for each slot with `tag`, the top bit of the slot's byte set. (All are compared
  // as one number: where a byte differs, its top bit does, or adding 0x7f to the others carries into it.)
  [[nodiscard]] uint64_t tagged(uint8_t tag) const {
    constexpr uint64_t kLow = 0x7f * kEachSlot, kTop = 0x80 * kEachSlot;
    const uint64_t differ = (std::bit_cast<uint64_t>(*tags) ^ (tag * kEachSlot)) & (kLow | kTop);
    return ~(((differ & kLow) + kLow) | differ) & kTop;
  }
  // free_slots returns such a number too: every tag has its lowest bit set.
  [[nodiscard]] uint64_t free_slots() const { return ~std::bit_cast<uint64_t>(*tags) & kEachSlot; }
  static int slot_of(uint64_t slots) { return std::countr_zero(slots) / CHAR_BIT; }

  // drop takes the record at `link` out of the chain and returns it. The chain's bits are then made anew from the
  // records that are left: if old bits stayed, every search in the bucket would walk the chain in the end.
  T *drop(T **link) const {
    T *item = *link;
    *link = item->*kNext;
    tags->chain = 0;
    for (const T *left = line->chain; left != nullptr; left = left->*kNext)
      tags->chain |= chain_bit_of(hash_of(left));
    return item;
  }
};

}  // namespace base

#endif  // BUCKET_H
