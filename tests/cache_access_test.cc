// cache_access_test.cc - a host's access to an answer cache, from outside: put, get, delete, has, from one thread and
// from many, while a context runs.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <host_test.h>
#include <kavo.h>
#include <stored_records.h>

#include <array>
#include <atomic>
#include <ctime>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::string_literals;
using namespace testbed;

class CacheTest : public HostTest {
 protected:
  ~CacheTest() override {
    kavo_rr_free(&found.rr);
    dns_cache_destroy(cache_);
  }
  KAVO_ERR put(KAVO_TYPE type, const std::string &query, KAVO_RR *rr) {
    return kavo_cache_put(cacher, type, query.c_str(), static_cast<int>(query.size()), rr);
  }
  KAVO_ERR get(KAVO_TYPE type, const std::string &query, int expired = 0) {
    return kavo_cache_get(cacher, type, query.c_str(), static_cast<int>(query.size()), &found, expired);
  }
  KAVO_ERR has(KAVO_TYPE type, const std::string &query) {
    return kavo_cache_has(cacher, type, query.c_str(), static_cast<int>(query.size()));
  }
  KAVO_ERR del(KAVO_TYPE type, const std::string &query) {
    return kavo_cache_del(cacher, type, query.c_str(), static_cast<int>(query.size()));
  }
  static dns_time now() {
    constexpr dns_time kEpoch2000 = 946'684'800;
    return time(nullptr) - kEpoch2000;
  }
  using Data = std::unique_ptr<dns_cdata, decltype(&dns_cdata_free)>;
  static Data entry(const std::string &query, dns_type typ) {
    Data data(dns_cdata_init(256), dns_cdata_free);
    std::array<unsigned char, DNS_MAXDN> dn;
    EXPECT_GT(kavo_dns_ptodn(query.c_str(), 0, dn.data(), DNS_MAXDN), 0);
    EXPECT_EQ(dns_cdata_setdn(data.get(), dn.data()), 0);
    EXPECT_EQ(dns_cdata_settyp(data.get(), typ), 0);
    return data;
  }
  // expire makes an entry of the cache older.
  void expire(const std::string &query, dns_type typ, int32_t age) {
    const Data old = entry(query, typ);
    ASSERT_GT(cacher->dnscr_ops->get(cacher, old.get(), now()), 0);
    ASSERT_EQ(cacher->dnscr_ops->put(cacher, old.get(), now() - age), 0);
  }
  // put_record puts an entry of so many equal records.
  void put_record(const std::string &query, dns_type asked, int rcode, dns_type typ, std::string bytes, int count = 1) {
    const Data data = entry(query, asked);
    dns_rr rr = {};
    unsigned size = sizeof rr.dnsrr_dn;
    EXPECT_EQ(dns_cdata_dn(data.get(), rr.dnsrr_dn, &size), 0);
    rr.dnsrr_cls = DNS_C_IN;
    rr.dnsrr_typ = typ;
    rr.dnsrr_ttl = 60;
    rr.dnsrr_dsz = static_cast<unsigned>(bytes.size());
    rr.dnsrr_dptr = reinterpret_cast<unsigned char *>(bytes.data());
    rr.dnsrr_dend = rr.dnsrr_dptr + bytes.size();
    dns_cdata_setttl(data.get(), 60);
    dns_cdata_setrcode(data.get(), rcode);
    for (; count > 0; --count)
      ASSERT_EQ(dns_cdata_addrr(data.get(), &rr, nullptr), 0);
    ASSERT_EQ(cacher->dnscr_ops->put(cacher, data.get(), now()), 0);
  }
  // data returns the first record's data as the cache holds it.
  std::string data(const std::string &query, dns_type typ) {
    const Data raw = entry(query, typ);
    std::array<unsigned char, 1024> buffer;
    dns_rr rr = {};
    rr.dnsrr_dptr = buffer.data();
    rr.dnsrr_dsz = buffer.size();
    if (cacher->dnscr_ops->get(cacher, raw.get(), now()) <= 0 || dns_cdata_nextrr(raw.get(), &rr) <= 0) return "none";
    return {rr.dnsrr_dptr, rr.dnsrr_dend};
  }

