// dump.cc - forged cache dumps: the checksums are right, the contents are not. The entries shown are the entries
// loaded; loaded, saved and loaded again, a cache holds the same.
//
// The first byte chooses how the rest is read: as a whole file, whose frames get their checksums, or as the contents of
// the frames, which get their heads too, so that the fuzzer reaches the entries soon.
#include <cache_entry.h>

#include <set>

#include "fuzz.h"

namespace {

using fuzz::Bytes;
using fuzz::check;

using testbed::Cache;

constexpr dns_time kNow = 800'000'000;
constexpr size_t kSum = 8, kHead = 16;                                // of a frame
constexpr size_t kRunSizeAt = 12, kNameSizeAt = 15, kImageHead = 20;  // of an entry's image
enum Kind : uint32_t { kFileHead = 1, kCacheHead = 2, kBlock = 3, kCacheEnd = 4, kFileEnd = 5 };
const Bytes kMagic = {0x8d, 'D', 'N', 'C', 'D', '\r', '\n', 0x1a};

// Composer writes the frames of a dump around the fuzzer's contents.
class Composer {
 public:
  static Bytes compose(fuzz::Input *input) {
    Composer composer;
    composer.frame(kFileHead, {0, 0, 0, 1, 0, 0, 0, 0, 0x2f, 0xaf, 8, 0});
    uint64_t caches = 0;
    for (; !input->empty() && caches < 4; ++caches)
      composer.cache(input);
    composer.totals(kFileEnd, caches, composer.bytes_.size() + kHead + 2 * sizeof(uint64_t));
    return composer.bytes_;
  }

 private:
  void be(uint64_t value, size_t size) {
    for (size_t i = size; i > 0; --i)
      bytes_.push_back(static_cast<uint8_t>(value >> 8 * (i - 1)));
  }
  void head(Kind kind, size_t body_size) {
    be(0, kSum);
    be(kind, sizeof(uint32_t));
    be(body_size, sizeof(uint32_t));
  }
  void frame(Kind kind, const Bytes &body) {
    head(kind, body.size());
    bytes_.insert(bytes_.end(), body.begin(), body.end());
  }
  void totals(Kind kind, uint64_t first, uint64_t second) {
    head(kind, 2 * sizeof(uint64_t));
    be(first, sizeof first);
    be(second, sizeof second);
  }
  static uint64_t entries_of(std::span<const uint8_t> images) {
    uint64_t entries = 0;
    for (; images.size() >= kImageHead; ++entries) {
      const size_t size = kImageHead + images[kNameSizeAt] + images[kRunSizeAt] * 256U + images[kRunSizeAt + 1];
      images = images.subspan(std::min(size, images.size()));
    }
    return entries;
  }
  void cache(fuzz::Input *input) {
    const std::span<const uint8_t> user = input->bytes(input->u8());
    frame(kCacheHead, {user.begin(), user.end()});
    uint64_t entries = 0, size = 0;
    for (unsigned blocks = input->u8() % 4U; blocks > 0; --blocks) {
      const std::span<const uint8_t> images = input->bytes(input->u16());
      frame(kBlock, {images.begin(), images.end()});
      entries += entries_of(images);
      size += images.size();
    }
    totals(kCacheEnd, entries, size);
  }

  Bytes bytes_ = kMagic;
};

Cache cache_of(uint8_t how) {
  Cache cache = testbed::cache_of((how & 2) != 0 ? 4000 : 1 << 20);
  const uint32_t flags = ((how & 4) != 0 ? DNS_CR_EXPIRED : 0) | ((how & 8) != 0 ? 0 : DNS_CR_NCACHE);
  check(dns_cacher_setopt(dns_cache_cacher(cache.get()), DNS_CROPT_FLAGS, &flags, sizeof flags) == 0, "flags");
  return cache;
}

// text_of gives an entry as text, with its TTLs or without.
std::string text_of(dns_cdata *entry, bool ttls) {
  uint8_t dn[DNS_MAXDN];
  unsigned size = sizeof dn;
  check(dns_cdata_dn(entry, dn, &size) == 0, "an entry has a name");
  std::string text(dn, dn + size);
  const int ttl = ttls ? dns_cdata_ttl(entry) : 0;
  for (const int figure : {dns_cdata_cls(entry), dns_cdata_typ(entry), dns_cdata_rcode(entry), ttl})
    text += std::to_string(figure) + " ";
  static Bytes data(DNS_MAXPACKET);
  unsigned records = 0;
  dns_rr rr = {};
  dns_cdata_rewind(entry);
  for (;; ++records) {
    rr.dnsrr_dptr = data.data();
    rr.dnsrr_dsz = DNS_MAXPACKET;
    if (dns_cdata_nextrr(entry, &rr) != 1) break;
    if (!ttls) rr.dnsrr_ttl = 0;
    const std::string line = fuzz::written([&](FILE *stream) { check(dns_printrr(stream, 1, &rr) == 0, "it prints"); });
    fuzz::expect_printable(line);
    text += line + std::string(rr.dnsrr_dptr, rr.dnsrr_dend);
  }
  check(records == dns_cdata_nrr(entry), "an entry holds as many records as it says");
  return text;
}

// Loaded is a dump as a cache takes it and as it shows itself. All its caches go into one.
struct Loaded {
  int status = 0;
  std::set<std::string> shown, contents;

