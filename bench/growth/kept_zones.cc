#include "kept_zones.h"

#include <kavo.h>
#include <temp_dir.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

namespace growth {
namespace {

constexpr unsigned kZonesARound = 64'000;

void must(KAVO_ERR error) {
  if (error != KAVOE_OK) throw std::runtime_error(kavo_strerror(error));
}

// KeptZones is a context with so many zones, their names, and their binary record.
struct KeptZones {
  explicit KeptZones(unsigned zones) : stream(tmpfile(), fclose) {
    KAVO made = nullptr;
    must(kavo_init_ext(&made, 1, 0, static_cast<int>(zones), 0));
    context.reset(made);
    for (unsigned i = 0; i < zones; ++i)
      names.push_back("zone-" + std::to_string(i) + ".list.example");
    add_all();
    must(kavo_zonesmap_save_cfg(made, file().c_str()));
    must(kavo_zonesmap_save_bin(made, kavo_get_zonesmap(made), stream.get()));
  }
  [[nodiscard]] std::string file() const { return directory.file("zones"); }
  // add_all adds each zone twice, the second time to no effect.
  void add_all() {
    must(kavo_zonesmap_init(context.get()));
    for (int i = 0; i < 2; ++i)
      for (const std::string &name : names)
        must(kavo_add_zone(context.get(), KAVOT_BL_IP, name.c_str()));
  }
  void read_file() { must(kavo_zonesmap_init_cfg(context.get(), file().c_str())); }
  // read_record reads the record and adds a zone that it held: work that a load defers counts too.
  void read_record() {
    rewind(stream.get());
    must(kavo_zonesmap_init_bin(context.get(), kavo_get_zonesmap(context.get()), stream.get()));
    must(kavo_add_zone(context.get(), KAVOT_BL_IP, names.back().c_str()));
  }

  testbed::TempDir directory;
  std::unique_ptr<FILE, int (*)(FILE *)> stream;
  std::unique_ptr<kavo_t, KAVO_ERR (*)(KAVO)> context{nullptr, kavo_free};
  std::vector<std::string> names;
};

class Loads final : public Work {
 public:
  Loads(unsigned zones, void (KeptZones::*load)()) : zones_(zones), load_(load) {}
  void run(unsigned count) override {
    for (unsigned i = 0; i < count; ++i)
      (zones_.*load_)();
  }

 private:
  KeptZones zones_;
  void (KeptZones::*load_)();
};

Dimension loading(const char *name, const char *text, void (KeptZones::*load)()) {
  Dimension dimension = {name,
                         "zones",
                         "zone",
                         text,
                         {1000, 2000, 4000, 8000, 16'000, 32'000},
                         [load](unsigned size) { return std::make_unique<Loads>(size, load); },
                         [](unsigned size) { return kZonesARound / size; },
                         [](unsigned) { return 1U; }};
  dimension.per_size = true;
  return dimension;
}

}  // namespace

std::vector<Dimension> of_kept_zones() {
  return {loading("zones file", "A zones file of so many zones loaded.", &KeptZones::read_file),
          loading("zones added", "So many zones added with `kavo_add_zone`, each of them twice.", &KeptZones::add_all),
          loading("zones record", "A binary record of so many zones loaded, and one of its zones added.",
                  &KeptZones::read_record)};
}

}  // namespace growth