  dns_cache *cache_ = dns_cache_init(1 << 20);
  KAVO_CACHE cacher = dns_cache_cacher(cache_);
  KAVO_ANSWER found = {};
};

TEST_F(CacheTest, EveryTypeIsPutFetchedAndDeleted) {
  for (const Stored &record : every_layout()) {
    SCOPED_TRACE(record.type);
    Rr rr = read(record.type, record.bytes);
    if (record.type == KAVOT_PKT) {
      EXPECT_EQ(put(record.type, "pkt.example", rr), KAVOE_BADPAR);
      continue;
    }
    const std::string query = "t" + std::to_string(record.type) + ".Example";
    const std::string other = "T" + std::to_string(record.type) + ".eXAMPLE";
    ASSERT_EQ(put(record.type, query, rr), KAVOE_OK);
    EXPECT_EQ(has(record.type, other), KAVOE_OK);
    ASSERT_EQ(get(record.type, other), KAVOE_OK);
    const bool empty = record.shows.empty();
    EXPECT_EQ(render(found), empty ? "NODATA" : record.shows);
    EXPECT_EQ(found.type, record.type);
    EXPECT_EQ(found.cache_code, KAVOCC_EXISTS);
    EXPECT_EQ(found.rr.rr_null->dnsn_nrr == 0, empty);
    EXPECT_EQ(found.actual_size, kavo_rr_get_size(&found.rr));
    EXPECT_EQ(found.rr.rr_null->dnsn_qname, other);
    EXPECT_NEAR(found.rr.rr_null->dnsn_ttl, empty ? 0 : kTtl, 5);
    EXPECT_EQ(del(record.type, other), KAVOE_OK);
    EXPECT_EQ(del(record.type, other), KAVOE_OK);
    EXPECT_EQ(has(record.type, query), KAVOE_NODATA);
    EXPECT_EQ(get(record.type, query), KAVOE_NODATA);
  }
}

// A dump carries the context's own caches to another context; the host saves its caches itself.
TEST_F(CacheTest, OwnCachesAreSavedAndReplacedOnesGone) {
  using Names = std::vector<std::string>;
  constexpr int kBytes = 1 << 16;
  const TempDir directory;
  Host host(4, kBytes), shared(4, kBytes);
  Rr rr = read(KAVOT_DNS_A, every_layout()[0].bytes);
  const auto put_into = [&](KAVO_CACHE into, const std::string &name) {
    EXPECT_EQ(kavo_cache_put(into, KAVOT_DNS_A, name.c_str(), static_cast<int>(name.size()), rr), KAVOE_OK);
  };
  const auto cache_for = [](const Host &of, KAVO_CACHE_TYPE use) { return kavo_get_ext_cache(of, use); };
  const auto saved = [&](const Host &of) {
    const std::string file = directory.file("dump");
    Host later(4, kBytes);
    EXPECT_EQ(kavo_cachesave(of, file.c_str()), KAVOE_OK);
    EXPECT_EQ(kavo_cacheload(later, file.c_str()), KAVOE_OK);
    Names names;
    for (const std::string name : {"one", "two", "three", "host"})
      if (kavo_cache_has(cache_for(later, KAVOCT_ANS), KAVOT_DNS_A, name.c_str(), static_cast<int>(name.size())) ==
          KAVOE_OK)
        names.push_back(name);
    return names;
  };
  const size_t descriptors = open_descriptors();
  put_into(cacher, "host");
  put_into(cache_for(host, KAVOCT_ANS), "one");
  host.option(KAVOOPT_DNSREC_CACHESIZE, 0);
  EXPECT_EQ(cache_for(host, KAVOCT_REF), cache_for(host, KAVOCT_ANS)) << "one cache for both uses";
  host.option(KAVOOPT_DNSREC_CACHESIZE, kBytes);
  put_into(cache_for(host, KAVOCT_REF), "two");
  EXPECT_EQ(kavo_cache_has(cache_for(host, KAVOCT_ANS), KAVOT_DNS_A, "two", 3), KAVOE_NODATA);
  EXPECT_EQ(saved(host), (Names{"one", "two"}));
  host.option(KAVOOPT_DNSREC_CACHESIZE, kBytes);
  put_into(cache_for(host, KAVOCT_REF), "three");
  EXPECT_EQ(saved(host), (Names{"one", "three"}));
  ASSERT_EQ(kavo_set_ext_cache(host, KAVOCT_ANS, cacher), KAVOE_OK);
  EXPECT_EQ(cache_for(host, KAVOCT_ANS), cacher);
  EXPECT_EQ(saved(host), Names{"three"});
  ASSERT_EQ(kavo_set_ext_cache(host, KAVOCT_REF, cacher), KAVOE_OK);
  EXPECT_EQ(cache_for(host, KAVOCT_REF), cacher);
  EXPECT_EQ(saved(host), Names{});
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_EQ(kavo_cachesave(host, "/dev/full"), KAVOE_FILE);

  put_into(cache_for(shared, KAVOCT_ANS), "one");
  ASSERT_EQ(kavo_set_ext_cache(shared, KAVOCT_ANS, nullptr), KAVOE_OK);
  EXPECT_EQ(saved(shared), Names{"one"}) << "it still serves referrals";
  EXPECT_EQ(kavo_cachesave(shared, "/dev/full"), KAVOE_FILE);
  ASSERT_EQ(kavo_set_ext_cache(shared, KAVOCT_REF, nullptr), KAVOE_OK);
  EXPECT_EQ(saved(shared), Names{});
}

