// shash.cc - the static hash table: an index of the items, and one list per range.
//
// The items of a large table do not fit the processor's caches, so those that are used next are prefetched. Nothing
// here locks.
#include "shash.h"

#include <stdlib.h>
#include <string.h>

#include <span>

#include <prefetch.h>
#include <siphash.h>

namespace {

// An item's data follows it at once, aligned for anything.
static_assert(sizeof(shash_item) % alignof(max_align_t) == 0);

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

// prefetch_key prefetches an item's key and the line before it, where owners keep their data about the key.
void prefetch_key(const shash_item *item) {
  prefetch(item->pKey);
  prefetch(item->pKey - CACHE_LINE);
}

// prefetch_next_to_go prefetches what the eviction of the item after the next one reads, and the item that follows.
// Both have been untouched since they entered the range. (Earlier calls prefetched the items before them.)
void prefetch_next_to_go(const shash_table *table) {
  const shash_item *item = table->ranges[0].first;
  if (item == nullptr || item->range_next == nullptr) return;
  item = item->range_next;
  table->index.prefetch_place(item->hash);
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

void keep_spare(shash_table *table, shash_item *item) {
  item->bucket_next = table->spare;
  table->spare = item;
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

// The item's key is the comparison's first argument, the key that is looked for its second. Keys with unequal hashes
// are never compared.
shash_item *shash_search(shash_table *table, const uint8_t *key, uint16_t key_size, uint32_t hash) {
  if (table == nullptr || key == nullptr) return nullptr;
  return table->index.find(hash, [&](const shash_item *item) {
    return item->hash == hash && table->keycmp(table->owner, item->pKey, item->key_size, key, key_size) == 0;
  });
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
  if (!table->index.insert(item)) {
    keep_spare(table, item);
    return nullptr;
  }
  item->indexed = true;
  range_append(table, item, range);
  table->count += 1;
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
  table->index.remove(item);
  item->indexed = false;
}

// The key is released while the item is still in its range and its bucket; after that only its hash is read.
void shash_remove(shash_table *table, shash_item *item) {
  if (table == nullptr || item == nullptr) return;
  table->keyfree(table->owner, item->pKey, item);
  shash_unindex(table, item);
  range_take_out(table, item);
  table->count -= 1;
  item->pKey = nullptr;
  keep_spare(table, item);
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
  // For callers that take the items one after the other.
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
  table->index.release();
  *table = {};
  return 0;
}
