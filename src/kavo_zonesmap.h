// kavo_zonesmap.h - the zones map: which list zones are asked for each type of question.
//
// A context holds one map in place. It has no lock: it changes only while the context is not open, and the server
// thread and subscribing callers read it while it is. Zone number 0 is the pseudo-zone "GLOBAL LOOKUP", which stands
// for no zone.
#ifndef KAVO_ZONESMAP_H
#define KAVO_ZONESMAP_H

#include <stdint.h>

#include <span>

#include <kavo.h>

// Slot 0 serves every type that is no list type, slots 1 to 9 serve the nine list types in the order of their values.
inline constexpr int KAVO_ZONES_SLOTS = 10;

// kavo_zones: one slot, a list of at most max_zones zone numbers in the order in which the zones were added.
struct kavo_zones {
  int32_t count;
  __extension__ int32_t zone_numbs[];
};

// kavo_zone_entry: what a map knows of a name: the first zone that has it, and the slots whose lists hold it.
struct kavo_zone_entry {
  uint32_t hash;
  int32_t number;  // 0: the entry is empty
  uint32_t lists;  // bit s: slot s
};

struct kavo_zones_index;

// Each name in `prefixes` is one allocation: its text, the text's terminator, the length of its wire form in one byte
// (0 for a text that is no domain name) and the wire form, so that a question costs no conversion of its zones.
struct kavo_zonesmap {
  char **prefixes;                             // the names by zone number
  struct kavo_zones *zones[KAVO_ZONES_SLOTS];  // cut out of one allocation, which slot 0's pointer owns
  int32_t zones_count;                         // entries of `prefixes` in use
  int32_t initialized;                         // 1 while the map owns its storage
  int32_t zones_room;                          // entries that `prefixes` has room for
  struct kavo_zones_index *index;              // the zones by name, but for the pseudo-zone; null without any
};

// kavo_zonesmap_is_list returns whether questions of a type are asked in list zones.
constexpr bool kavo_zonesmap_is_list(KAVO_TYPE type) {
  return type >= KAVOT_BL_IP && type <= KAVOT_BL_NS;
}

// kavo_zonesmap_slot returns the slot that serves a type.
constexpr int kavo_zonesmap_slot(KAVO_TYPE type) {
  return kavo_zonesmap_is_list(type) ? type - KAVOT_BL_IP + 1 : 0;
}

// kavo_zonesmap_zones returns the numbers of the zones in which questions of a type are asked; none in a released map.
inline std::span<const int32_t> kavo_zonesmap_zones(const kavo_zonesmap *map, KAVO_TYPE type) {
  const kavo_zones *slot = map->zones[kavo_zonesmap_slot(type)];
  if (slot == nullptr) return {};
  return {slot->zone_numbs, static_cast<size_t>(slot->count)};
}

// kavo_zonesmap_wire returns the wire form of the zone with a valid number; an empty span for one whose text is no
// name.
[[nodiscard]] std::span<const uint8_t> kavo_zonesmap_wire(const kavo_zonesmap *map, int32_t number);

// kavo_zonesmap_make_name returns a name as `prefixes` holds it, the caller's until it stands there; null without
// memory. A text that is no domain name is said to be none here, and not with each question.
[[nodiscard]] char *kavo_zonesmap_make_name(const char *text);

// kavo_zonesmap_find returns the entry of a name, or null; it holds until the index grows. Kept in
// kavo_zonesmap_index.cc, with what follows.
[[nodiscard]] kavo_zone_entry *kavo_zonesmap_find(const kavo_zonesmap *map, const char *name);

// kavo_zonesmap_index_reserve makes sure that the index has room for one name more; false without memory.
// kavo_zonesmap_index_add then files the zone with a valid number, unless another has its name: returns the entry.
[[nodiscard]] bool kavo_zonesmap_index_reserve(kavo_zonesmap *map);
kavo_zone_entry *kavo_zonesmap_index_add(kavo_zonesmap *map, int32_t number);
void kavo_zonesmap_index_free(kavo_zonesmap *map);

// kavo_zonesmap_mark notes of every name in a slot's list that the list holds it, or that it no longer does.
void kavo_zonesmap_mark(kavo_zonesmap *map, int slot, bool listed);

// kavo_zonesmap_check_open is kavo_check_at_rest for calls that change a context's zones. What is still held of
// questions to its lists is joined no more then.
[[nodiscard]] KAVO_ERR kavo_zonesmap_check_open(KAVO kavo, const char *function, const char *message,
                                                int line = __builtin_LINE());

// kavo_zonesmap_init_ordinary brings a map into its initial state: the pseudo-zone alone, every list type empty. What
// the map held before is released; a map that was never initialized must be filled with zero bytes.
[[nodiscard]] KAVO_ERR kavo_zonesmap_init_ordinary(kavo_zonesmap *zonesmap, int max_zones);

// kavo_zonesmap_free releases what a map holds; releasing it again does nothing.
void kavo_zonesmap_free(kavo_zonesmap *zonesmap);

#endif  // KAVO_ZONESMAP_H