TEST_F(CacheTest, TheCacheHoldsRecordsAsAPacketDoes) {
  for (const size_t length : {0, 1, 255, 300}) {
    const std::string value(length, 'x');
    Rr rr = read(KAVOT_DNS_TXT, u32(500) + u32(1) + u32(kTtl) + text(value) + name("c") + name("q"));
    ASSERT_EQ(put(KAVOT_BL_IP_TXT, "txt.example", rr), KAVOE_OK);
    const size_t cut = length < 255 ? 0 : 255;
    const std::string last = static_cast<char>(length - cut) + value.substr(cut);
    EXPECT_EQ(data("txt.example", DNS_T_TXT), (cut == 0 ? "" : "\xff" + value.substr(0, 255)) + last);
    for (const KAVO_TYPE type : {KAVOT_DNS_TXT, KAVOT_BL_DOM_TXT, KAVOT_DNS_ETXT}) {
      ASSERT_EQ(get(type, "txt.example"), KAVOE_OK) << "types of one DNS type share entries";
      EXPECT_EQ(render(found), value);
    }
  }
  const auto all = every_layout();
  Rr mx = read(KAVOT_DNS_MX, all[1].bytes);
  ASSERT_EQ(put(KAVOT_BL_MX, "192.0.2.1", mx), KAVOE_OK);
  EXPECT_EQ(data("192.0.2.1", DNS_T_MX), "\0\x0a\1m\7example\0"s) << "and the address is not reversed";
  Rr srv = read(KAVOT_DNS_SRV,
                u32(99) + u32(1) + u32(kTtl) + u32(0x10001) + u32(2) + u32(53) + name("s") + name("c") + name("q"));
  ASSERT_EQ(put(KAVOT_DNS_SRV, "s.example", srv), KAVOE_OK);
  EXPECT_EQ(data("s.example", DNS_T_SRV), "\0\1\0\2\0\x35\1s\0"s);
  Rr bad = read(KAVOT_DNS_PTR, u32(99) + u32(1) + u32(kTtl) + name("a..b") + name("c") + name("q"));
  EXPECT_EQ(put(KAVOT_DNS_PTR, "bad.example", bad), KAVOE_FAIL);
  // 80 addresses make no block of 1024 bytes.
  put_record("many.example", DNS_T_AAAA, DNS_R_NOERROR, DNS_T_AAAA, std::string(16, 'x'), 300);
  EXPECT_EQ(get(KAVOT_DNS_AAAA, "many.example"), KAVOE_FAIL);
  EXPECT_EQ(has(KAVOT_DNS_AAAA, "many.example"), KAVOE_OK);
}

