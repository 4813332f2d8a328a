// kavo_zones_index.cc - the hash table of zones by name.
#include "kavo_zones_index.h"

#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <siphash.h>

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

// place returns the entry that `same` accepts, or the empty entry where it belongs. There is one: the table never
// fills.
template <typename Same>
[[nodiscard]] kavo_zone_entry *place(kavo_zones_index *index, uint32_t hash, Same same) {
  const uint32_t mask = index->room - 1;
  for (uint32_t at = hash & mask;; at = (at + 1) & mask) {
    kavo_zone_entry *entry = &index->entries[at];
    if (entry->number == 0 || (entry->hash == hash && same(*entry))) return entry;
  }
}

[[nodiscard]] kavo_zone_entry *place_of(kavo_zones_index *index, char *const *names, uint32_t hash, const char *name) {
  return place(index, hash, [=](const kavo_zone_entry &entry) { return strcmp(names[entry.number], name) == 0; });
}

// make returns an empty table, without a secret yet.
[[nodiscard]] kavo_zones_index *make(uint32_t room) {
  auto *index =
      static_cast<kavo_zones_index *>(calloc(1, sizeof(kavo_zones_index) + size_t{room} * sizeof(kavo_zone_entry)));
  if (index != nullptr) index->room = room;
  return index;
}

[[nodiscard]] kavo_zones_index *begin() {
  kavo_zones_index *index = make(kFirstRoom);
  if (index != nullptr && siphash_secret(index->secret) == 0) return index;
  free(index);
  return nullptr;
}

}  // namespace

kavo_zone_entry *kavo_zones_index_find(kavo_zones_index *index, char *const *names, const char *name) {
  if (index == nullptr) return nullptr;
  kavo_zone_entry *entry = place_of(index, names, hash_of(index, name), name);
  return entry->number == 0 ? nullptr : entry;
}

bool kavo_zones_index_reserve(kavo_zones_index **index) {
  kavo_zones_index *old = *index;
  if (old == nullptr) {
    *index = begin();
    return *index != nullptr;
  }
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
  *index = grown;
  free(old);
  return true;
}

kavo_zone_entry *kavo_zones_index_add(kavo_zones_index *index, char *const *names, int32_t number) {
  const char *name = names[number];
  const uint32_t hash = hash_of(index, name);
  kavo_zone_entry *entry = place_of(index, names, hash, name);
  if (entry->number != 0) return entry;
  *entry = {hash, number, 0};
  ++index->used;
  return entry;
}

void kavo_zones_index_free(kavo_zones_index *index) {
  free(index);
}
