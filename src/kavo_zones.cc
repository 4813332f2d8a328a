// kavo_zones.cc - the zones of a context: adding, releasing and naming them.
//
// Runs on the host's threads, without a lock: zones change only while the context is at rest. Zones from files are in
// kavo_zones_text.cc and kavo_zones_bin.cc.
#include "kavo_zones.h"

#include <errno.h>
#include <string.h>

#include <pelk_log.h>

#include "kavo_query_table.h"
#include "kavo_rest.h"
#include "kavo_state.h"
#include "kavo_t.h"
#include "kavo_zonesmap.h"

namespace {

// The longest name that kavo_add_zone takes, in characters: with its newline it fills a line of the zones file's
// reader.
constexpr size_t kZoneMax = 254;

// list_contains returns whether a slot's list holds a zone with this name.
[[nodiscard]] bool list_contains(const kavo_zonesmap *map, int slot, const char *text) {
  const kavo_zone_entry *entry = kavo_zonesmap_find(map, text);
  return entry != nullptr && (entry->lists >> slot & 1) != 0;
}

[[nodiscard]] KAVO_ERR add_zone(KAVO kavo, KAVO_TYPE type, const char *zone) {
  static constexpr char kStep[] = "kavo_zonesmap_add_zone";
  kavo_zonesmap *map = &kavo->zonesmap;
  if (map->initialized == 0) return KAVOE_BADPAR;
  const int slot = kavo_zonesmap_slot(type);
  if (list_contains(map, slot, zone)) return KAVOE_OK;
  if (map->zones[slot]->count >= kavo->max_zones) {
    PELK_WARN(KAVO_ZONES_SOURCE, kStep, "Too many zones too for one query type");
    return KAVOE_NOMEM;
  }
  kavo_zone_entry *entry = nullptr;
  switch (kavo_zonesmap_store(map, zone, &entry)) {
    case kavo_stored::no_table:
      PELK_ERROR(KAVO_ZONES_SOURCE, kStep, errno, KAVOE_NOMEM, "Unable to allocate %d bytes for zones storing",
                 kavo_zones_table_bytes(kavo));
      return KAVOE_NOMEM;
    case kavo_stored::no_copy:
      PELK_ERROR(KAVO_ZONES_SOURCE, kStep, errno, KAVOE_NOMEM, "Unable to allocate %d bytes to store zone",
                 static_cast<int>(strlen(zone) + 1));
      return KAVOE_NOMEM;
    case kavo_stored::ok:
      break;
  }
  kavo_zonesmap_append(map, slot, entry);
  return KAVOE_OK;
}

}  // namespace

KAVO_ERR kavo_zones_may_change(KAVO kavo, const char *function, const char *message, int line) {
  const KAVO_ERR refused = kavo_check_at_rest(kavo, KAVO_ZONES_SOURCE, function, message, line);
  if (refused == KAVOE_OK) kavo_table_forget_lists(kavo);
  return refused;
}

int kavo_zones_table_bytes(KAVO kavo) {
  return static_cast<int>((static_cast<size_t>(kavo->zonesmap.zones_count) + 1) * sizeof(char *));
}

extern "C" {

KAVO_ERR kavo_zonesmap_init(KAVO kavo) {
  if (kavo == nullptr || kavo->max_zones < 1) return KAVOE_BADPAR;
  const KAVO_ERR refused =
      kavo_zones_may_change(kavo, __func__, "Cannot initialize zonesmap because KAVO is already opened");
  if (refused != KAVOE_OK) return refused;
  return kavo_zonesmap_init_ordinary(&kavo->zonesmap, kavo->max_zones);
}

void kavo_free_zones(KAVO kavo) {
  if (kavo_zones_may_change(kavo, __func__, "Cannot free zones because KAVO is already opened") != KAVOE_OK) return;
  kavo_zonesmap_free(&kavo->zonesmap);
}

KAVO_ERR kavo_add_zone(KAVO kavo, KAVO_TYPE type, const char *zone) {
  if (zone == nullptr || zone[0] == '\0' || !kavo_type_is_list(type)) return KAVOE_BADPAR;
  if (strnlen(zone, kZoneMax + 1) > kZoneMax) return KAVOE_BADPAR;
  const KAVO_ERR refused = kavo_zones_may_change(kavo, __func__, "Cannot add zone because KAVO is already opened");
  return refused == KAVOE_OK ? add_zone(kavo, type, zone) : refused;
}

const char *kavo_zonesmap_zone(KAVO kavo, int zone) {
  if (kavo == nullptr || kavo_is_foreign(kavo) || zone < 0 || zone >= kavo->zonesmap.zones_count) return nullptr;
  return kavo->zonesmap.prefixes[zone];
}

KAVO_ERR kavo_zonesmap_zone_cpy(KAVO kavo, int zone, char *buf, int buflen) {
  const char *name = kavo_zonesmap_zone(kavo, zone);
  if (name == nullptr) return kavo != nullptr && kavo_is_foreign(kavo) ? KAVOE_SRV : KAVOE_BADPAR;
  const size_t size = strlen(name) + 1;
  if (buflen < 0 || static_cast<size_t>(buflen) < size) {
    PELK_INFO(KAVO_ZONES_SOURCE, __func__, "Not enough memory to copy zone");
    return KAVOE_NOMEM;
  }
  if (buf == nullptr) return KAVOE_BADPAR;
  memcpy(buf, name, size);
  return KAVOE_OK;
}

kavo_zonesmap *kavo_get_zonesmap(KAVO kavo) {
  return kavo == nullptr || kavo_is_foreign(kavo) ? nullptr : &kavo->zonesmap;
}

}  // extern "C"
