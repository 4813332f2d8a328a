// kavo_zonesmap.cc - the zones map and its text configuration.
//
// A zones file is a sequence of sections: a header line ("#IP", "#DOMAIN_TXT", ...) that names a list type, one zone a
// line, and an empty line that ends the section. There are no comments: every line that begins with "#" is a header.
// Loading replaces the whole map; a load that fails leaves the map released. Runs on the host's threads while the
// context is at rest, without a lock.
#include "kavo_zonesmap.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <array>
#include <memory>

#include <dns_wire.h>
#include <pelk.h>

#include "kavo_query_table.h"
#include "kavo_t.h"

namespace {

constexpr char kSource[] = "kavo_zonesmap";
constexpr char kInitOpened[] = "Cannot initialize zonesmap because KAVO is already opened";
constexpr char kGlobalLookup[] = "GLOBAL LOOKUP";

// The longest name that kavo_add_zone takes, in characters: with its newline it fills the loader's line to the byte.
constexpr size_t kZoneMax = 254;
constexpr size_t kLineSize = 256;

// The list types' keywords in the zones file, by their distance from the first type.
constexpr std::array<const char *, KAVO_ZONES_SLOTS - 1> kTypeNames = {
    "IP", "DOMAIN", "IP_TXT", "DOMAIN_TXT", "A6", "MX", "SRV", "CNAME", "NS",
};

struct FileCloser {
  void operator()(FILE *file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, FileCloser>;

// zmcfg_bltype_name returns a list type's keyword.
const char *zmcfg_bltype_name(KAVO_TYPE type) {
  return kTypeNames[static_cast<size_t>(type - KAVOT_BL_MIN)];
}

constexpr KAVO_TYPE list_type(unsigned index) {
  return static_cast<KAVO_TYPE>(KAVOT_BL_MIN + index);
}

// type_of_keyword returns the list type with a keyword, KAVOT_INVALID for any other text.
KAVO_TYPE type_of_keyword(const char *keyword) {
  for (unsigned i = 0; i < kTypeNames.size(); ++i) {
    if (strcmp(keyword, kTypeNames[i]) == 0) return list_type(i);
  }
  return KAVOT_INVALID;
}

// make_name returns a name as the map holds it (see kavo_zonesmap), or null without memory.
char *make_name(const char *text, std::span<const uint8_t> wire) {
  const size_t size = strlen(text) + 1;
  auto *name = static_cast<char *>(malloc(size + 1 + wire.size()));
  if (name == nullptr) return nullptr;
  memcpy(name, text, size);
  name[size] = static_cast<char>(wire.size());
  if (!wire.empty()) memcpy(name + size + 1, wire.data(), wire.size());
  return name;
}

enum class Stored { ok, no_table, no_copy };

// grow_names makes sure that the names table has room for one entry more. It doubles, so that a map of many zones is
// not copied for each of them.
[[nodiscard]] bool grow_names(kavo_zonesmap *map) {
  if (map->zones_count < map->zones_room) return true;
  const int32_t room = map->zones_room * 2;
  auto **grown = static_cast<char **>(realloc(map->prefixes, static_cast<size_t>(room) * sizeof(*map->prefixes)));
  if (grown == nullptr) return false;
  map->prefixes = grown;
  map->zones_room = room;
  return true;
}

// store_zone finds the entry of a zone, which becomes the table's next one where it is new.
[[nodiscard]] Stored store_zone(kavo_zonesmap *map, const char *text, kavo_zone_entry **entry) {
  *entry = kavo_zonesmap_find(map, text);
  if (*entry != nullptr) return Stored::ok;
  if (!grow_names(map) || !kavo_zonesmap_index_reserve(map)) return Stored::no_table;
  char *name = kavo_zonesmap_make_name(text);
  if (name == nullptr) return Stored::no_copy;
  map->prefixes[map->zones_count] = name;
  *entry = kavo_zonesmap_index_add(map, map->zones_count++);
  return Stored::ok;
}

int names_bytes(int32_t count) {
  return static_cast<int>(static_cast<size_t>(count) * sizeof(char *));
}

void append(kavo_zones *list, int32_t number) {
  list->zone_numbs[list->count++] = number;
}

// append_zone appends a zone to a slot's list.
void append_zone(kavo_zonesmap *map, int slot, kavo_zone_entry *entry) {
  append(map->zones[slot], entry->number);
  entry->lists |= uint32_t{1} << slot;
}

[[nodiscard]] KAVO_ERR init_failed(kavo_zonesmap *map, size_t bytes) {
  PELK_ERROR(kSource, "kavo_zonesmap_init_ordinary", errno, KAVOE_NOMEM, "Unable to allocate %d bytes for zonesmap",
             static_cast<int>(bytes));
  kavo_zonesmap_free(map);
  return KAVOE_NOMEM;
}

// list_contains returns whether a slot's list holds a zone with this name.
[[nodiscard]] bool list_contains(const kavo_zonesmap *map, int slot, const char *text) {
  const kavo_zone_entry *entry = kavo_zonesmap_find(map, text);
  return entry != nullptr && (entry->lists >> slot & 1) != 0;
}

[[nodiscard]] KAVO_ERR kavo_zonesmap_add_zone(kavo_zonesmap *map, int max_zones, KAVO_TYPE type, const char *zone) {
  static constexpr char kStep[] = "kavo_zonesmap_add_zone";
  if (map->initialized == 0) return KAVOE_BADPAR;
  const int slot = kavo_zonesmap_slot(type);
  if (list_contains(map, slot, zone)) return KAVOE_OK;
  if (map->zones[slot]->count >= max_zones) {
    PELK_WARN(kSource, kStep, "Too many zones too for one query type");
    return KAVOE_NOMEM;
  }
  kavo_zone_entry *entry = nullptr;
  switch (store_zone(map, zone, &entry)) {
    case Stored::no_table:
      PELK_ERROR(kSource, kStep, errno, KAVOE_NOMEM, "Unable to allocate %d bytes for zones storing",
                 names_bytes(map->zones_count + 1));
      return KAVOE_NOMEM;
    case Stored::no_copy:
      PELK_ERROR(kSource, kStep, errno, KAVOE_NOMEM, "Unable to allocate %d bytes to store zone",
                 static_cast<int>(strlen(zone) + 1));
      return KAVOE_NOMEM;
    case Stored::ok:
      break;
  }
  append_zone(map, slot, entry);
  return KAVOE_OK;
}

// Loader reads a zones file line by line into a map in its initial state. The lines of a section that is not open are
// ignored; a section's zones are counted, since they may be no more than the context allows for one type.
class Loader {
 public:
  Loader(kavo_zonesmap *map, int max_zones) : map_(map), max_zones_(max_zones) {}

  [[nodiscard]] KAVO_ERR line(const char *text) {
    if (text[0] == '#') return header(text);
    if (text[0] == '\0') section_ = kNoSection;
    return section_ == kNoSection ? KAVOE_OK : zone(text);
  }

 private:
  static constexpr char kStep[] = "kavo_zonesmap_init_cfg";
  static constexpr int kNoSection = 0;  // the one slot without a list type

  [[nodiscard]] KAVO_ERR header(const char *text) {
    const KAVO_TYPE type = type_of_keyword(text + 1);
    if (type == KAVOT_INVALID) {
      PELK_INFO(kSource, kStep, "Wrong line \"%s\" in the config file", text);
      return KAVOE_FILE;
    }
    section_ = kavo_zonesmap_slot(type);
    kavo_zonesmap_mark(map_, section_, false);
    map_->zones[section_]->count = 0;
    return KAVOE_OK;
  }

  [[nodiscard]] KAVO_ERR zone(const char *text) {
    kavo_zone_entry *entry = nullptr;
    switch (store_zone(map_, text, &entry)) {
      case Stored::no_table:
        PELK_ERROR(kSource, kStep, errno, KAVOE_NOMEM, "Unable to allocate %d bytes to store zones",
                   names_bytes(map_->zones_count + 1));
        return KAVOE_NOMEM;
      case Stored::no_copy:
        PELK_ERROR(kSource, kStep, errno, KAVOE_NOMEM, "Unable to store zone %s", text);
        return KAVOE_NOMEM;
      case Stored::ok:
        break;
    }
    if (map_->zones[section_]->count >= max_zones_) {
      PELK_INFO(kSource, kStep, "Invalid zones configuration file structure");
      return KAVOE_FILE;
    }
    append_zone(map_, section_, entry);
    return KAVOE_OK;
  }

  kavo_zonesmap *map_;
  int max_zones_;
  int section_ = kNoSection;  // the open section's slot
};

// load reads the whole file. A line longer than the buffer arrives as several.
[[nodiscard]] KAVO_ERR load(FILE *file, Loader *loader) {
  std::array<char, kLineSize> buffer;
  while (fgets(buffer.data(), static_cast<int>(buffer.size()), file) != nullptr) {
    const size_t length = strlen(buffer.data());
    if (length > 0 && buffer[length - 1] == '\n') buffer[length - 1] = '\0';
    const KAVO_ERR error = loader->line(buffer.data());
    if (error != KAVOE_OK) return error;
  }
  if (ferror(file) == 0) return KAVOE_OK;
  PELK_INFO(kSource, "kavo_zonesmap_init_cfg", "Unable to read zones config file");
  return KAVOE_FILE;
}

[[nodiscard]] bool write_section(FILE *file, const kavo_zonesmap *map, KAVO_TYPE type) {
  if (fprintf(file, "#%s\n", zmcfg_bltype_name(type)) < 0) return false;
  for (const int32_t number : kavo_zonesmap_zones(map, type)) {
    if (fprintf(file, "%s\n", map->prefixes[number]) < 0) return false;
  }
  return fputc('\n', file) != EOF;
}

}  // namespace

char *kavo_zonesmap_make_name(const char *text) {
  std::array<uint8_t, DNS_MAXDN> wire;
  const int size = dns_ptodn(text, 0, wire.data(), static_cast<int>(wire.size()), nullptr);
  if (size <= 0) PELK_WARN(kSource, __func__, "Zone %s is no domain name, questions in it fail", text);
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
  append(zonesmap->zones[0], 0);
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
  kavo_zonesmap_index_free(zonesmap);
  *zonesmap = {};
}

KAVO_ERR kavo_zonesmap_check_open(KAVO kavo, const char *function, const char *message, int line) {
  const KAVO_ERR refused = kavo_check_at_rest(kavo, kSource, function, message, line);
  if (refused == KAVOE_OK) kavo_table_forget_lists(kavo);
  return refused;
}

extern "C" {

KAVO_ERR kavo_zonesmap_init(KAVO kavo) {
  if (kavo == nullptr || kavo->max_zones < 1) return KAVOE_BADPAR;
  const KAVO_ERR refused = kavo_zonesmap_check_open(kavo, __func__, kInitOpened);
  if (refused != KAVOE_OK) return refused;
  return kavo_zonesmap_init_ordinary(&kavo->zonesmap, kavo->max_zones);
}

void kavo_free_zones(KAVO kavo) {
  if (kavo == nullptr) return;
  if (kavo_zonesmap_check_open(kavo, __func__, "Cannot free zones because KAVO is already opened") != KAVOE_OK) return;
  kavo_zonesmap_free(&kavo->zonesmap);
}

KAVO_ERR kavo_zonesmap_init_cfg(KAVO kavo, const char *zones_file_path) {
  if (kavo == nullptr || zones_file_path == nullptr || zones_file_path[0] == '\0') return KAVOE_BADPAR;
  const KAVO_ERR refused = kavo_zonesmap_check_open(kavo, __func__, kInitOpened);
  if (refused != KAVOE_OK) return refused;
  const pelk_no_cancel whole;
  KAVO_ERR error = kavo_zonesmap_init_ordinary(&kavo->zonesmap, kavo->max_zones);
  if (error != KAVOE_OK) return error;

  const File file(pelk_fopen(zones_file_path, pelk_file_mode::read));
  if (file == nullptr) {
    PELK_INFO(kSource, __func__, "Unable to open zones config file");
    error = KAVOE_FILE;
  } else {
    Loader loader(&kavo->zonesmap, kavo->max_zones);
    error = load(file.get(), &loader);
  }
  if (error != KAVOE_OK) kavo_zonesmap_free(&kavo->zonesmap);
  return error;
}

KAVO_ERR kavo_zonesmap_save_cfg(KAVO kavo, const char *zones_file_path) {
  if (kavo == nullptr || zones_file_path == nullptr || zones_file_path[0] == '\0') return KAVOE_BADPAR;
  if (kavo_is_foreign(kavo)) return KAVOE_SRV;
  const pelk_no_cancel whole;
  File file(pelk_fopen(zones_file_path, pelk_file_mode::write));
  if (file == nullptr) return KAVOE_FILE;
  bool written = true;
  for (unsigned i = 0; i < kTypeNames.size() && written; ++i) {
    written = write_section(file.get(), &kavo->zonesmap, list_type(i));
  }
  const bool closed = fclose(file.release()) == 0;
  return written && closed ? KAVOE_OK : KAVOE_FILE;
}

KAVO_ERR kavo_add_zone(KAVO kavo, KAVO_TYPE type, const char *zone) {
  if (kavo == nullptr || zone == nullptr || zone[0] == '\0' || !kavo_zonesmap_is_list(type)) return KAVOE_BADPAR;
  if (strnlen(zone, kZoneMax + 1) > kZoneMax) return KAVOE_BADPAR;
  const KAVO_ERR refused = kavo_zonesmap_check_open(kavo, __func__, "Cannot add zone because KAVO is already opened");
  if (refused != KAVOE_OK) return refused;
  return kavo_zonesmap_add_zone(&kavo->zonesmap, kavo->max_zones, type, zone);
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
    PELK_INFO(kSource, __func__, "Not enough memory to copy zone");
    return KAVOE_NOMEM;
  }
  if (buf == nullptr) return KAVOE_BADPAR;
  memcpy(buf, name, size);
  return KAVOE_OK;
}

}  // extern "C"
