// store_paths.cc - the answer cache, called as a host calls it, its dump, and the zones file. One thread.
#include <kavo.h>
#include <library.h>
#include <temp_dir.h>

#include <memory>
#include <string>

#include "paths.h"

namespace guard {
namespace {

using bench::must;

constexpr int kCacheBytes = 1 << 26;
constexpr unsigned kNames = 20'000;  // in a filled cache
constexpr unsigned kZones = 64;      // in a zones file

// Context is one that is never opened, with a cache.
class Context {
 public:
  Context() { must(kavo_init_ext(&kavo_, 1, kCacheBytes, kZones, 0), "kavo_init_ext"); }
  ~Context() { kavo_free(kavo_); }
  Context(const Context &) = delete;
  Context &operator=(const Context &) = delete;
  operator KAVO() const { return kavo_; }
  [[nodiscard]] KAVO_CACHE cache() const { return kavo_get_ext_cache(kavo_, KAVOCT_ANS); }

 private:
  KAVO kavo_ = nullptr;
};

// Entries are what a mail filter's cache is full of: one address for each name of a list.
class Entries {
 public:
  Entries() {
    for (unsigned n = 0; n < kNames; ++n)
      names_.push_back(bench::name_of(bench::question(n)));
  }
  ~Entries() { kavo_rr_free(&found_.rr); }
  Entries(const Entries &) = delete;
  Entries &operator=(const Entries &) = delete;

  void put(KAVO_CACHE cache, unsigned n) { block_.put(cache, names_[n % kNames]); }
  void get(KAVO_CACHE cache, unsigned n) { bench::get(cache, names_[n % kNames], &found_); }
  void fill(KAVO_CACHE cache) {
    for (unsigned n = 0; n < kNames; ++n)
      put(cache, n);
  }

 private:
  std::vector<std::string> names_;
  bench::ListedBlock block_;
  KAVO_ANSWER found_ = {};
};

class CacheGet final : public Work {
 public:
  CacheGet() { entries_.fill(context_.cache()); }
  void run(unsigned count) override {
    for (unsigned i = 0; i < count; ++i)
      entries_.get(context_.cache(), next_++);
  }

 private:
  Context context_;
  Entries entries_;
  unsigned next_ = 0;
};

class CachePut final : public Work {
 public:
  void run(unsigned count) override {
    for (unsigned i = 0; i < count; ++i)
      entries_.put(context_.cache(), next_++);
  }

 private:
  Context context_;
  Entries entries_;
  unsigned next_ = 0;
};

// The dump paths ignore the count but for its being one: they save or load the whole cache, kNames entries.
class DumpSave final : public Work {
 public:
  DumpSave() { entries_.fill(context_.cache()); }
  void run(unsigned) override { must(kavo_cachesave(context_, file_.c_str()), "kavo_cachesave"); }

 private:
  Context context_;
  Entries entries_;
  testbed::TempDir directory_;
  std::string file_ = directory_.file("dump");
};

class DumpLoad final : public Work {
 public:
  DumpLoad() {
    const Context full;
    Entries entries;
    entries.fill(full.cache());
    must(kavo_cachesave(full, file_.c_str()), "kavo_cachesave");
  }
  // Loading into a cache that is full of the same entries is another path, so each run has a fresh one.
  void run(unsigned) override {
    loaded_.push_back(std::make_unique<Context>());
    must(kavo_cacheload(*loaded_.back(), file_.c_str()), "kavo_cacheload");
  }

 private:
  testbed::TempDir directory_;
  std::string file_ = directory_.file("dump");
  std::vector<std::unique_ptr<Context>> loaded_;
};

class ZonesFile final : public Work {
 public:
  void run(unsigned count) override {
    for (unsigned lines = 0; lines < count; lines += kZones)
      must(kavo_zonesmap_init_cfg(context_, file_.c_str()), "kavo_zonesmap_init_cfg");
  }

 private:
  static std::string text() {
    std::string text = "#IP\n";
    for (unsigned zone = 0; zone < kZones; ++zone)
      text += "list" + std::to_string(zone) + ".example.org\n";
    return text + "\n";
  }

  Context context_;
  testbed::TempDir directory_;
  std::string file_ = directory_.write("zones", text());
};

template <typename Kind>
std::unique_ptr<Work> make() {
  return std::make_unique<Kind>();
}

}  // namespace

std::vector<Path> store_paths() {
  return {{"cache-get", "entry", kNames, kNames, make<CacheGet>},
          {"cache-put", "entry", kNames, 0, make<CachePut>},
          {"dump-save", "entry", kNames, kNames, make<DumpSave>},
          {"dump-load", "entry", kNames, kNames, make<DumpLoad>},
          {"zones-file", "line", 100 * kZones, kZones, make<ZonesFile>}};
}

}  // namespace guard