TEST_F(CacheTest, ExpiredAndNegativeEntriesSaySo) {
  constexpr int32_t kAge = 1000;
  Rr rr = read(KAVOT_DNS_A, every_layout()[0].bytes);
  ASSERT_EQ(put(KAVOT_DNS_A, "old.example", rr), KAVOE_OK);
  expire("old.example", DNS_T_A, kAge);
  EXPECT_EQ(has(KAVOT_DNS_A, "old.example"), KAVOE_NODATA);
  found.err_code = KAVOE_THR;
  EXPECT_EQ(get(KAVOT_DNS_A, "old.example"), KAVOE_NODATA);
  EXPECT_EQ(found.err_code, KAVOE_THR) << "nothing found, nothing touched";
  ASSERT_EQ(get(KAVOT_BL_IP, "old.example", 1), KAVOE_OK);
  EXPECT_EQ(found.cache_code, KAVOCC_OLD);
  EXPECT_NEAR(found.rr.rr_null->dnsn_ttl, static_cast<int32_t>(kTtl) - kAge, 5);
  EXPECT_EQ(render(found), "127.0.0.2,192.0.2.1");

  const Data negative = entry("nx.example", DNS_T_A);
  dns_cdata_setttl(negative.get(), 60);
  dns_cdata_setrcode(negative.get(), 3);
  ASSERT_EQ(cacher->dnscr_ops->put(cacher, negative.get(), now()), 0);
  ASSERT_EQ(get(KAVOT_BL_DOM, "nx.example"), KAVOE_OK);
  EXPECT_EQ(render(found), "NXDOM");
  dns_cdata_setrcode(negative.get(), 2);
  ASSERT_EQ(cacher->dnscr_ops->put(cacher, negative.get(), now()), 0);
  EXPECT_EQ(get(KAVOT_BL_DOM, "nx.example"), KAVOE_FAIL) << "no answer at all";
}

TEST_F(CacheTest, EarlyAnswersFollowTheZonesOwnInTheirOrder) {
  constexpr int kZones = 5, kRounds = 4;
  std::string zones;
  for (int z = 0; z < kZones; ++z)
    zones += "zone z" + std::to_string(z) + ".list\nlist 192.0.2.0/24 127.0.0." + std::to_string(z) + "\n";
  ListServer server(zones);
  Host host(2, 1 << 20);
  host.server(server.port()).option(KAVOOPT_CH_REXPRD, 1);
  for (int z = 0; z < kZones; ++z)
    host.zone(KAVOT_BL_IP, ("z" + std::to_string(z) + ".list").c_str());
  host.open();
  cacher = kavo_get_ext_cache(host, KAVOCT_ANS);
  Rr rr = read(KAVOT_DNS_A, stored(KAVOT_DNS_A, 8, 1, "\x7f\x09\0\0"s, "").bytes);
  const auto put_expired = [&](const std::string &subject, int z) {
    const std::string query = subject + ".2.0.192.z" + std::to_string(z) + ".list";
    rr.rr.rr_a->dnsa4_addr[0].s_addr = htonl(0x7f090000 + static_cast<uint32_t>(z));
    ASSERT_EQ(put(KAVOT_DNS_A, query, rr), KAVOE_OK);
    expire(query, DNS_T_A, 1000);
  };
  Texts expected;
  for (const char *net : {"127.0.0.", "127.9.0."})
    for (int z = 0; z < kZones; ++z)
      expected.push_back(net + std::to_string(z));
  // The nodes are reused, and their arguments pass from one to the other.
  for (int round = 0; round < kRounds; ++round) {
    for (const char *subject : {"1", "2"})
      for (int z = 0; z < kZones; ++z)
        put_expired(subject, z);
    Node one(host, KAVOT_BL_IP, "192.0.2.1"), two(host, KAVOT_BL_IP, "192.0.2.2");
    for (const Node *node : {&two, &one}) {
      ASSERT_EQ(node->wait(KAVOWT_FULL), KAVOE_OK);
      EXPECT_EQ(in_place(host, *node), expected) << round;
    }
  }
}

