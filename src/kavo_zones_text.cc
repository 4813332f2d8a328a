// kavo_zones_text.cc - the zones of a context in a text file.
//
// A zones file is a sequence of sections: a header line ("#IP", "#DOMAIN_TXT", ...) that names a list type, one zone a
// line, and an empty line that ends the section. There are no comments: every line that begins with "#" is a header.
// Loading replaces the whole map; a load that fails leaves the map released. Runs on the host's threads while the
// context is at rest, without a lock.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <array>
#include <memory>

#include <pelk_file.h>
#include <pelk_log.h>
#include <pelk_thread.h>

#include "kavo_state.h"
#include "kavo_t.h"
#include "kavo_zones.h"
#include "kavo_zonesmap.h"

namespace {

constexpr char kLoad[] = "kavo_zonesmap_init_cfg";

// Bytes of the reader's line. A longer line arrives as several.
constexpr size_t kLineSize = 256;

struct FileCloser {
  void operator()(FILE *file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, FileCloser>;

// type_of_keyword returns the list type with a keyword, KAVOT_INVALID for any other text.
[[nodiscard]] KAVO_TYPE type_of_keyword(const char *keyword) {
  for (const kavo_type_info &row : kavo_type_rows())
    if (row.keyword != nullptr && strcmp(keyword, row.keyword) == 0) return row.type;
  return KAVOT_INVALID;
}

// Loader reads a zones file line by line into a map in its initial state. Lines outside a section are ignored.
class Loader {
 public:
  explicit Loader(KAVO kavo) : kavo_(kavo), map_(&kavo->zonesmap) {}

  [[nodiscard]] KAVO_ERR line(const char *text) {
    if (text[0] == '#') return header(text);
    if (text[0] == '\0') section_ = kNoSection;
    return section_ == kNoSection ? KAVOE_OK : zone(text);
  }

 private:
  static constexpr int kNoSection = 0;  // the one slot without a list type

  [[nodiscard]] KAVO_ERR header(const char *text) {
    const KAVO_TYPE type = type_of_keyword(text + 1);
    if (type == KAVOT_INVALID) {
      PELK_INFO(KAVO_ZONES_SOURCE, kLoad, "Wrong line \"%s\" in the config file", text);
      return KAVOE_FILE;
    }
    section_ = kavo_zonesmap_slot(type);
    kavo_zonesmap_mark(map_, section_, false);
    map_->zones[section_]->count = 0;
    return KAVOE_OK;
  }

  [[nodiscard]] KAVO_ERR zone(const char *text) {
    kavo_zone_entry *entry = nullptr;
    switch (kavo_zonesmap_store(map_, text, &entry)) {
      case kavo_stored::no_table:
        PELK_ERROR(KAVO_ZONES_SOURCE, kLoad, errno, KAVOE_NOMEM, "Unable to allocate %d bytes to store zones",
                   kavo_zones_table_bytes(kavo_));
        return KAVOE_NOMEM;
      case kavo_stored::no_copy:
        PELK_ERROR(KAVO_ZONES_SOURCE, kLoad, errno, KAVOE_NOMEM, "Unable to store zone %s", text);
        return KAVOE_NOMEM;
      case kavo_stored::ok:
        break;
    }
    if (map_->zones[section_]->count >= kavo_->max_zones) {
      PELK_INFO(KAVO_ZONES_SOURCE, kLoad, "Invalid zones configuration file structure");
      return KAVOE_FILE;
    }
    kavo_zonesmap_append(map_, section_, entry);
    return KAVOE_OK;
  }

  KAVO kavo_;
  kavo_zonesmap *map_;
  int section_ = kNoSection;  // the open section's slot
};

[[nodiscard]] KAVO_ERR load(FILE *file, Loader *loader) {
  std::array<char, kLineSize> buffer;
  while (fgets(buffer.data(), static_cast<int>(buffer.size()), file) != nullptr) {
    const size_t length = strlen(buffer.data());
    if (length > 0 && buffer[length - 1] == '\n') buffer[length - 1] = '\0';
    const KAVO_ERR error = loader->line(buffer.data());
    if (error != KAVOE_OK) return error;
  }
  if (ferror(file) == 0) return KAVOE_OK;
  PELK_INFO(KAVO_ZONES_SOURCE, kLoad, "Unable to read zones config file");
  return KAVOE_FILE;
}

[[nodiscard]] KAVO_ERR load_file(KAVO kavo, const char *path) {
  const File file(pelk_fopen(path, pelk_file_mode::read));
  if (file == nullptr) {
    PELK_INFO(KAVO_ZONES_SOURCE, kLoad, "Unable to open zones config file");
    return KAVOE_FILE;
  }
  Loader loader(kavo);
  return load(file.get(), &loader);
}

[[nodiscard]] bool write_section(FILE *file, const kavo_zonesmap *map, const kavo_type_info &row) {
  if (fprintf(file, "#%s\n", row.keyword) < 0) return false;
  for (const int32_t number : kavo_zonesmap_zones(map, row.type)) {
    if (fprintf(file, "%s\n", map->prefixes[number]) < 0) return false;
  }
  return fputc('\n', file) != EOF;
}

}  // namespace

extern "C" {

KAVO_ERR kavo_zonesmap_init_cfg(KAVO kavo, const char *zones_file_path) {
  if (zones_file_path == nullptr || zones_file_path[0] == '\0') return KAVOE_BADPAR;
  const KAVO_ERR refused =
      kavo_zones_may_change(kavo, __func__, "Cannot initialize zonesmap because KAVO is already opened");
  if (refused != KAVOE_OK) return refused;
  const pelk_no_cancel whole;
  KAVO_ERR error = kavo_zonesmap_init_ordinary(&kavo->zonesmap, kavo->max_zones);
  if (error != KAVOE_OK) return error;
  error = load_file(kavo, zones_file_path);
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
  for (unsigned type = KAVOT_BL_MIN; type <= KAVOT_BL_MAX && written; ++type)
    written = write_section(file.get(), &kavo->zonesmap, kavo_type_find(static_cast<KAVO_TYPE>(type)));
  const bool closed = fclose(file.release()) == 0;
  return written && closed ? KAVOE_OK : KAVOE_FILE;
}

}  // extern "C"
