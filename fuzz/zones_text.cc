// zones_text.cc - the zones file: what was loaded, saved and loaded again is the same.
#include <kavo_zonesmap.h>

#include "fuzz.h"

namespace {

using fuzz::check;

constexpr size_t kZoneMax = 254;  // a longer one fills the loader's line, so that the file cannot hold it

bool can_be_saved(KAVO kavo) {
  const char *name = nullptr;
  for (int zone = 1; (name = kavo_zonesmap_zone(kavo, zone)) != nullptr; ++zone)
    if (strlen(name) > kZoneMax) return false;
  return true;
}

fuzz::Bytes saved(KAVO kavo) {
  const fuzz::MemoryFile file;
  check(kavo_zonesmap_save_cfg(kavo, file.path().c_str()) == KAVOE_OK, "a map can be saved");
  return file.content();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::quiet();
  KAVO kavo = nullptr;
  check(kavo_init(&kavo, 4, 0, 0) == KAVOE_OK, "a context");
  const fuzz::MemoryFile file({data, size});
  const KAVO_ERR error = kavo_zonesmap_init_cfg(kavo, file.path().c_str());
  check(error == KAVOE_OK || error == KAVOE_FILE, "a file is a zones file or is refused");
  check(error == KAVOE_OK || kavo_zonesmap_zone(kavo, 0) == nullptr, "a failed load leaves no zones");
  if (error == KAVOE_OK && can_be_saved(kavo)) {
    const fuzz::Bytes first = saved(kavo);
    const fuzz::MemoryFile again(first);
    check(kavo_zonesmap_init_cfg(kavo, again.path().c_str()) == KAVOE_OK, "what was saved can be loaded");
    check(saved(kavo) == first, "loaded, saved and loaded, a map is the same");
    fuzz::MemoryFile binary;
    FILE *stream = fopen(binary.path().c_str(), "w+");
    check(kavo_zonesmap_save_bin(kavo, kavo_get_zonesmap(kavo), stream) == KAVOE_OK, "and in binary");
    rewind(stream);
    check(kavo_zonesmap_init_bin(kavo, kavo_get_zonesmap(kavo), stream) == KAVOE_OK && saved(kavo) == first,
          "and back");
    fclose(stream);
  }
  kavo_free(kavo);
  return 0;
}