TEST_F(CacheTest, KeysHaveLimits) {
  Rr rr = read(KAVOT_DNS_A, every_layout()[0].bytes);
  const std::string longest =
      std::string(63, 'a') + "." + std::string(63, 'b') + "." + std::string(63, 'c') + "." + std::string(61, 'd');
  EXPECT_EQ(put(KAVOT_DNS_A, longest, rr), KAVOE_OK);
  EXPECT_EQ(get(KAVOT_DNS_A, longest), KAVOE_OK);
  EXPECT_EQ(put(KAVOT_DNS_A, longest + "d", rr), KAVOE_FAIL);
  EXPECT_EQ(kavo_cache_has(cacher, KAVOT_DNS_A, "old.example, and more", 11), KAVOE_NODATA) << "the length counts";
  for (const std::string &bad : {""s, "a..b"s, std::string(256, 'a')}) {
    EXPECT_EQ(put(KAVOT_DNS_A, bad, rr), KAVOE_FAIL);
    EXPECT_EQ(get(KAVOT_DNS_A, bad), KAVOE_FAIL);
    EXPECT_EQ(has(KAVOT_DNS_A, bad), KAVOE_FAIL);
    EXPECT_EQ(del(KAVOT_DNS_A, bad), KAVOE_FAIL);
  }
  // An escape of four bytes is one byte of the name: the text may be longer than the name.
  std::string escaped;
  for (int i = 0; i < 63; ++i)
    escaped += "\\097";
  for (const std::string &good : {"."s, "a"s, escaped + ".bc"}) {
    EXPECT_EQ(put(KAVOT_DNS_A, good, rr), KAVOE_OK) << good;
    EXPECT_EQ(has(KAVOT_DNS_A, good), KAVOE_OK) << good;
    EXPECT_EQ(del(KAVOT_DNS_A, good), KAVOE_OK) << good;
  }
  EXPECT_EQ(has(KAVOT_DNS_A, escaped + ".bcd"), KAVOE_FAIL) << "256 bytes";
  expect_all(KAVOE_FAIL,
             {kavo_cache_has(cacher, KAVOT_DNS_A, "a", 0), kavo_cache_get(cacher, KAVOT_DNS_A, nullptr, 3, &found, 0)});
  expect_all(KAVOE_BADPAR,
             {kavo_cache_put(cacher, KAVOT_DNS_A, nullptr, 3, rr), kavo_cache_put(nullptr, KAVOT_DNS_A, "a", 1, rr),
              kavo_cache_get(cacher, KAVOT_DNS_A, "a", 1, nullptr, 0),
              kavo_cache_get(nullptr, KAVOT_DNS_A, "a", 1, &found, 0), kavo_cache_has(nullptr, KAVOT_DNS_A, "a", 1),
              kavo_cache_del(nullptr, KAVOT_DNS_A, "a", 1), put(KAVOT_SYNC, "a.example", rr),
              put(KAVOT_DNS_MAX, "a.example", rr), has(KAVOT_PKT, "a.example"), put(KAVOT_DNS_SOA, "a.example", rr)});
  EXPECT_EQ(has(static_cast<KAVO_TYPE>(UINT16_MAX), "a"), KAVOE_NODATA) << "the last type that a record may have";
  rr.rr.rr_null->dnsn_nrr = 0;
  EXPECT_EQ(put(KAVOT_DNS_SOA, "a.example", rr), KAVOE_OK);
  EXPECT_EQ(has(KAVOT_DNS_SOA, "a.example"), KAVOE_OK);
  EXPECT_EQ(get(KAVOT_DNS_SOA, "a.example"), KAVOE_FAIL) << "nothing parses it";
}

