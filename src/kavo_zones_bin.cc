// kavo_zones_bin.cc - the zones of a context as a binary record in a stream of the host's own.
//
// The record is a run of 32-bit integers in the machine's byte order and zone names, without a mark of what it is. It
// restores the zones' numbers, which the text file does not promise. What is read is foreign: a count or a length is
// believed only as far as bytes have followed it, so that memory is asked for as the names arrive. A load that fails
// leaves the map released. Runs on the host's threads while the context is at rest, without a lock.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <span>

#include <pelk_log.h>
#include <pelk_thread.h>

#include "kavo_state.h"
#include "kavo_t.h"
#include "kavo_zones.h"
#include "kavo_zonesmap.h"

namespace {

constexpr auto &kSource = KAVO_ZONES_SOURCE;
constexpr char kSave[] = "kavo_zonesmap_save_bin";
constexpr char kLoad[] = "kavo_zonesmap_init_bin";

constexpr int32_t kTrailer = 0;

// Bytes that a name's buffer starts with, more than any zone has; the buffer doubles for longer names.
constexpr size_t kNameRoom = 512;

struct Free {
  void operator()(char *memory) const { free(memory); }
};
using Memory = std::unique_ptr<char, Free>;

// ---- saving -------------------------------------------------------------------------------------------------------

[[nodiscard]] bool put(FILE *file, int32_t value) {
  return fwrite(&value, sizeof(value), 1, file) == 1;
}

[[nodiscard]] KAVO_ERR write_failed(const char *what) {
  PELK_ERROR(kSource, kSave, errno, KAVOE_FILE, "Unable write %s to the dump file", what);
  return KAVOE_FILE;
}

[[nodiscard]] bool write_name(FILE *file, const char *name) {
  const size_t size = strlen(name) + 1;
  return put(file, static_cast<int32_t>(size)) && fwrite(name, size, 1, file) == 1;
}

[[nodiscard]] bool write_list(FILE *file, int32_t slot, std::span<const int32_t> zones) {
  if (!put(file, slot) || !put(file, static_cast<int32_t>(zones.size()))) return false;
  return fwrite(zones.data(), sizeof(int32_t), zones.size(), file) == zones.size();
}

[[nodiscard]] KAVO_ERR save(FILE *file, const kavo_zonesmap *map) {
  if (!put(file, map->zones_count)) return write_failed("zones count");
  for (int32_t i = 1; i < map->zones_count; ++i) {
    if (!write_name(file, map->prefixes[i])) return write_failed("zone");
  }
  for (int32_t slot = 1; slot < KAVO_ZONES_SLOTS; ++slot) {
    const kavo_zones *list = map->zones[slot];
    if (!write_list(file, slot, {list->zone_numbs, static_cast<size_t>(list->count)}))
      return write_failed("zones mapping data");
  }
  return put(file, kTrailer) ? KAVOE_OK : write_failed("trailer");
}

// ---- loading ------------------------------------------------------------------------------------------------------

[[nodiscard]] KAVO_ERR out_of_memory(const char *what, int64_t bytes) {
  PELK_ERROR(kSource, kLoad, errno, KAVOE_NOMEM, "Unable to allocate %d bytes to store %s", static_cast<int>(bytes),
             what);
  return KAVOE_NOMEM;
}

// unreadable reports what cannot be read. At the end of the stream no call has failed, so there is no errno.
[[nodiscard]] KAVO_ERR unreadable(FILE *file, const char *what) {
  PELK_ERROR(kSource, kLoad, ferror(file) != 0 ? errno : 0, KAVOE_FILE, "Unable to read %s", what);
  return KAVOE_FILE;
}

// MapReader fills a map in its initial state. After a failure the map owns what was read so far.
class MapReader {
 public:
  MapReader(FILE *file, kavo_zonesmap *map, int max_zones) : file_(file), map_(map), max_zones_(max_zones) {}

  [[nodiscard]] KAVO_ERR read() {
    if (!get(&zones_)) return unreadable(file_, "zones count");
    if (zones_ < 1) return KAVOE_FILE;
    KAVO_ERR error = names();
    if (error == KAVOE_OK) error = lists();
    if (error != KAVOE_OK) return error;
    for (int slot = 1; slot < KAVO_ZONES_SLOTS; ++slot)
      kavo_zonesmap_mark(map_, slot, true);
    return KAVOE_OK;
  }

 private:
  [[nodiscard]] bool get(int32_t *value) { return fread(value, sizeof(*value), 1, file_) == 1; }

  [[nodiscard]] KAVO_ERR names() {
    while (map_->zones_count < zones_) {
      if (!grow_table() || !kavo_zones_index_reserve(&map_->index))
        return out_of_memory("zones list", int64_t{zones_} * int64_t{sizeof(char *)});
      const KAVO_ERR error = name();
      if (error != KAVOE_OK) return error;
    }
    return KAVOE_OK;
  }

