// kavo_zonesmap_index.cc - finds the zones of a map by their names.
//
// An open hash table, at most half full, with an entry for each name that differs from all others; of zones with one
// name it holds the first. The hash has a secret of the map's own, so that no zones file can be made of names that
// collide. The table lives as long as the map's names, and changes where they do.
#include <stdlib.h>
#include <string.h>

#include <siphash.h>

#include "kavo_zonesmap.h"

// kavo_zones_index: one allocation, `room` entries after its head.
struct kavo_zones_index {
  uint8_t secret[16];
  uint32_t room;  // a power of two
  uint32_t used;
  __extension__ kavo_zone_entry entries[];
};

namespace {

constexpr uint32_t kFirstRoom = 16;
constexpr uint32_t kSpare = 2;  // entries for each name, at least

[[nodiscard]] uint32_t hash_of(const kavo_zones_index *index, const char *name) {
  return static_cast<uint32_t>(siphash(index->secret, name, strlen(name)));
}

// place returns the entry with a name, or the empty one where it belongs. There is one: the table never fills.
template <typename Same>
[[nodiscard]] kavo_zone_entry *place(kavo_zones_index *index, uint32_t hash, Same same) {
  const uint32_t mask = index->room - 1;
  for (uint32_t at = hash & mask;; at = (at + 1) & mask) {
    kavo_zone_entry *entry = &index->entries[at];
    if (entry->number == 0 || (entry->hash == hash && same(*entry))) return entry;
  }
}

[[nodiscard]] kavo_zone_entry *place_of(const kavo_zonesmap *map, uint32_t hash, const char *name) {
  return place(map->index, hash,
               [=](const kavo_zone_entry &entry) { return strcmp(map->prefixes[entry.number], name) == 0; });
}

// make returns an empty table, without a secret yet.
[[nodiscard]] kavo_zones_index *make(uint32_t room) {
  auto *index =
      static_cast<kavo_zones_index *>(calloc(1, sizeof(kavo_zones_index) + size_t{room} * sizeof(kavo_zone_entry)));
  if (index != nullptr) index->room = room;
  return index;
}

[[nodiscard]] bool begin(kavo_zonesmap *map) {
  kavo_zones_index *index = make(kFirstRoom);
  if (index != nullptr && siphash_secret(index->secret) == 0) {
    map->index = index;
    return true;
  }
  free(index);
  return false;
}

}  // namespace

kavo_zone_entry *kavo_zonesmap_find(const kavo_zonesmap *map, const char *name) {
  if (map->index == nullptr) return nullptr;
  kavo_zone_entry *entry = place_of(map, hash_of(map->index, name), name);
  return entry->number == 0 ? nullptr : entry;
}

bool kavo_zonesmap_index_reserve(kavo_zonesmap *map) {
  if (map->index == nullptr) return begin(map);
  kavo_zones_index *old = map->index;
  if (kSpare * (old->used + 1) <= old->room) return true;
  if (old->room > UINT32_MAX / kSpare) return false;
  kavo_zones_index *grown = make(kSpare * old->room);
  if (grown == nullptr) return false;
  memcpy(grown->secret, old->secret, sizeof grown->secret);
  grown->used = old->used;
  for (uint32_t i = 0; i < old->room; ++i) {
    const kavo_zone_entry &entry = old->entries[i];
    if (entry.number != 0) *place(grown, entry.hash, [](const kavo_zone_entry &) { return false; }) = entry;
  }
  map->index = grown;
  free(old);
  return true;
}

kavo_zone_entry *kavo_zonesmap_index_add(kavo_zonesmap *map, int32_t number) {
  const char *name = map->prefixes[number];
  const uint32_t hash = hash_of(map->index, name);
  kavo_zone_entry *entry = place_of(map, hash, name);
  if (entry->number != 0) return entry;
  *entry = {hash, number, 0};
  ++map->index->used;
  return entry;
}

void kavo_zonesmap_index_free(kavo_zonesmap *map) {
  free(map->index);
  map->index = nullptr;
}

void kavo_zonesmap_mark(kavo_zonesmap *map, int slot, bool listed) {
  const kavo_zones *list = map->zones[slot];
  const uint32_t bit = uint32_t{1} << slot;
  for (int32_t i = 0; i < list->count; ++i) {
    if (list->zone_numbs[i] == 0) continue;  // the pseudo-zone has no name
    kavo_zone_entry *entry = kavo_zonesmap_find(map, map->prefixes[list->zone_numbs[i]]);
    if (entry != nullptr) entry->lists = listed ? entry->lists | bit : entry->lists & ~bit;
  }
}
