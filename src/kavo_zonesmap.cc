// kavo_zonesmap.cc - the zones map as a data structure: names, lists, and their memory.
#include "kavo_zonesmap.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <array>

#include <dns_wire.h>
#include <pelk_log.h>

namespace {

constexpr char kGlobalLookup[] = "GLOBAL LOOKUP";

// make_name returns a name as the map holds it (see kavo_zonesmap), or null without memory.
[[nodiscard]] char *make_name(const char *text, std::span<const uint8_t> wire) {
  const size_t size = strlen(text) + 1;
  auto *name = static_cast<char *>(malloc(size + 1 + wire.size()));
  if (name == nullptr) return nullptr;
  memcpy(name, text, size);
  name[size] = static_cast<char>(wire.size());
  if (!wire.empty()) memcpy(name + size + 1, wire.data(), wire.size());
  return name;
}

// grow_names makes sure that `prefixes` has room for one entry more. It doubles, so that a map of many zones is not
// copied for each of them.
[[nodiscard]] bool grow_names(kavo_zonesmap *map) {
  if (map->zones_count < map->zones_room) return true;
  const int32_t room = map->zones_room * 2;
  auto **grown = static_cast<char **>(realloc(map->prefixes, static_cast<size_t>(room) * sizeof(*map->prefixes)));
  if (grown == nullptr) return false;
  map->prefixes = grown;
  map->zones_room = room;
  return true;
}

void append_number(kavo_zones *list, int32_t number) {
  list->zone_numbs[list->count++] = number;
}

[[nodiscard]] KAVO_ERR init_failed(kavo_zonesmap *map, size_t bytes) {
  PELK_ERROR(KAVO_ZONES_SOURCE, "kavo_zonesmap_init_ordinary", errno, KAVOE_NOMEM,
             "Unable to allocate %d bytes for zonesmap", static_cast<int>(bytes));
  kavo_zonesmap_free(map);
  return KAVOE_NOMEM;
}

}  // namespace

char *kavo_zonesmap_make_name(const char *text) {
  std::array<uint8_t, DNS_MAXDN> wire;
  const int size = dns_ptodn(text, 0, wire.data(), static_cast<int>(wire.size()), nullptr);
  if (size <= 0) PELK_WARN(KAVO_ZONES_SOURCE, __func__, "Zone %s is no domain name, questions in it fail", text);
  return make_name(text, std::span(wire).first(size > 0 ? static_cast<size_t>(size) : 0));
}

std::span<const uint8_t> kavo_zonesmap_wire(const kavo_zonesmap *map, int32_t number) {
  const char *name = map->prefixes[number];
  const auto *size = reinterpret_cast<const uint8_t *>(name) + strlen(name) + 1;
  return {size + 1, *size};
}

KAVO_ERR kavo_zonesmap_init_ordinary(kavo_zonesmap *zonesmap, int max_zones) {
  if (zonesmap == nullptr || max_zones < 1) return KAVOE_BADPAR;
  if (zonesmap->initialized != 0) kavo_zonesmap_free(zonesmap);
  *zonesmap = {};

  zonesmap->prefixes = static_cast<char **>(calloc(1, sizeof(*zonesmap->prefixes)));
  if (zonesmap->prefixes == nullptr) return init_failed(zonesmap, sizeof(*zonesmap->prefixes));
  zonesmap->zones_room = 1;

  const size_t slot_cells = static_cast<size_t>(max_zones) + 1;
  auto *cells = static_cast<int32_t *>(calloc(KAVO_ZONES_SLOTS * slot_cells, sizeof(int32_t)));
  if (cells == nullptr) return init_failed(zonesmap, KAVO_ZONES_SLOTS * slot_cells * sizeof(int32_t));
  for (size_t i = 0; i < KAVO_ZONES_SLOTS; ++i) {
    zonesmap->zones[i] = reinterpret_cast<kavo_zones *>(cells + i * slot_cells);
  }

  zonesmap->prefixes[0] = make_name(kGlobalLookup, {});
  if (zonesmap->prefixes[0] == nullptr) return init_failed(zonesmap, sizeof(kGlobalLookup));
  append_number(zonesmap->zones[0], 0);
  zonesmap->zones_count = 1;
  zonesmap->initialized = 1;
  return KAVOE_OK;
}

void kavo_zonesmap_free(kavo_zonesmap *zonesmap) {
  if (zonesmap == nullptr) return;
  for (int32_t i = 0; i < zonesmap->zones_count; ++i) {
    free(zonesmap->prefixes[i]);
  }
  free(zonesmap->prefixes);
  free(zonesmap->zones[0]);
  kavo_zones_index_free(zonesmap->index);
  *zonesmap = {};
}

kavo_zone_entry *kavo_zonesmap_file(kavo_zonesmap *map, char *name) {
  map->prefixes[map->zones_count] = name;
  return kavo_zones_index_add(map->index, map->prefixes, map->zones_count++);
}

kavo_stored kavo_zonesmap_store(kavo_zonesmap *map, const char *text, kavo_zone_entry **entry) {
  *entry = kavo_zonesmap_find(map, text);
  if (*entry != nullptr) return kavo_stored::ok;
  if (!grow_names(map) || !kavo_zones_index_reserve(&map->index)) return kavo_stored::no_table;
  char *name = kavo_zonesmap_make_name(text);
  if (name == nullptr) return kavo_stored::no_copy;
  *entry = kavo_zonesmap_file(map, name);
  return kavo_stored::ok;
}

void kavo_zonesmap_append(kavo_zonesmap *map, int slot, kavo_zone_entry *entry) {
  append_number(map->zones[slot], entry->number);
  entry->lists |= uint32_t{1} << slot;
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
