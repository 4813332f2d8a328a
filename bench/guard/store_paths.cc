// store_paths.cc - the answer cache, called as a host calls it, its dump, and the zones file. One thread.
#include <arpa/inet.h>
#include <kavo.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "must.h"
#include "paths.h"
#include "support/process.h"

namespace guard {
namespace {

constexpr int kCacheBytes = 1 << 26;
constexpr int32_t kTtl = 3600;
constexpr uint32_t kListed = 0x7F000002;
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
      names_.push_back(std::to_string(n % 250) + "." + std::to_string(n / 250 % 250) + ".3.10.list.example");
    make_block();
  }
  ~Entries() {
    kavo_rr_free(&block_);
    kavo_rr_free(&found_.rr);
  }
  Entries(const Entries &) = delete;
  Entries &operator=(const Entries &) = delete;

  void put(KAVO_CACHE cache, unsigned n) {
    const std::string &name = names_[n % kNames];
    must(kavo_cache_put(cache, KAVOT_DNS_A, name.data(), static_cast<int>(name.size()), &block_), "kavo_cache_put");
  }
  void fill(KAVO_CACHE cache) {
    for (unsigned n = 0; n < kNames; ++n)
      put(cache, n);
  }
  void get(KAVO_CACHE cache, unsigned n) {
    const std::string &name = names_[n % kNames];
    must(kavo_cache_get(cache, KAVOT_DNS_A, name.data(), static_cast<int>(name.size()), &found_, 0), "kavo_cache_get");
    if (ntohl(found_.rr.rr_a->dnsa4_addr[0].s_addr) != kListed) throw std::runtime_error("a wrong entry");
  }

 private:
  // A block holds its entries and names behind its head.
  void make_block() {
    constexpr char kName[] = "list.example";
    constexpr unsigned kSize = sizeof(dns_rr_a4) + sizeof(in_addr) + sizeof kName;
    must(kavo_rr_alloc(&block_, kSize), "kavo_rr_alloc");
    dns_rr_a4 *head = block_.rr_a;
    head->dnsa4_written = kSize;
    head->dnsa4_ttl = kTtl;
    head->dnsa4_nrr = 1;
    head->dnsa4_addr = reinterpret_cast<in_addr *>(head + 1);
    head->dnsa4_addr->s_addr = htonl(kListed);
    head->dnsa4_cname = head->dnsa4_qname = reinterpret_cast<char *>(head->dnsa4_addr + 1);
    memcpy(head->dnsa4_cname, kName, sizeof kName);
  }

  std::vector<std::string> names_;
  KAVO_RR block_ = {};
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
  support::TempDir directory_;
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
  support::TempDir directory_;
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
  support::TempDir directory_;
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