TEST_F(CacheTest, BlocksAndEntriesThatContradictThemselvesAreRefused) {
  const auto put_mx = [this](const std::string &host) {
    Rr mx = read(KAVOT_DNS_MX, u32(99) + u32(1) + u32(kTtl) + u32(0) + name(host) + name("c") + name("q"));
    return put(KAVOT_DNS_MX, "mx.example", mx);
  };
  EXPECT_EQ(put_mx(""), KAVOE_FAIL);
  EXPECT_EQ(put_mx("."), KAVOE_OK) << "no mail is taken here";
  ASSERT_EQ(get(KAVOT_DNS_MX, "mx.example"), KAVOE_OK);
  EXPECT_EQ(render(found), "0 .");

  // A host may lay out blocks itself, also larger ones than the library's.
  std::string text(70'000, 'x');
  dns_txt text_entry = {.len = 70'000, .txt = text.data()};
  dns_rr_txt block = {};
  block.dnstxt_nrr = 1;
  block.dnstxt_txt = &text_entry;
  KAVO_RR rr = {};
  rr.rr_txt = &block;
  for (const int length : {70'000, -1, 65'535}) {
    text_entry.len = length;
    EXPECT_EQ(put(KAVOT_DNS_TXT, "txt.example", &rr), KAVOE_FAIL) << length;
  }
  text_entry = {};
  EXPECT_EQ(put(KAVOT_DNS_TXT, "txt.example", &rr), KAVOE_OK) << "an empty text need not be anywhere";
  text_entry.len = 1;
  EXPECT_EQ(put(KAVOT_DNS_TXT, "txt.example", &rr), KAVOE_FAIL);
  block.dnstxt_txt = nullptr;
  EXPECT_EQ(put(KAVOT_DNS_TXT, "txt.example", &rr), KAVOE_BADPAR);

  // A CNAME without its target's records is NODATA; a name that does not exist has no records.
  for (const int rcode : {DNS_R_NOERROR, DNS_R_NXDOMAIN}) {
    put_record("cname.example", DNS_T_A, rcode, DNS_T_CNAME, "\1t\0"s);
    found.zone = 7;
    found.query_time = 7;
    ASSERT_EQ(get(KAVOT_DNS_A, "cname.example"), KAVOE_OK);
    EXPECT_EQ(render(found), rcode == DNS_R_NOERROR ? "NODATA" : "NXDOM");
    EXPECT_TRUE(found.zone == 0 && found.query_time == 0) << "it belongs to no list and was not asked for";
  }

  // Two caches of the host: one says NXDOMAIN of every name that another cache has, the other one fails.
  put_record("cname.example", DNS_T_TXT, DNS_R_NOERROR, DNS_T_TXT, "\1t");
  static KAVO_CACHE true_cache;
  true_cache = cacher;
  const auto get_nonsense = [](dns_cacher *, dns_cdata *into, dns_time at) {
    EXPECT_EQ(true_cache->dnscr_ops->get(true_cache, into, at) > 0 ? dns_cdata_setrcode(into, DNS_R_NXDOMAIN) : -1, 0);
    return 1;
  };
  const dns_cacher_ops nonsense_ops = {get_nonsense, nullptr, nullptr, nullptr, nullptr};
  dns_cacher nonsense = {&nonsense_ops};
  cacher = &nonsense;
  EXPECT_EQ(has(KAVOT_DNS_TXT, "cname.example"), KAVOE_OK);
  EXPECT_EQ(get(KAVOT_DNS_TXT, "cname.example"), KAVOE_FAIL);
  const auto get_fails = [](dns_cacher *, dns_cdata *, dns_time) { return int{DNS_E_FAIL}; };
  const auto fails = [](dns_cacher *, const dns_cdata *, dns_time) { return int{DNS_E_FAIL}; };
  const dns_cacher_ops ops = {get_fails, fails, fails, nullptr, nullptr};
  dns_cacher failing = {&ops};
  cacher = &failing;
  Rr a = read(KAVOT_DNS_A, every_layout()[0].bytes);
  for (const KAVO_ERR error :
       {put(KAVOT_DNS_A, "a", a), get(KAVOT_DNS_A, "a"), has(KAVOT_DNS_A, "a"), del(KAVOT_DNS_A, "a")})
    EXPECT_EQ(error, KAVOE_FAIL);
}

// ---- threads

constexpr unsigned kThreads = 8;
constexpr unsigned kKeys = 128;
constexpr unsigned kQuestions = 50'000;

// Key k is the name for 10.k.0.1, which the server answers with 127.0.0.k; threads put 127.9.0.k.
std::string key(unsigned k) {
  return "1.0." + std::to_string(k) + ".10.list.example";
}
bool right(const KAVO_ANSWER &answer, unsigned k) {
  const std::string text = render(answer);
  return text == "127.0.0." + std::to_string(k) || text == "127.9.0." + std::to_string(k);
}

void use_cache(KAVO_CACHE cacher, unsigned seed, const std::atomic<bool> *over, std::atomic<unsigned> *wrong) {
  std::mt19937 chance(seed);
  KAVO_ANSWER found = {};
  Rr rr = read(KAVOT_DNS_A, stored(KAVOT_DNS_A, 8, 1, "\x7f\x09\0\0"s, "").bytes);
  while (!*over) {
    const unsigned k = chance() % kKeys;
    const std::string query = key(k);
    const int size = static_cast<int>(query.size());
    KAVO_ERR error = KAVOE_OK;
    switch (chance() % 4) {
      case 0:
        rr.rr.rr_a->dnsa4_addr[0].s_addr = htonl(0x7f090000 + k);
        error = kavo_cache_put(cacher, KAVOT_DNS_A, query.c_str(), size, rr);
        break;
      case 1:
        error = kavo_cache_del(cacher, KAVOT_DNS_A, query.c_str(), size);
        break;
      default:
        error = kavo_cache_get(cacher, KAVOT_BL_IP, query.c_str(), size, &found, 1);
        if (error == KAVOE_OK && !right(found, k)) ++*wrong;
        if (error == KAVOE_NODATA) error = KAVOE_OK;
    }
    if (error != KAVOE_OK) ++*wrong;
  }
  kavo_rr_free(&found.rr);
}

// ask_all asks about every key at once. Returns how many answers came from the cache; counts in `wrong`.
unsigned ask_all(KAVO kavo, Answers *answers, std::atomic<unsigned> *wrong) {
  std::array<KAVO_QUERY_NODE, kKeys> nodes{};
  for (unsigned k = 0; k < kKeys; ++k) {
    const in_addr subject{htonl(0x0a000001 + (k << 16))};
    EXPECT_EQ(kavo_subscribe_node(kavo, KAVOT_BL_IP, &subject, sizeof subject, 0, nullptr, &nodes[k]), KAVOE_OK);
  }
  EXPECT_EQ(kavo_wait_multiple_nodes(kavo, nodes.data(), kKeys, KAVOWT_FULL, 1, Deadline(kLongMs), nullptr), KAVOE_OK);
  unsigned cached = 0;
  for (unsigned k = 0; k < kKeys; ++k) {
    const bool copied = answers->copy(kavo, nodes[k]) == KAVOE_OK && answers->size() == 1;
    if (!copied || !right((*answers)[0], k)) ++*wrong;
    if (copied && (*answers)[0].cache_code == KAVOCC_EXISTS) ++cached;
    EXPECT_EQ(kavo_unsubscribe_node(kavo, nodes[k]), KAVOE_OK);
  }
  return cached;
}

TEST_F(CacheTest, ThreadsShareTheCacheOfARunningContext) {
  std::string zones = "zone list.example\n";
  for (unsigned k = 0; k < kKeys; ++k)
    zones += "list 10." + std::to_string(k) + ".0.0/16 127.0.0." + std::to_string(k) + "\n";
  ListServer server(zones);
  Host host(kKeys, 1 << 20);
  host.server(server.port()).zone(KAVOT_BL_IP, "list.example").open();
  cacher = kavo_get_ext_cache(host, KAVOCT_ANS);
  ASSERT_NE(cacher, nullptr);
  std::atomic<bool> over = false;
  std::atomic<unsigned> wrong = 0;
  std::vector<std::jthread> threads;
  for (unsigned i = 0; i < kThreads; ++i)
    threads.emplace_back(use_cache, cacher, i, &over, &wrong);
  Answers answers;
  unsigned cached = 0;
  for (unsigned asked = 0; asked < kQuestions; asked += kKeys)
    cached += ask_all(host, &answers, &wrong);
  over = true;
  threads.clear();
  EXPECT_EQ(wrong, 0U);
  EXPECT_GT(cached, 0U);
  EXPECT_GT(server.received(), 0U);
}

}  // namespace
