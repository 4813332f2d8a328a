// chained_table.h - a hash table of records that carry their own links: a power of two of buckets, doubled as it fills.
//
// Keys are already evenly spread: random numbers, or hashes under a secret. The table never allocates or releases a
// record, and nothing here locks.
#ifndef DNS_ENGINE_CHAINED_TABLE_H
#define DNS_ENGINE_CHAINED_TABLE_H

#include <stdlib.h>

#include <functional>

#include <prefetch.h>

namespace base {

// kNext is the member that links a record to the next one in its bucket; kKey, a member or a function of a record, says
// which bucket that is.
template <typename T, T *T::*kNext, auto kKey>
class ChainedTable {
 public:
  ChainedTable() = default;
  ChainedTable(const ChainedTable &) = delete;
  ChainedTable &operator=(const ChainedTable &) = delete;
  ~ChainedTable() { free(buckets_); }

  // ready makes sure that there are buckets, which add and remove rely on. False without memory.
  [[nodiscard]] bool ready() {
    if (buckets_ == nullptr) grow();
    return buckets_ != nullptr;
  }
  void add(T *item) {
    if (count_ >= size_) grow();
    T *&head = buckets_[std::invoke(kKey, *item) & (size_ - 1)];
    item->*kNext = head;
    head = item;
    ++count_;
  }
  void remove(T *item) {
    T **at = &buckets_[std::invoke(kKey, *item) & (size_ - 1)];
    while (*at != item)
      at = &((*at)->*kNext);
    *at = item->*kNext;
    --count_;
  }
  // first returns the first record of the bucket of that key, or null.
  template <typename Key>
  [[nodiscard]] T *first(Key key) const {
    return size_ == 0 ? nullptr : buckets_[key & (size_ - 1)];
  }
  template <typename Key>
  void prefetch_bucket(Key key) const {
    if (size_ != 0) prefetch(&buckets_[key & (size_ - 1)]);
  }
  // each hands every record to `use`, which leaves the table as it is.
  template <typename Use>
  void each(Use use) const {
    for (unsigned i = 0; i < size_; ++i)
      for (T *item = buckets_[i]; item != nullptr; item = item->*kNext)
        use(item);
  }
  // drain hands every record to `end`, which takes it out and adds none.
  template <typename End>
  void drain(End end) {
    for (unsigned i = 0; i < size_; ++i)
      while (buckets_[i] != nullptr)
        end(buckets_[i]);
  }
  [[nodiscard]] unsigned count() const { return count_; }

 private:
  static constexpr unsigned kSizeMin = 64;

  void grow() {
    const unsigned size = size_ == 0 ? kSizeMin : 2 * size_;
    auto **buckets = static_cast<T **>(calloc(size, sizeof(T *)));
    if (buckets == nullptr) return;  // the present buckets stay, with longer chains
    for (unsigned i = 0; i < size_; ++i)
      while (T *item = buckets_[i]) {
        buckets_[i] = item->*kNext;
        T *&head = buckets[std::invoke(kKey, *item) & (size - 1)];
        item->*kNext = head;
        head = item;
      }
    free(buckets_);
    buckets_ = buckets;
    size_ = size;
  }

  T **buckets_ = nullptr;
  unsigned size_ = 0;
  unsigned count_ = 0;
};

}  // namespace base

#endif  // DNS_ENGINE_CHAINED_TABLE_H