  Loaded(const Bytes &bytes, dns_cache *cache) {
    const fuzz::MemoryFile file(bytes);
    dns_cdump *dump = dns_cdump_load_init(file.fd(), kNow);
    check(dump != nullptr, "a file can be looked at");
    const testbed::Entry entry(dns_cdata_init(0), dns_cdata_free);
    for (status = dns_cdump_first_cache(dump); status > 0; status = dns_cdump_next_cache(dump)) {
      int more = 0;
      while ((more = dns_cdump_next_entry(dump, entry.get())) == 1) {
        shown.insert(text_of(entry.get(), true));
        contents.insert(text_of(entry.get(), false));
      }
      status = dns_cdump_load_cache(dump, cache);
      check(more == (status == DNS_E_NODATA ? 0 : status), "a cache that can be shown can be loaded");
      if (status != 0 && status != DNS_E_NODATA) break;
    }
    check(status <= 0, "a file comes to its end");
    check(dns_cdump_load_finish(dump) == 0, "a dump is closed");
  }
};

Bytes saved(dns_cache *cache) {
  const fuzz::MemoryFile file;
  dns_cdump *dump = dns_cdump_save_init(file.fd(), kNow);
  check(dns_cdump_save_cache(dump, cache, "user", 4) == 0 && dns_cdump_save_finish(dump) == 0, "a cache can be saved");
  return file.content();
}

void put(dns_cache *cache, const char *name) {
  check(testbed::put(cache, name, DNS_T_A, 300, {{127, 0, 0, 2}}, kNow) == 0, "an entry");
}

// expect_format checks the format as this file knows it, without which no forged dump gets far: from the block of a
// real dump, Composer makes that dump again.
void expect_format() {
  constexpr size_t kTotals = kHead + 16, kBefore = 8 + (kHead + 12) + (kHead + 4) + kHead, kAfter = 2 * kTotals;
  const Cache cache = cache_of(0);
  put(cache.get(), "name");
  put(cache.get(), "another.name");
  const Bytes whole = saved(cache.get());
  check(whole.size() > kBefore + kAfter && whole.size() < kBefore + kAfter + 256, "the size of a dump");
  Bytes parts = {4, 'u', 's', 'e', 'r', 1, static_cast<uint8_t>(whole.size() - kBefore - kAfter), 0};
  parts.insert(parts.end(), whole.begin() + kBefore, whole.end() - kAfter);
  fuzz::Input input(parts.data(), parts.size());
  Bytes composed = Composer::compose(&input);
  testbed::seal_dump(composed);
  check(composed == whole, "what is known of the format");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool known = (expect_format(), true);
  (void)known;
  fuzz::Input input(data, size);
  const uint8_t how = input.u8();
  Bytes bytes;
  if ((how & 1) != 0) {
    bytes = Composer::compose(&input);
  } else {
    const std::span<const uint8_t> rest = input.rest();
    bytes.assign(rest.begin(), rest.end());
  }
  testbed::seal_dump(bytes);
  const Cache first = cache_of(how), second = cache_of(how), third = cache_of(how);
  const Loaded foreign(bytes, first.get());
  const Loaded again(saved(first.get()), second.get()), last(saved(second.get()), third.get());
  check(again.status == 0 && last.status == 0, "what was saved can be loaded");
  check(last.shown == again.shown, "saved and loaded, a cache is the same");
  check(std::ranges::includes(foreign.contents, again.contents), "a cache holds what its dump has shown");
  return 0;
}
