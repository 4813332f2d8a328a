// cache_test.cc - the answer cache through its C interface: what goes in comes out, for as long as it may and no
// longer. Time is an argument everywhere, so nothing here waits.
#include <cache_entry.h>
#include <cdata.h>
#include <dns_engine.h>
#include <dns_wire.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <packet.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace {

using testbed::add;
using testbed::Bytes;
using testbed::Cache;
using testbed::cache_of;
using testbed::dn;
using Data = testbed::Entry;
using testbed::entry_of;
using testbed::operator+;

constexpr dns_time kNow = 800'000'000;
constexpr uint64_t kMega = testbed::kMegabyte;
constexpr int32_t kWeek = 7 * 24 * 3600;

int put(dns_cache *cache, const std::string &name, dns_type typ, int32_t ttl, const std::vector<Bytes> &records,
        dns_time now = kNow, unsigned flags = 0, int rcode = DNS_R_NOERROR) {
  return testbed::put(cache, name, typ, ttl, records, now, flags, rcode);
}

struct Found {
  int result;
  Data entry;
  std::vector<Bytes> records;
  std::vector<int32_t> ttls;
};

Found get(dns_cache *cache, const std::string &name, dns_type typ, dns_time now = kNow, unsigned flags = 0) {
  Found found = {0, entry_of(name, typ), {}, {}};
  dns_cdata_setflags(found.entry.get(), flags);
  found.result = dns_cacher_get(dns_cache_cacher(cache), found.entry.get(), now);
  std::array<unsigned char, 1024> buffer;
  dns_rr rr = {};
  const auto next = [&] {
    rr.dnsrr_dptr = buffer.data();
    rr.dnsrr_dsz = buffer.size();
    return found.result > 0 && dns_cdata_nextrr(found.entry.get(), &rr) > 0;
  };
  while (next()) {
    EXPECT_NE(dns_dnequal(rr.dnsrr_dn, dn(name).data()), 0U);
    found.records.emplace_back(rr.dnsrr_dptr, rr.dnsrr_dend);
    found.ttls.push_back(rr.dnsrr_ttl);
  }
  return found;
}

uint32_t option(dns_cache *cache, int opt, uint32_t value) {
  EXPECT_EQ(dns_cacher_setopt(dns_cache_cacher(cache), opt, &value, sizeof value), 0);
  EXPECT_EQ(dns_cacher_getopt(dns_cache_cacher(cache), opt, &value, sizeof value), 0);
  return value;
}

size_t heap_in_use() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

TEST(Cache, EveryTypeComesBackAsItWentInUntilDeleted) {
  const Cache cache = cache_of(kMega);
  const std::vector<std::pair<dns_type, std::vector<Bytes>>> all = {
      {DNS_T_A, {{127, 0, 0, 2}, {127, 0, 0, 4}, {127, 0, 0, 10}}},
      {DNS_T_AAAA, {Bytes(16, 0xC0)}},
      {DNS_T_MX, {Bytes{0, 10} + dn("Mail.example.org"), Bytes{0, 20} + dn(".")}},
      {DNS_T_SRV, {Bytes{0, 1, 0, 2, 0, 53} + dn("srv.example.org")}},
      {DNS_T_NS, {dn("ns.example.net")}},
      {DNS_T_TXT,
       {{0}, Bytes{255} + Bytes(255, 'x') + Bytes{0}, Bytes{255} + Bytes(255, 'y') + Bytes{45} + Bytes(45, 'z')}},
      {65280, {{}, {1, 2, 3}}}};
  for (const auto &[typ, records] : all)
    ASSERT_EQ(put(cache.get(), "host.example.org", typ, 60, records), 0);
  for (const auto &[typ, records] : all) {
    const Found found = get(cache.get(), "HOST.Example.ORG", typ);
    EXPECT_GT(found.result, 0);
    EXPECT_EQ(found.records, records);
    EXPECT_EQ(dns_cdata_nrr(found.entry.get()), records.size());
    EXPECT_EQ(dns_cdata_numan(found.entry.get()), records.size());
    EXPECT_EQ(dns_cdata_nalias(found.entry.get()), 0U);
  }
  EXPECT_EQ(get(cache.get(), "host.example.org", DNS_T_PTR).result, 0);
  EXPECT_EQ(get(cache.get(), "ost.example.org", DNS_T_A).result, 0);
  const Data chaos = entry_of("host.example.org", DNS_T_A, 0, 3);
  EXPECT_EQ(dns_cacher_get(dns_cache_cacher(cache.get()), chaos.get(), kNow), 0);

  ASSERT_EQ(put(cache.get(), "host.example.ORG", DNS_T_A, 60, {{10, 0, 0, 1}}), 0);  // in the place of the older one
  EXPECT_EQ(get(cache.get(), "host.example.org", DNS_T_A).records, std::vector<Bytes>({{10, 0, 0, 1}}));
  const Data key = entry_of("host.EXAMPLE.org", DNS_T_A);
  EXPECT_EQ(dns_cacher_delete(dns_cache_cacher(cache.get()), key.get(), kNow), 1);
  EXPECT_EQ(dns_cacher_delete(dns_cache_cacher(cache.get()), key.get(), kNow), 0);
  EXPECT_EQ(get(cache.get(), "host.example.org", DNS_T_A).result, 0);
}

