// zones_binary.cc - the zones map as a binary record: what was loaded, saved and loaded again is the same, its numbers
// are those of zones, and the record ends where the reader says.
#include <kavo_zonesmap.h>

#include "fuzz.h"

namespace {

using fuzz::check;

std::string saved(KAVO kavo) {
  return fuzz::written([kavo](FILE *stream) {
    check(kavo_zonesmap_save_bin(kavo, kavo_get_zonesmap(kavo), stream) == KAVOE_OK, "a map can be saved");
  });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::quiet();
  KAVO kavo = nullptr;
  check(kavo_init(&kavo, 4, 0, 0) == KAVOE_OK, "a context");
  kavo_zonesmap *map = kavo_get_zonesmap(kavo);
  const KAVO_ERR error = kavo_zonesmap_init_bin(kavo, map, fuzz::reading({data, size}).get());
  check(error == KAVOE_OK || error == KAVOE_FILE || error == KAVOE_NOMEM, "a record is one or is refused");
  check(error == KAVOE_OK || kavo_zonesmap_zone(kavo, 0) == nullptr, "a failed load leaves no zones");
  if (error == KAVOE_OK) {
    for (unsigned type = KAVOT_BL_MIN; type <= KAVOT_BL_MAX; ++type)
      for (const int32_t zone : kavo_zonesmap_zones(map, static_cast<KAVO_TYPE>(type)))
        check(kavo_zonesmap_zone(kavo, zone) != nullptr, "a number in a list is that of a zone");
    const std::string first = saved(kavo), longer = first + "after";
    const fuzz::Stream stream = fuzz::reading({reinterpret_cast<const uint8_t *>(longer.data()), longer.size()});
    check(kavo_zonesmap_init_bin(kavo, map, stream.get()) == KAVOE_OK && saved(kavo) == first, "saved and loaded");
    check(static_cast<size_t>(ftell(stream.get())) == first.size(), "the reader stops after the record");
  }
  kavo_free(kavo);
  return 0;
}
