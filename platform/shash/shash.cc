// shash.cc - the static hash table: linear hashing over segments, and one list per range.
//
// The index is an array of buckets that grows by one bucket with each insertion that finds more items than the buckets
// are meant for: the items of one older bucket are shared out between it and the new one, so no insertion ever moves
// the whole table. The array lies in segments, each as large as all before it, which never move; a table costs memory
// as it fills.
//
// The items of a large table lie in memory that no processor cache has room for. So what tells of most keys that they
// are not there is kept small and apart, a bucket is one cache line, filing an item and taking it out touch no other
// item, and what comes next is asked for ahead. Nothing here locks.
#include "shash.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <bit>
#include <span>

#include "prefetch.h"
#include "siphash.h"

namespace {

// Buckets that a table starts with, which is the size of its first segment.
constexpr size_t kFirstBuckets = 4;
static_assert(std::has_single_bit(kFirstBuckets));

// An item's data follows it at once, aligned for anything.
static_assert(sizeof(shash_item) % alignof(max_align_t) == 0);

// Bucket is where a bucket and what it knows lie.
struct Bucket {
  shash_tags *tags;
  shash_bucket *items;
};

size_t segment_of(size_t bucket) {
  return bucket < kFirstBuckets ? 0 : static_cast<size_t>(std::bit_width(bucket / kFirstBuckets));
}

size_t segment_size(size_t segment) {
  return segment == 0 ? kFirstBuckets : kFirstBuckets << (segment - 1);
}

Bucket bucket_at(const shash_table *table, size_t number) {
  const shash_segment &segment = table->segments[segment_of(number)];
  const size_t offset = number < kFirstBuckets ? number : number - std::bit_floor(number);
  return {&segment.tags[offset], &segment.buckets[offset]};
}

// bucket_for returns the bucket of `hash`: its low bits, with the top one dropped while the bucket that they name is
// still to come.
Bucket bucket_for(const shash_table *table, uint32_t hash) {
  const size_t mask = std::bit_ceil(table->buckets) - 1;
  const size_t number = hash & mask;
  return bucket_at(table, number < table->buckets ? number : number & (mask >> 1));
}

// tag_of and chain_bit_of are what a bucket knows of a hash, from the end that does not choose the bucket.
uint8_t tag_of(uint32_t hash) {
  return static_cast<uint8_t>(hash >> 24 | 1);
}

uint8_t chain_bit_of(uint32_t hash) {
  return static_cast<uint8_t>(1U << (hash >> 29));
}

// tagged returns a number that has, for each slot with `tag`, the top bit of the slot's byte set. (Eight bytes are
// compared as one number: where they differ, adding 0x7f carries into the top bit or a top bit differs.)
uint64_t tagged(const shash_tags &tags, uint8_t tag) {
  constexpr uint64_t kEach = 0x01010101010101, kLow = 0x7f * kEach, kTop = 0x80 * kEach;
  const uint64_t differ = (std::bit_cast<uint64_t>(tags) ^ (tag * kEach)) & 0xff * kEach;
  return ~(((differ & kLow) + kLow) | differ) & kTop;
}

// free_slots returns such a number too: every tag has its lowest bit set.
uint64_t free_slots(const shash_tags &tags) {
  constexpr uint64_t kEach = 0x01010101010101;
  return ~std::bit_cast<uint64_t>(tags) & kEach;
}

// slot_of returns the first slot of a number of either kind.
int slot_of(uint64_t tagged_slots) {
  return std::countr_zero(tagged_slots) / CHAR_BIT;
}

void put(Bucket bucket, shash_item *item) {
  if (const uint64_t free = free_slots(*bucket.tags); free != 0) {
    const int slot = slot_of(free);
    bucket.tags->slots[slot] = tag_of(item->hash);
    bucket.items->slots[slot] = item;
    return;
  }
  bucket.tags->chain |= chain_bit_of(item->hash);
  item->bucket_next = bucket.items->chain;
  bucket.items->chain = item;
}

// take_out takes an item out of its bucket. A slot that falls free goes to the first item of the chain, so that chains
// stay rare and searches short; the chain's bits stay until it is empty, since its other items are not read.
void take_out(Bucket bucket, shash_item *item) {
  const auto drop_from_chain = [&](shash_item **link) {
    *link = (*link)->bucket_next;
    if (bucket.items->chain == nullptr) bucket.tags->chain = 0;
  };
  for (uint64_t left = tagged(*bucket.tags, tag_of(item->hash)); left != 0; left &= left - 1) {
    const int slot = slot_of(left);
    if (bucket.items->slots[slot] != item) continue;
    bucket.tags->slots[slot] = 0;
    if (bucket.tags->chain == 0) return;
    shash_item *waiting = bucket.items->chain;
    drop_from_chain(&bucket.items->chain);
    put(bucket, waiting);
    return;
  }
  shash_item **link = &bucket.items->chain;
  while (*link != item)
    link = &(*link)->bucket_next;
  drop_from_chain(link);
}

// share_out moves those items of the bucket `from` that belong to the new bucket `to`.
void share_out(shash_table *table, size_t from, size_t to) {
  const size_t mask = (std::bit_floor(to) << 1) - 1;
  const Bucket stay = bucket_at(table, from), move = bucket_at(table, to);
  const shash_tags tags = *stay.tags;
  const shash_bucket items = *stay.items;
  const auto place = [&](shash_item *item) { put((item->hash & mask) == to ? move : stay, item); };
  *stay.tags = *move.tags = {};
  stay.items->chain = move.items->chain = nullptr;
  for (unsigned i = 0; i < SHASH_SLOTS; ++i)
    if (tags.slots[i] != 0) place(items.slots[i]);
  for (shash_item *item = items.chain, *next; item != nullptr; item = next) {
    next = item->bucket_next;
    place(item);
  }
}

bool make_segment(shash_segment *segment, size_t size) {
  void *tags = calloc(size, sizeof(shash_tags));
  void *buckets = tags != nullptr ? aligned_alloc(alignof(shash_bucket), size * sizeof(shash_bucket)) : nullptr;
  if (buckets == nullptr) {
    free(tags);
    return false;
  }
  *segment = {static_cast<shash_tags *>(tags), static_cast<shash_bucket *>(buckets)};
  return true;
}

// grow adds one bucket while there are too few for the items. Without memory the chains only get longer, and a later
// insertion tries again.
void grow(shash_table *table) {
  if (table->buckets * SHASH_ITEMS_PER_BUCKET >= table->count) return;
  const size_t fresh = table->buckets;
  const size_t number = segment_of(fresh);
  if (number >= SHASH_MAX_SEGMENTS) return;
  shash_segment *segment = &table->segments[number];
  if (segment->tags == nullptr && !make_segment(segment, segment_size(number))) return;
  table->buckets += 1;
  share_out(table, fresh - std::bit_floor(fresh), fresh);
}

void range_append(shash_table *table, shash_item *item, rindex_t number) {
  shash_range &range = table->ranges[number];
  item->range = number;
  item->range_prev = range.last;
  item->range_next = nullptr;
  (range.last != nullptr ? range.last->range_next : range.first) = item;
  range.last = item;
  range.count += 1;
}

void range_take_out(shash_table *table, shash_item *item) {
  shash_range &range = table->ranges[item->range];
  (item->range_prev != nullptr ? item->range_prev->range_next : range.first) = item->range_next;
  (item->range_next != nullptr ? item->range_next->range_prev : range.last) = item->range_prev;
  range.count -= 1;
}

// prefetch_key asks for an item's key and the line before it: owners keep what they know of a key next to it.
void prefetch_key(const shash_item *item) {
  prefetch(item->pKey);
  prefetch(item->pKey - CACHE_LINE);
}

// prefetch_next_to_go asks for what evicting the item after the next one takes, which nobody has looked at for as long
// as the table holds items, and for the item that follows. (Of those before them it was asked for earlier.)
void prefetch_next_to_go(const shash_table *table) {
  const shash_item *item = table->ranges[0].first;
  if (item == nullptr || item->range_next == nullptr) return;
  item = item->range_next;
  const Bucket bucket = bucket_for(table, item->hash);
  prefetch(bucket.tags);
  prefetch(bucket.items);
  prefetch_key(item);
  prefetch(item->range_next);
}

// take_item returns a zeroed item with zeroed data, a spare one when there is one; null without memory.
shash_item *take_item(shash_table *table) {
  shash_item *item = table->spare;
  if (item == nullptr) return static_cast<shash_item *>(calloc(1, sizeof(shash_item) + table->data_size));
  table->spare = item->bucket_next;
  *item = {};
  if (table->data_size != 0) memset(shash_item_data(item), 0, table->data_size);
  return item;
}

void free_chain(shash_item *item) {
  while (item != nullptr) {
    shash_item *next = item->bucket_next;
    free(item);
    item = next;
  }
}

bool is_range(const shash_table *table, rindex_t range) {
  return range < table->ranges_count;
}

}  // namespace