TEST(Cache, CompressedNamesAreWrittenWholeAndBadDataIsRefused) {
  std::array<unsigned char, 512> buffer;
  dns_pkt packet;
  int size = dns_initpacket(&packet, buffer.data(), buffer.size(), dn("example.org").data(), DNS_T_MX, DNS_C_IN);
  ASSERT_GT(size, 0);
  const Bytes mx = {0, 10, 4, 'm', 'a', 'i', 'l', 0xC0, DNS_HSIZE};
  unsigned char *at = buffer.data() + size;
  memcpy(at, mx.data(), mx.size());
  dns_parse source = {buffer.data(), at + mx.size(), at, DNS_S_AN, 0};

  const Data entry = entry_of("example.org", DNS_T_MX, 60);
  // The last holds a pointer from its second name to its first: meaningful in a packet, not in data alone.
  const std::vector<std::pair<dns_type, Bytes>> bad = {{DNS_T_MX, mx},
                                                       {DNS_T_A, {127, 0, 0}},
                                                       {DNS_T_MX, {0, 10}},
                                                       {DNS_T_TXT, {3, 'a'}},
                                                       {DNS_T_NS, dn("ns.example.org") + Bytes{1}},
                                                       {DNS_T_SOA, dn("a.b") + Bytes{0xC0, 0} + Bytes(20, 0)}};
  for (const auto &[typ, data] : bad)
    EXPECT_EQ(add(entry.get(), "example.org", typ, 60, data), DNS_E_PROTOCOL) << typ;
  EXPECT_EQ(add(entry.get(), "example.org", DNS_T_MX, 60, mx, &source), DNS_E_INVAL);  // the data is not in the packet
  EXPECT_EQ(dns_cdata_nrr(entry.get()), 0U);
  EXPECT_EQ(add(entry.get(), "example.org", DNS_T_MX, 60, mx, &source, at), 0);

  const Cache cache = cache_of(kMega);
  ASSERT_EQ(dns_cacher_put(dns_cache_cacher(cache.get()), entry.get(), kNow), 0);
  EXPECT_EQ(get(cache.get(), "example.org", DNS_T_MX).records.at(0), (Bytes{0, 10} + dn("mail.example.org")));

  dns_rr rr = {};  // a buffer that is too small does not consume the record
  rr.dnsrr_dptr = buffer.data();
  rr.dnsrr_dsz = 5;
  EXPECT_EQ(dns_cdata_nextrr(entry.get(), &rr), DNS_E_NOBUFS);
  rr.dnsrr_dsz = buffer.size();
  EXPECT_EQ(dns_cdata_nextrr(entry.get(), &rr), 1);
  EXPECT_EQ(dns_cdata_nextrr(entry.get(), &rr), 0);

  int added = 0;  // an entry never outgrows one message
  while (add(entry.get(), "example.org", DNS_T_TXT, 60, Bytes{255} + Bytes(255, 'x')) == 0)
    ++added;
  EXPECT_GT(added, 200);
  EXPECT_LT(added, 256);
}

