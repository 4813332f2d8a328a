// shash.h - the static hash table: a table of fixed capacity whose items are also in numbered ranges.
//
// An item is a key (the caller's memory, never copied) with its place in the index and in one range, a list in the
// order of arrival. Insert, search, update and eviction take constant time: the index grows one bucket at a time, and
// an item costs one allocation that is kept and reused. Keys come from untrusted peers and are hashed with a secret of
// the table's own (SipHash). The hash folds ASCII letters, so keys that differ in letter case alone share a bucket and
// the comparison decides. No operation locks: the caller does.
#ifndef SHASH_H
#define SHASH_H

#include <stddef.h>
#include <stdint.h>

#include <bucket_index.h>

using rindex_t = uint16_t;

struct shash_item;
struct shash_range;
struct shash_table;
using STAT_HASHITEM = shash_item;
using PSTAT_HASHITEM = shash_item *;
using STAT_HASHTABLE = shash_table;

// An item. `pKey` is the very pointer that was inserted; the rest is the table's.
struct shash_item {
  uint8_t *pKey;
  uint32_t hash;
  uint16_t key_size;
  rindex_t range;
  bool indexed;
  shash_item *bucket_next;
  shash_item *range_prev;
  shash_item *range_next;
};

// A cursor over one range.
struct STAT_RANGEITEM {
  shash_table *table;
  rindex_t range;
};
using PSTAT_RANGEITEM = STAT_RANGEITEM *;

using shash_keycmp_fn = int(void *owner, const uint8_t *key1, uint16_t size1, const uint8_t *key2, uint16_t size2);
using shash_keyfree_fn = void(void *owner, uint8_t *key, shash_item *item);

struct shash_range {
  shash_item *first;
  shash_item *last;
  size_t count;
};

enum { SHASH_MAX_RANGES = 16 };

struct shash_table {
  void *owner;  // handed to the two callbacks; the caller sets it after shash_init
  shash_keycmp_fn *keycmp;
  shash_keyfree_fn *keyfree;
  size_t capacity;
  size_t data_size;  // bytes of the caller's data after each item
  size_t count;      // items in all ranges
  base::BucketIndex<shash_item, &shash_item::bucket_next, &shash_item::hash> index;
  rindex_t ranges_count;
  shash_range ranges[SHASH_MAX_RANGES];
  shash_item *spare;  // items without a key, to be used again
  uint8_t secret[16];
};

// shash_init makes an empty table for `capacity` items of `data_size` bytes of data each, with ranges 0 to `ranges`
// - 1. Nothing is allocated for an item before it is inserted. 0, or -1 for arguments out of range or without memory.
[[nodiscard]] int shash_init(shash_table *table, size_t capacity, size_t data_size, shash_keycmp_fn *keycmp,
                             shash_keyfree_fn *keyfree, rindex_t ranges);

// shash_hash returns the hash of a key, so that a search followed by an insertion computes it once.
[[nodiscard]] uint32_t shash_hash(const shash_table *table, const uint8_t *key, uint16_t key_size);

// shash_search returns the item whose key compares equal (keycmp gives 0), in any range, or null.
[[nodiscard]] shash_item *shash_search(shash_table *table, const uint8_t *key, uint16_t key_size);
[[nodiscard]] shash_item *shash_search(shash_table *table, const uint8_t *key, uint16_t key_size, uint32_t hash);

// shash_insert files a new item for `key` at the end of `range`. In a full table it first evicts the first item of
// range 0, the one that came there longest ago, and calls keyfree for it. Null when the table is full and range 0 is
// empty, or without memory.
[[nodiscard]] shash_item *shash_insert(shash_table *table, uint8_t *key, uint16_t key_size, rindex_t range);
[[nodiscard]] shash_item *shash_insert(shash_table *table, uint8_t *key, uint16_t key_size, uint32_t hash,
                                       rindex_t range);

// shash_update moves an item to the end of `range` (nothing moves when it is there already). 0, or -1 for no such
// range.
[[nodiscard]] int shash_update(shash_table *table, shash_item *item, rindex_t range);

// shash_unindex takes an item out of the index: no search finds it any more, but it stays in its range and still
// counts. shash_remove releases any item: keyfree is called for it.
void shash_unindex(shash_table *table, shash_item *item);
void shash_remove(shash_table *table, shash_item *item);

[[nodiscard]] rindex_t shash_get_item_range(const shash_table *table, const shash_item *item);
[[nodiscard]] void *shash_item_data(shash_item *item);

// range_find sets `cursor` to `range` and returns it, or null for no such range; range_item_first is the item that came
// into the range longest ago, or null.
[[nodiscard]] STAT_RANGEITEM *range_find(shash_table *table, rindex_t range, STAT_RANGEITEM *cursor);
[[nodiscard]] shash_item *range_item_first(const STAT_RANGEITEM *cursor);

// shash_destroy calls keyfree for every item and releases the table. 0, or -1 for null.
int shash_destroy(shash_table *table);

#endif  // SHASH_H
