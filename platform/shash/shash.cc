// shash.cc - the static hash table: linear hashing over segments, and one list per range.
//
// The index is an array of bucket chains that grows by one bucket with each insert that finds fewer buckets than items:
// the items of one older bucket are shared out between it and the new one, so no insert ever moves the whole table. The
// array lies in segments, each as large as all before it, which never move; a table costs memory as it fills. Nothing
// here locks.
#include "shash.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <bit>
#include <span>

#include "siphash.h"

namespace {

// Buckets that a table starts with, and the size of its first segment.
constexpr size_t kFirstBuckets = 16;
static_assert(std::has_single_bit(kFirstBuckets));

// An item's data follows it at once, aligned for anything.
static_assert(sizeof(shash_item) % alignof(max_align_t) == 0);

// Where a bucket lies.
struct bucket_place {
  size_t segment;
  size_t offset;
};

bucket_place place_of(size_t bucket) {
  if (bucket < kFirstBuckets) return {0, bucket};
  return {static_cast<size_t>(std::bit_width(bucket / kFirstBuckets)), bucket - std::bit_floor(bucket)};
}

size_t segment_size(size_t segment) {
  return segment == 0 ? kFirstBuckets : kFirstBuckets << (segment - 1);
}

shash_item **chain_of(shash_table *table, size_t bucket) {
  const bucket_place place = place_of(bucket);
  return &table->segments[place.segment][place.offset];
}

// bucket_for returns the bucket of `hash` in an array of `buckets`: its low bits, with the top one dropped while the
// bucket that they name is still to come.
size_t bucket_for(uint64_t hash, size_t buckets) {
  const size_t mask = std::bit_ceil(buckets) - 1;
  const size_t bucket = hash & mask;
  return bucket < buckets ? bucket : bucket & (mask >> 1);
}

// share_out moves those items of the bucket `from` that belong to the new bucket `to`. Both chains keep their order.
void share_out(shash_table *table, size_t from, size_t to) {
  const size_t mask = (std::bit_floor(to) << 1) - 1;
  shash_item **stay = chain_of(table, from);
  shash_item **move = chain_of(table, to);
  for (shash_item *item = *stay; item != nullptr; item = item->bucket_next) {
    shash_item **&tail = (item->hash & mask) == to ? move : stay;
    *tail = item;
    tail = &item->bucket_next;
  }
  *stay = nullptr;
  *move = nullptr;
}

// grow adds one bucket while there are fewer than items. Without memory the chains only get longer, and a later insert
// tries again.
void grow(shash_table *table) {
  if (table->buckets >= table->count) return;
  const size_t fresh = table->buckets;
  const bucket_place place = place_of(fresh);
  if (place.segment >= SHASH_MAX_SEGMENTS) return;
  shash_item **&segment = table->segments[place.segment];
  if (segment == nullptr) {
    segment = static_cast<shash_item **>(calloc(segment_size(place.segment), sizeof(shash_item *)));
  }
  if (segment == nullptr) return;
  table->buckets += 1;
  share_out(table, fresh - std::bit_floor(fresh), fresh);
}

void index_item(shash_table *table, shash_item *item) {
  shash_item **chain = chain_of(table, bucket_for(item->hash, table->buckets));
  item->bucket_next = *chain;
  *chain = item;
  item->indexed = true;
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

// take_item returns a zeroed item with zeroed data, a spare one when there is one; null without memory.
shash_item *take_item(shash_table *table) {
  shash_item *item = table->spare;
  const size_t size = sizeof(shash_item) + table->data_size;
  if (item == nullptr) return static_cast<shash_item *>(calloc(1, size));
  table->spare = item->bucket_next;
  memset(static_cast<void *>(item), 0, size);
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
  table->segments[0] = static_cast<shash_item **>(calloc(kFirstBuckets, sizeof(shash_item *)));
  if (table->segments[0] == nullptr) return -1;
  table->buckets = kFirstBuckets;
  table->keycmp = keycmp;
  table->keyfree = keyfree;
  table->capacity = capacity;
  table->data_size = data_size;
  table->ranges_count = ranges;
  return 0;
}

uint64_t shash_hash(const shash_table *table, const uint8_t *key, uint16_t key_size) {
  return siphash_folded(table->secret, key, key_size);
}

shash_item *shash_search(shash_table *table, const uint8_t *key, uint16_t key_size) {
  if (table == nullptr || key == nullptr) return nullptr;
  return shash_search(table, key, key_size, shash_hash(table, key, key_size));
}

// The item's key is the comparison's first, the key that is looked for its second. Keys with unequal hashes are never
// compared.
shash_item *shash_search(shash_table *table, const uint8_t *key, uint16_t key_size, uint64_t hash) {
  if (table == nullptr || key == nullptr || table->buckets == 0) return nullptr;
  shash_item *item = *chain_of(table, bucket_for(hash, table->buckets));
  for (; item != nullptr; item = item->bucket_next) {
    if (item->hash != hash) continue;
    if (table->keycmp(table->owner, item->pKey, item->key_size, key, key_size) == 0) return item;
  }
  return nullptr;
}

shash_item *shash_insert(shash_table *table, uint8_t *key, uint16_t key_size, rindex_t range) {
  if (table == nullptr || key == nullptr) return nullptr;
  return shash_insert(table, key, key_size, shash_hash(table, key, key_size), range);
}

shash_item *shash_insert(shash_table *table, uint8_t *key, uint16_t key_size, uint64_t hash, rindex_t range) {
  if (table == nullptr || key == nullptr || !is_range(table, range)) return nullptr;
  if (table->count >= table->capacity) {
    if (table->ranges[0].first == nullptr) return nullptr;
    shash_remove(table, table->ranges[0].first);
  }
  shash_item *item = take_item(table);
  if (item == nullptr) return nullptr;
  item->pKey = key;
  item->key_size = key_size;
  item->hash = hash;
  range_append(table, item, range);
  table->count += 1;
  grow(table);
  index_item(table, item);
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
  shash_item **link = chain_of(table, bucket_for(item->hash, table->buckets));
  while (*link != item)
    link = &(*link)->bucket_next;
  *link = item->bucket_next;
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
  return cursor != nullptr ? cursor->table->ranges[cursor->range].first : nullptr;
}

int shash_destroy(shash_table *table) {
  if (table == nullptr) return -1;
  for (const shash_range &range : std::span(table->ranges).first(table->ranges_count)) {
    while (range.first != nullptr)
      shash_remove(table, range.first);
  }
  free_chain(table->spare);
  std::ranges::for_each(table->segments, free);
  *table = {};
  return 0;
}