TEST(Cache, TtlCountsDownAndExpiredEntriesComeOnRequest) {
  const Cache cache = cache_of(kMega);
  const Data entry = entry_of("a.example", DNS_T_A, 100);
  ASSERT_EQ(add(entry.get(), "a.example", DNS_T_A, 300, {127, 0, 0, 2}), 0);
  ASSERT_EQ(add(entry.get(), "a.example", DNS_T_A, 30, {127, 0, 0, 3}), 0);
  ASSERT_EQ(dns_cacher_put(dns_cache_cacher(cache.get()), entry.get(), kNow), 0);
  EXPECT_EQ(get(cache.get(), "a.example", DNS_T_A, kNow + 40).ttls, std::vector<int32_t>({260, 0}));
  EXPECT_EQ(dns_cdata_ttl(get(cache.get(), "a.example", DNS_T_A, kNow + 40).entry.get()), 60);
  EXPECT_EQ(dns_cdata_ttl(get(cache.get(), "a.example", DNS_T_A, kNow + 100).entry.get()), 0);
  EXPECT_GT(get(cache.get(), "a.example", DNS_T_A, kNow + 100).result, 0);
  EXPECT_EQ(get(cache.get(), "a.example", DNS_T_A, kNow + 101).result, 0);
  const auto expired = [&](unsigned flags) { return get(cache.get(), "a.example", DNS_T_A, kNow + 107, flags).ttls; };
  EXPECT_EQ(expired(DNS_CD_FORCE_EXPIRED), std::vector<int32_t>({-7, -7}));
  option(cache.get(), DNS_CROPT_FLAGS, DNS_CR_NCACHE | DNS_CR_EXPIRED);
  EXPECT_EQ(expired(0), std::vector<int32_t>({-7, -7}));
  // A clock that is set back does not keep an entry forever: it lives for its TTL from then.
  EXPECT_EQ(get(cache.get(), "a.example", DNS_T_A, kNow - kWeek).ttls.at(0), 300);
  EXPECT_LT(get(cache.get(), "a.example", DNS_T_A, kNow - kWeek + 101).ttls.at(0), 0);
  constexpr dns_time kThreeDays = 3 * 24 * 3600;
  const dns_time start = kNow - kWeek;  // as age_of has it
  EXPECT_GT(get(cache.get(), "a.example", DNS_T_A, start + 100 + kThreeDays).result, 0);
  EXPECT_EQ(get(cache.get(), "a.example", DNS_T_A, start + 101 + kThreeDays).result, 0);
  EXPECT_GT(get(cache.get(), "a.example", DNS_T_A, INT64_MAX, DNS_CD_FORCE_EXPIRED).result, 0);
}

TEST(Cache, TtlsStayBetweenTheMinimumAndAWeek) {
  const Cache cache = cache_of(kMega);
  const auto stored = [&](int32_t ttl) {
    EXPECT_EQ(put(cache.get(), "t.example", DNS_T_A, ttl, {{127, 0, 0, 2}}), 0);
    const Found found = get(cache.get(), "t.example", DNS_T_A);
    EXPECT_EQ(found.ttls.at(0), dns_cdata_ttl(found.entry.get()));
    return dns_cdata_ttl(found.entry.get());
  };
  EXPECT_EQ(stored(INT32_MAX), kWeek);
  EXPECT_EQ(stored(-5), 0);
  EXPECT_EQ(option(cache.get(), DNS_CROPT_MINTTL, 60), 60U);
  EXPECT_EQ(stored(5), 60);
  EXPECT_EQ(stored(61), 61);
  uint32_t value = UINT32_MAX;
  dns_cacher *cacher = dns_cache_cacher(cache.get());
  EXPECT_EQ(dns_cacher_setopt(cacher, DNS_CROPT_MINTTL, &value, sizeof value), DNS_E_INVAL);
  EXPECT_EQ(dns_cacher_setopt(cacher, DNS_CROPT_FLAGS, &value, sizeof value), DNS_E_INVAL);
  EXPECT_EQ(dns_cacher_setopt(cacher, 3, &value, sizeof value), DNS_E_INVAL);
  EXPECT_EQ(dns_cacher_getopt(cacher, DNS_CROPT_FLAGS, &value, 1), DNS_E_INVAL);
  EXPECT_EQ(dns_cacher_getopt(cacher, DNS_CROPT_MINTTL, nullptr, sizeof value), DNS_E_INVAL);
}

