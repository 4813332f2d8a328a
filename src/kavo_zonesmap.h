// kavo_zonesmap.h - the zones map: which list zones are asked for each type of question.
//
// The data structure alone; kavo_zones.cc, kavo_zones_text.cc and kavo_zones_bin.cc configure the map of a context. A
// map has no lock: it changes only while its context is at rest. Zone number 0 is the pseudo-zone "GLOBAL LOOKUP",
// which means that no zone is appended.
#ifndef KAVO_ZONESMAP_H
#define KAVO_ZONESMAP_H

#include <stdint.h>

#include <span>

#include <kavo.h>

#include "kavo_types.h"
#include "kavo_zones_index.h"

// The source name that log lines about zones carry.
inline constexpr char KAVO_ZONES_SOURCE[] = "kavo_zonesmap";

// Slot 0 serves every type that is no list type, slots 1 to 9 serve the nine list types in the order of their values.
inline constexpr int KAVO_ZONES_SLOTS = 10;

// kavo_zones: one slot, a list of at most max_zones zone numbers in the order in which the zones were added.
struct kavo_zones {
  int32_t count;
  __extension__ int32_t zone_numbs[];
};

// Each name in `prefixes` is one allocation: its text, the text's terminator, the length of its wire form in one byte
// (0 for a text that is no domain name) and the wire form, so that a query costs no conversion of its zone.
struct kavo_zonesmap {
  char **prefixes = nullptr;                        // the names by zone number
  struct kavo_zones *zones[KAVO_ZONES_SLOTS] = {};  // parts of one allocation, which slot 0's pointer owns
  int32_t zones_count = 0;                          // entries of `prefixes` in use
  int32_t initialized = 0;                          // 1 while the map owns its storage
  int32_t zones_room = 0;                           // entries that `prefixes` has room for
  struct kavo_zones_index *index = nullptr;         // the zones by name, without the pseudo-zone; null without any
};

// kavo_zonesmap_slot returns the slot that serves a type.
constexpr int kavo_zonesmap_slot(KAVO_TYPE type) {
  return kavo_type_is_list(type) ? type - KAVOT_BL_MIN + 1 : 0;
}

// kavo_zonesmap_zones returns the numbers of the zones in which questions of a type are asked; none in a released map.
inline std::span<const int32_t> kavo_zonesmap_zones(const kavo_zonesmap *map, KAVO_TYPE type) {
  const kavo_zones *slot = map->zones[kavo_zonesmap_slot(type)];
  if (slot == nullptr) return {};
  return {slot->zone_numbs, static_cast<size_t>(slot->count)};
}

// kavo_zonesmap_init_ordinary brings a map into its initial state: the pseudo-zone alone, every list type empty. What
// the map held before is released; a map that was never initialized must hold its initial values.
[[nodiscard]] KAVO_ERR kavo_zonesmap_init_ordinary(kavo_zonesmap *zonesmap, int max_zones);

// kavo_zonesmap_free releases what a map holds; a second release does nothing.
void kavo_zonesmap_free(kavo_zonesmap *zonesmap);

// kavo_zonesmap_wire returns the wire form of the zone with a valid number, an empty span for a text that is no name.
[[nodiscard]] std::span<const uint8_t> kavo_zonesmap_wire(const kavo_zonesmap *map, int32_t number);

// kavo_zonesmap_make_name returns a name as `prefixes` holds it, the caller's until it is stored there; null without
// memory. A text that is no domain name is logged here, and not with each question.
[[nodiscard]] char *kavo_zonesmap_make_name(const char *text);

// kavo_zonesmap_file stores a name for which `prefixes` and the index have room as the next zone. Returns its entry.
kavo_zone_entry *kavo_zonesmap_file(kavo_zonesmap *map, char *name);

// kavo_zonesmap_find returns the entry of a name, or null; the entry is valid until a zone is stored.
[[nodiscard]] inline kavo_zone_entry *kavo_zonesmap_find(const kavo_zonesmap *map, const char *name) {
  return kavo_zones_index_find(map->index, map->prefixes, name);
}

// kavo_zonesmap_store sets `entry` to the entry of a zone, which is stored as the next one where it is new.
enum class kavo_stored { ok, no_table, no_copy };
[[nodiscard]] kavo_stored kavo_zonesmap_store(kavo_zonesmap *map, const char *text, kavo_zone_entry **entry);

// kavo_zonesmap_append appends a zone to a slot's list, which has room.
void kavo_zonesmap_append(kavo_zonesmap *map, int slot, kavo_zone_entry *entry);

// kavo_zonesmap_mark notes of every name in a slot's list that the list holds it, or that it no longer does.
void kavo_zonesmap_mark(kavo_zonesmap *map, int slot, bool listed);

#endif  // KAVO_ZONESMAP_H
