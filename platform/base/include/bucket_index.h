// bucket_index.h - finds records by their hashes, in memory that no processor cache has room for.
//
// The index is an array of buckets (bucket.h) that grows by one bucket at a time (linear hashing): the records of one
// older bucket are shared out between it and the new one, so that no call ever pays for a large step. The array is in
// segments that never move, four for each doubling. Inserting or removing a record touches no other record, except the
// few in chains. Nothing here locks.
#ifndef BUCKET_INDEX_H
#define BUCKET_INDEX_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <bit>

#include <bucket.h>
#include <prefetch.h>
#include <segments.h>

namespace base {

// kNext is the member that links a record to another one of its bucket's chain, kHash the one that holds its hash, of
// which the index takes 32 bits. A BucketIndex is all zeros at first; release() makes it so again.
template <typename T, T *T::*kNext, auto kHash>
class BucketIndex {
 public:
  // There are enough buckets for this many records in each.
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
    prefetch(place.line);  // a search in vain is mostly followed by an insertion
    return place.find(hash, is_it);
  }

  // insert files a record and, where one is due, adds a bucket. False without memory for the first bucket; without
  // memory for another one the chains only get longer, and a later insertion attempts it again.
  [[nodiscard]] bool insert(T *item) {
    if (due() && !grow() && buckets_ == 0) return false;
    place_of(Place::hash_of(item), buckets_).put(item);
    items_ += 1;
    return true;
  }

  void remove(T *item) {
    place_of(Place::hash_of(item), buckets_).remove(item);
    items_ -= 1;
  }

  // due tells whether one more record asks for one more bucket.
  [[nodiscard]] bool due() const { return items_ >= buckets_ * kItemsPerBucket; }
  // grow adds a bucket; false without memory.
  [[nodiscard]] bool grow() {
    const size_t segment = segments::segment_of(buckets_);
    if (segment >= segments_.size()) return false;
    if (segments_[segment] == nullptr) segments_[segment] = Place::make(segments::size_of(segment));
    if (segments_[segment] == nullptr) return false;
    const size_t fresh = buckets_;
    bucket_at(fresh).clear();
    __atomic_store_n(&buckets_, fresh + 1, __ATOMIC_RELEASE);
    if (fresh != 0) share_out(fresh - std::bit_floor(fresh), fresh);
    return true;
  }

  // each hands every record of bucket `number`, below buckets(), to `use` until that returns false; false then. While
  // the index grows a record only ever moves to the new last bucket, so that a walk in ascending order meets it.
  template <typename Use>
  bool each(size_t number, Use use) const {
    return bucket_at(number).each(use);
  }

  // prefetch_place asks the processor for a hash's bucket. Any thread may call it at any time, without the lock that
  // guards the index: the segments it reads are stored before buckets_ counts their buckets, and never change.
  // prefetch_found asks for the records that find would look at.
  void prefetch_place(uint32_t hash) const {
    const size_t buckets = __atomic_load_n(&buckets_, __ATOMIC_ACQUIRE);
    if (buckets == 0) return;
    const Place place = place_of(hash, buckets);
    prefetch(place.tags);
    prefetch(place.line);
  }
  void prefetch_found(uint32_t hash) const {
    if (buckets_ != 0) place_of(hash, buckets_).prefetch_found(hash);
  }

  void release() {
    for (Line *segment : segments_)
      free(segment);
    *this = {};
  }

 private:
  using Place = Bucket<T, kNext, kHash>;
  using Line = typename Place::Line;
  using Tags = typename Place::Tags;

  static constexpr unsigned kBitsMax = 24;  // of a hash that choose the bucket
  static_assert(kItemsPerBucket < Place::kSlots);

  // bytes_of counts the last segment whole: it is at most a fourth of all before it.
  static size_t bytes_of(size_t buckets) {
    return buckets == 0 ? 0 : std::max(segments::kFirst, buckets + buckets / segments::kEach + 1) * Place::kBytes;
  }

  [[nodiscard]] Place bucket_at(size_t number) const {
    if (number < segments::kFirst) return Place::at(segments_[0], segments::kFirst, number);
    const size_t size = size_t{1} << segments::shift_of(number);
    return Place::at(segments_[segments::segment_of(number)], size, number & (size - 1));
  }
  // place_of returns the bucket of a hash: its low bits, without the top one if the index has not grown to that bucket
  // yet.
  [[nodiscard]] Place place_of(uint32_t hash, size_t buckets) const {
    const size_t mask = std::bit_ceil(buckets) - 1;
    const size_t number = hash & mask;
    return bucket_at(number < buckets ? number : number & (mask >> 1));
  }

  // share_out moves those records of the bucket `from` that belong to the new bucket `to`.
  void share_out(size_t from, size_t to) {
    const size_t mask = (std::bit_floor(to) << 1) - 1;
    const Place stay = bucket_at(from), move = bucket_at(to);
    Tags tags = *stay.tags;
    Line line = *stay.line;
    stay.clear();
    Place{&tags, &line}.each([&](T *item) {
      ((Place::hash_of(item) & mask) == to ? move : stay).put(item);
      return true;
    });
  }

  std::array<Line *, segments::count_for(kBitsMax)> segments_;
  size_t buckets_;
  size_t items_;
};

}  // namespace base

#endif  // BUCKET_INDEX_H