TEST(Cache, NegativeAnswersAreKeptByTheirOwnRules) {
  const Cache cache = cache_of(kMega);
  const auto after = [&](unsigned flags, int rcode) {
    EXPECT_EQ(put(cache.get(), "gone.example", DNS_T_A, 60, {{127, 0, 0, 2}}), 0);
    EXPECT_EQ(put(cache.get(), "gone.example", DNS_T_A, 30, {}, kNow, flags, rcode), 0);
    const Found found = get(cache.get(), "gone.example", DNS_T_A);
    if (found.result == 0) return -1;
    EXPECT_EQ(dns_cdata_rcode(found.entry.get()), rcode);
    EXPECT_EQ(dns_cdata_nrr(found.entry.get()), 0U);
    EXPECT_EQ(dns_cdata_numan(found.entry.get()), 1U);
    return dns_cdata_ttl(found.entry.get());
  };
  EXPECT_EQ(after(0, DNS_R_NXDOMAIN), 30);
  EXPECT_EQ(after(0, DNS_R_NOERROR), 30);
  EXPECT_EQ(after(dns::kNoSoa, DNS_R_NXDOMAIN), -1);  // not kept, and it removes the answer that it contradicts
  option(cache.get(), DNS_CROPT_DEFTTL, 7);
  EXPECT_EQ(after(dns::kNoSoa, DNS_R_NXDOMAIN), 7);
  EXPECT_EQ(after(0, DNS_R_NXDOMAIN), 30);
  option(cache.get(), DNS_CROPT_FLAGS, 0);
  EXPECT_EQ(after(0, DNS_R_NXDOMAIN), -1);
  EXPECT_EQ(after(dns::kNoSoa, DNS_R_NOERROR), -1);
}

TEST(Cache, AnAnswerPacketKeepsItsCnameChainAndNothingElse) {
  std::array<unsigned char, 1024> buffer;
  const Data source = entry_of("www.example", DNS_T_A);  // only carries the records into the packet, out of order
  ASSERT_EQ(add(source.get(), "host.example", DNS_T_A, 200, {127, 0, 0, 2}), 0);
  ASSERT_EQ(add(source.get(), "stray.example", DNS_T_A, 5, {127, 0, 0, 9}), 0);
  ASSERT_EQ(add(source.get(), "cdn.example", DNS_T_CNAME, 150, dn("host.example")), 0);
  ASSERT_EQ(add(source.get(), "host.example", DNS_T_MX, 5, Bytes{0, 1} + dn("host.example")), 0);
  ASSERT_EQ(add(source.get(), "WWW.example", DNS_T_CNAME, 100, dn("CDN.example")), 0);
  const int size = dns::cdata_to_packet(source.get(), buffer.data(), buffer.size());
  ASSERT_GT(size, 0);
  const size_t answers = DNS_HSIZE + dn("www.example").size() + 4;
  const std::span<const uint8_t> whole(buffer.data(), static_cast<size_t>(size));
  const Data entry = entry_of("www.example", DNS_T_A);
  EXPECT_EQ(dns::cdata_from_answer(entry.get(), whole, answers, 1, DNS_R_NOERROR, 100), DNS_E_CNLOOP);
  EXPECT_EQ(dns::cdata_from_answer(entry.get(), whole.first(whole.size() - 1), answers, 16, 0, 100), DNS_E_PROTOCOL);
  EXPECT_EQ(dns_cdata_nrr(entry.get()), 0U);
  ASSERT_EQ(dns::cdata_from_answer(entry.get(), whole, answers, 16, DNS_R_NOERROR, 100), DNS_E_NOERROR);
  EXPECT_EQ(dns_cdata_nrr(entry.get()), 3U);
  EXPECT_EQ(dns_cdata_nalias(entry.get()), 2U);

  const Cache cache = cache_of(kMega);
  ASSERT_EQ(dns_cacher_put(dns_cache_cacher(cache.get()), entry.get(), kNow), 0);
  ASSERT_GT(dns_cacher_get(dns_cache_cacher(cache.get()), entry.get(), kNow + 40), 0);
  const int rebuilt = dns::cdata_to_packet(entry.get(), buffer.data(), buffer.size());
  ASSERT_GT(rebuilt, 0);
  std::array<unsigned char, 1024> small;
  EXPECT_EQ(dns::cdata_to_packet(entry.get(), small.data(), static_cast<size_t>(rebuilt) - 1), DNS_E_NOBUFS);
  dns_parse parse;
  ASSERT_EQ(dns_initparse(&parse, buffer.data(), buffer.data() + rebuilt, nullptr), 0);
  ASSERT_EQ(dns_rewind_sec(&parse, DNS_S_AN), 0);
  std::vector<int32_t> ttls;
  for (dns_rr rr = {}; dns_nextrr(&parse, &rr) > 0;)
    ttls.push_back(rr.dnsrr_ttl);
  EXPECT_EQ(ttls, std::vector<int32_t>({60, 110, 160}));
}

std::string numbered(unsigned i) {
  return "host-" + std::to_string(i) + ".example.org";
}

unsigned present(dns_cache *cache, unsigned count) {
  unsigned found = 0;
  for (unsigned i = 0; i < count; ++i)
    found += get(cache, numbered(i), DNS_T_A).result > 0 ? 1 : 0;
  return found;
}