int shash_init(shash_table *table, size_t capacity, size_t data_size, shash_keycmp_fn *keycmp,
               shash_keyfree_fn *keyfree, rindex_t ranges) {
  if (table == nullptr) return -1;
  *table = {};
  if (capacity == 0 || data_size > SIZE_MAX - sizeof(shash_item) || keycmp == nullptr || keyfree == nullptr) return -1;
  if (ranges == 0 || ranges > SHASH_MAX_RANGES) return -1;
  if (siphash_secret(table->secret) != 0) return -1;
  if (!make_segment(&table->segments[0], kFirstBuckets)) return -1;
  std::fill_n(table->segments[0].buckets, kFirstBuckets, shash_bucket{});
  table->buckets = kFirstBuckets;
  table->keycmp = keycmp;
  table->keyfree = keyfree;
  table->capacity = capacity;
  table->data_size = data_size;
  table->ranges_count = ranges;
  return 0;
}

uint32_t shash_hash(const shash_table *table, const uint8_t *key, uint16_t key_size) {
  return static_cast<uint32_t>(siphash_folded(table->secret, key, key_size));
}

shash_item *shash_search(shash_table *table, const uint8_t *key, uint16_t key_size) {
  if (table == nullptr || key == nullptr) return nullptr;
  return shash_search(table, key, key_size, shash_hash(table, key, key_size));
}

