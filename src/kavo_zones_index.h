// kavo_zones_index.h - finds the zones of a map by their names.
//
// An open hash table, at most half full, with an entry for each different name; of several zones with one name it holds
// the first. The hash has a secret of the map's own, so that no zones file can be made of names that collide. The names
// themselves are the map's: an array of texts by zone number, which every call that compares names is given. No lock.
#ifndef KAVO_ZONES_INDEX_H
#define KAVO_ZONES_INDEX_H

#include <stdint.h>

struct kavo_zones_index;

// kavo_zone_entry: what a map knows of a name.
struct kavo_zone_entry {
  uint32_t hash = 0;
  int32_t number = 0;  // of the first zone with the name; 0: the entry is empty
  uint32_t lists = 0;  // bit s: slot s has the name in its list
};

// kavo_zones_index_find returns the entry of a name, or null; a null index has no names. The entry is valid until the
// index grows.
[[nodiscard]] kavo_zone_entry *kavo_zones_index_find(kavo_zones_index *index, char *const *names, const char *name);

// kavo_zones_index_reserve makes room for one name more, in a new index where `*index` is null; false without memory.
[[nodiscard]] bool kavo_zones_index_reserve(kavo_zones_index **index);

// kavo_zones_index_add files the zone with a number under its name, unless a zone is there already; room was reserved.
// Returns the name's entry.
kavo_zone_entry *kavo_zones_index_add(kavo_zones_index *index, char *const *names, int32_t number);

// kavo_zones_index_free frees an index; null is fine.
void kavo_zones_index_free(kavo_zones_index *index);

#endif  // KAVO_ZONES_INDEX_H