TEST(Cache, BytesAreBoundedAndTheLeastRecentlyUsedGiveWay) {
  constexpr uint64_t kSize = 64 * 1024;
  constexpr unsigned kEntries = 3000;
  const size_t before = heap_in_use();
  const Cache cache = cache_of(kSize);
  for (unsigned i = 0; i < kEntries; ++i) {
    ASSERT_EQ(put(cache.get(), numbered(i), DNS_T_A, 60, {{127, 0, 0, 2}}), 0);
    ASSERT_GT(get(cache.get(), numbered(0), DNS_T_A).result, 0);  // used all the time, hence kept
  }
  EXPECT_LE(heap_in_use(), before + kSize + 8 * 1024);
  EXPECT_GT(get(cache.get(), numbered(kEntries - 100), DNS_T_A).result, 0);
  EXPECT_EQ(get(cache.get(), numbered(1), DNS_T_A).result, 0);
  const unsigned kept = present(cache.get(), kEntries);
  EXPECT_GT(kept, 300U);
  // An entry larger than the whole cache costs no other, nor the older one of its name.
  const std::vector<Bytes> large(242, Bytes{255} + Bytes(255, 'x'));
  EXPECT_EQ(put(cache.get(), numbered(0), DNS_T_TXT, 60, {{1, 'a'}}), 0);
  const unsigned left = present(cache.get(), kEntries);
  EXPECT_EQ(put(cache.get(), numbered(0), DNS_T_TXT, 60, large), DNS_E_NOBUFS);
  EXPECT_EQ(present(cache.get(), kEntries), left);
  EXPECT_EQ(get(cache.get(), numbered(0), DNS_T_TXT).records, std::vector<Bytes>({{1, 'a'}}));
  // A large entry that fits replaces many others, and its lookup has to grow the buffer.
  const std::vector<Bytes> half(large.begin(), large.begin() + 120);
  EXPECT_EQ(put(cache.get(), numbered(0), DNS_T_TXT, 60, half), 0);
  EXPECT_LT(present(cache.get(), kEntries), left);
  EXPECT_EQ(get(cache.get(), numbered(0), DNS_T_TXT).records, half);
}

// A lookup would count as a use, so each number of further entries gets a cache of its own until one entry gives way.
TEST(Cache, ExpiredEntriesGiveWayFirst) {
  bool live = true;
  bool dead = true;
  for (unsigned others = 0; others < 100 && live && dead; ++others) {
    const Cache cache = cache_of(2000);
    ASSERT_EQ(put(cache.get(), "live.example", DNS_T_A, 600, {{127, 0, 0, 2}}), 0);
    ASSERT_EQ(put(cache.get(), "dead.example", DNS_T_A, 1, {{127, 0, 0, 2}}), 0);
    for (unsigned i = 0; i < others; ++i) {
      ASSERT_EQ(put(cache.get(), numbered(i), DNS_T_A, 600, {{127, 0, 0, 2}}, kNow + 60), 0);
    }
    live = get(cache.get(), "live.example", DNS_T_A).result > 0;
    dead = get(cache.get(), "dead.example", DNS_T_A, kNow, DNS_CD_FORCE_EXPIRED).result > 0;
  }
  EXPECT_TRUE(live);
  EXPECT_FALSE(dead);
}

TEST(Cache, AnySizeWorksAndTakesOnlyWhatIsUsed) {
  const Cache none = cache_of(0);
  EXPECT_EQ(put(none.get(), numbered(0), DNS_T_A, 60, {{127, 0, 0, 2}}), DNS_E_NOBUFS);
  const size_t before = heap_in_use();
  const Cache largest = cache_of(UINT64_MAX);
  EXPECT_LE(heap_in_use(), before + 32 * 1024);
  for (unsigned i = 0; i < 20000; ++i)
    ASSERT_EQ(put(largest.get(), numbered(i), DNS_T_A, 60, {{127, 0, 0, 2}}), 0);
  EXPECT_EQ(present(largest.get(), 20000), 20000U);
  dns_cdata *nameless = dns_cdata_init(0);
  EXPECT_EQ(dns_cacher_put(dns_cache_cacher(largest.get()), nameless, kNow), DNS_E_INVAL);
  EXPECT_EQ(dns_cacher_get(nullptr, nameless, kNow), DNS_E_INVAL);
  dns_cdata_free(nameless);
}

}  // namespace