// The item's key is the comparison's first, the key that is looked for its second. Keys with unequal hashes are never
// compared.
shash_item *shash_search(shash_table *table, const uint8_t *key, uint16_t key_size, uint32_t hash) {
  if (table == nullptr || key == nullptr || table->buckets == 0) return nullptr;
  const auto is_it = [&](const shash_item *item) {
    return item->hash == hash && table->keycmp(table->owner, item->pKey, item->key_size, key, key_size) == 0;
  };
  const Bucket bucket = bucket_for(table, hash);
  prefetch(bucket.items);  // a search in vain is mostly followed by an insertion
  for (uint64_t left = tagged(*bucket.tags, tag_of(hash)); left != 0; left &= left - 1) {
    shash_item *item = bucket.items->slots[slot_of(left)];
    if (is_it(item)) return item;
  }
  if ((bucket.tags->chain & chain_bit_of(hash)) == 0) return nullptr;
  for (shash_item *item = bucket.items->chain; item != nullptr; item = item->bucket_next)
    if (is_it(item)) return item;
  return nullptr;
}

shash_item *shash_insert(shash_table *table, uint8_t *key, uint16_t key_size, rindex_t range) {
  if (table == nullptr || key == nullptr) return nullptr;
  return shash_insert(table, key, key_size, shash_hash(table, key, key_size), range);
}

shash_item *shash_insert(shash_table *table, uint8_t *key, uint16_t key_size, uint32_t hash, rindex_t range) {
  if (table == nullptr || key == nullptr || !is_range(table, range)) return nullptr;
  if (table->count >= table->capacity) {
    if (table->ranges[0].first == nullptr) return nullptr;
    shash_remove(table, table->ranges[0].first);
    prefetch_next_to_go(table);
  }
  shash_item *item = take_item(table);
  if (item == nullptr) return nullptr;
  item->pKey = key;
  item->key_size = key_size;
  item->hash = hash;
  range_append(table, item, range);
  table->count += 1;
  grow(table);
  put(bucket_for(table, hash), item);
  item->indexed = true;
  return item;
}

int shash_update(shash_table *table, shash_item *item, rindex_t range) {
  if (table == nullptr || item == nullptr || !is_range(table, range)) return -1;
  if (item->range == range) return 0;
  range_take_out(table, item);
  range_append(table, item, range);
  return 0;
}

void shash_unindex(shash_table *table, shash_item *item) {
  if (table == nullptr || item == nullptr || !item->indexed) return;
  take_out(bucket_for(table, item->hash), item);
  item->bucket_next = nullptr;
  item->indexed = false;
}

// The key is released while the item still stands in its range and its chain; after that only its hash is read.
void shash_remove(shash_table *table, shash_item *item) {
  if (table == nullptr || item == nullptr) return;
  table->keyfree(table->owner, item->pKey, item);
  shash_unindex(table, item);
  range_take_out(table, item);
  table->count -= 1;
  item->pKey = nullptr;
  item->bucket_next = table->spare;
  table->spare = item;
}

rindex_t shash_get_item_range(const shash_table *, const shash_item *item) {
  return item->range;
}

void *shash_item_data(shash_item *item) {
  return item + 1;
}

STAT_RANGEITEM *range_find(shash_table *table, rindex_t range, STAT_RANGEITEM *cursor) {
  if (table == nullptr || cursor == nullptr || !is_range(table, range)) return nullptr;
  *cursor = {table, range};
  return cursor;
}

shash_item *range_item_first(const STAT_RANGEITEM *cursor) {
  if (cursor == nullptr) return nullptr;
  shash_item *first = cursor->table->ranges[cursor->range].first;
  // Who takes one after the other finds the next ones at hand.
  if (first != nullptr && first->range_next != nullptr) {
    prefetch_key(first->range_next);
    prefetch(first->range_next->range_next);
  }
  return first;
}

int shash_destroy(shash_table *table) {
  if (table == nullptr) return -1;
  for (const shash_range &range : std::span(table->ranges).first(table->ranges_count)) {
    while (range.first != nullptr)
      shash_remove(table, range.first);
  }
  free_chain(table->spare);
  for (const shash_segment &segment : table->segments) {
    free(segment.tags);
    free(segment.buckets);
  }
  *table = {};
  return 0;
}