  // grow_table makes sure that `prefixes` has room for one entry more, and never for more than the record has.
  [[nodiscard]] bool grow_table() {
    if (map_->zones_count < map_->zones_room) return true;
    const auto room = static_cast<int32_t>(std::min<int64_t>(2 * int64_t{map_->zones_room}, zones_));
    void *grown = realloc(map_->prefixes, static_cast<size_t>(room) * sizeof(*map_->prefixes));
    if (grown == nullptr) return false;
    map_->prefixes = static_cast<char **>(grown);
    map_->zones_room = room;
    return true;
  }

  [[nodiscard]] KAVO_ERR name() {
    int32_t length = 0;
    if (!get(&length)) return unreadable(file_, "zone length");
    if (length < 1) return KAVOE_FILE;
    const auto size = static_cast<size_t>(length);
    for (size_t have = 0; have < size;) {
      const size_t wanted = std::min(size, std::max(kNameRoom, 2 * have));
      if (!reserve(wanted)) return out_of_memory("zones", length);
      if (fread(text_.get() + have, wanted - have, 1, file_) != 1) return KAVOE_FILE;
      have = wanted;
    }
    text_.get()[size - 1] = '\0';
    char *stored = kavo_zonesmap_make_name(text_.get());
    if (stored == nullptr) return out_of_memory("zones", length);
    kavo_zonesmap_file(map_, stored);
    return KAVOE_OK;
  }

  // reserve makes the buffer of names hold `size` bytes, keeping its content.
  [[nodiscard]] bool reserve(size_t size) {
    if (size <= room_) return true;
    const size_t room = std::max(size, kNameRoom);
    auto *grown = static_cast<char *>(realloc(text_.get(), room));
    if (grown == nullptr) return false;
    (void)text_.release();
    text_.reset(grown);
    room_ = room;
    return true;
  }

  [[nodiscard]] KAVO_ERR lists() {
    int32_t slot = kTrailer;
    for (;;) {
      if (!get(&slot)) return KAVOE_FILE;
      if (slot == kTrailer) return KAVOE_OK;
      if (slot < 1 || slot >= KAVO_ZONES_SLOTS || !list(map_->zones[slot])) return KAVOE_FILE;
    }
  }

  // list reads a type's list over what the slot holds. The count is set last, so that it covers valid numbers only.
  [[nodiscard]] bool list(kavo_zones *slot) {
    int32_t count = 0;
    if (!get(&count) || count < 0 || count > max_zones_) return false;
    const auto size = static_cast<size_t>(count);
    if (fread(slot->zone_numbs, sizeof(int32_t), size, file_) != size) return false;
    const std::span<const int32_t> numbers(slot->zone_numbs, size);
    const int32_t zones = zones_;
    if (!std::ranges::all_of(numbers, [zones](int32_t number) { return number >= 0 && number < zones; })) return false;
    slot->count = count;
    return true;
  }

  FILE *file_;
  kavo_zonesmap *map_;
  int max_zones_;
  int32_t zones_ = 0;  // the record's count of zones, the pseudo-zone among them
  Memory text_;        // the name that is being read
  size_t room_ = 0;
};

}  // namespace

extern "C" {

KAVO_ERR kavo_zonesmap_save_bin(KAVO kavo, kavo_zonesmap *zonesmap, FILE *zones_file_bin) {
  if (kavo == nullptr || zonesmap == nullptr || zones_file_bin == nullptr) return KAVOE_BADPAR;
  if (kavo_is_foreign(kavo)) return KAVOE_SRV;
  if (zonesmap->initialized == 0) return KAVOE_BADPAR;
  const pelk_no_cancel whole;
  errno = 0;  // a stream of the host's own may fail without a reason
  return save(zones_file_bin, zonesmap);
}

KAVO_ERR kavo_zonesmap_init_bin(KAVO kavo, kavo_zonesmap *zonesmap, FILE *zones_file_bin) {
  if (kavo == nullptr || zones_file_bin == nullptr || kavo->max_zones < 1) return KAVOE_BADPAR;
  // The map of another context would get lists of this context's length, and the other context would write beyond them.
  if (zonesmap != &kavo->zonesmap) return KAVOE_BADPAR;
  KAVO_ERR error = kavo_zones_may_change(kavo, __func__, "Cannot initialize zonesmap because KAVO is already opened");
  if (error != KAVOE_OK) return error;
  const pelk_no_cancel whole;
  error = kavo_zonesmap_init_ordinary(zonesmap, kavo->max_zones);
  if (error != KAVOE_OK) return error;
  errno = 0;
  error = MapReader(zones_file_bin, zonesmap, kavo->max_zones).read();
  if (error != KAVOE_OK) kavo_zonesmap_free(zonesmap);
  return error;
}

}  // extern "C"
