// stored_test.cc - record blocks and zones in streams of a host, from outside: valid ones and impossible ones.
#include <gtest/gtest.h>
#include <host_test.h>
#include <kavo.h>
#include <malloc.h>
#include <stored_records.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// A block that grows moves, and its old place is cleared, as in the sanitizers' runs.
extern "C" KAVO_EXPORT void *realloc(void *block, size_t size) {
  void *grown = malloc(size);
  if (grown == nullptr || block == nullptr) return grown;
  const size_t had = malloc_usable_size(block);
  memcpy(grown, block, std::min(had, size));
  memset(block, 0xee, had);
  free(block);
  return grown;
}
#endif

namespace {

using namespace std::string_literals;
using namespace testbed;

class StoredTest : public HostTest {};

// written returns what a call that succeeds writes.
std::string written(const std::function<KAVO_ERR(FILE *)> &write) {
  return testbed::written([&write](FILE *to) { EXPECT_EQ(write(to), KAVOE_OK); });
}

// cut_short writes to a stream that takes no more than `room` bytes.
KAVO_ERR cut_short(size_t room, const std::function<KAVO_ERR(FILE *)> &write) {
  cookie_write_function_t *const take = [](void *left, const char *, size_t size) -> ssize_t {
    auto *bytes = static_cast<size_t *>(left);
    if (size > *bytes) return 0;
    *bytes -= size;
    return static_cast<ssize_t>(size);
  };
  const Stream file(fopencookie(&room, "w", {nullptr, take, nullptr, nullptr}), fclose);
  setvbuf(file.get(), nullptr, _IONBF, 0);
  return write(file.get());
}

TEST_F(StoredTest, EveryLayoutIsReadAndWrittenByteForByte) {
  for (const Stored &record : every_layout()) {
    SCOPED_TRACE(record.type);
    const Stream file = reading(record.bytes + record.bytes + "more");
    Rr rr, again;
    // The second record goes into a block that is larger and in use.
    ASSERT_EQ(kavo_rr_read(record.type, rr, file.get()), KAVOE_OK);
    ASSERT_EQ(kavo_rr_alloc(again, 1024), KAVOE_OK);
    memset(reinterpret_cast<char *>(again.rr.rr_mem) + sizeof(dns_rr_mem), 0xee, 1024 - sizeof(dns_rr_mem));
    ASSERT_EQ(kavo_rr_read(record.type, again, file.get()), KAVOE_OK);
    EXPECT_EQ(fgetc(file.get()), 'm');
    EXPECT_EQ(rr.rr.rr_mem->dnsm_size, rr.rr.rr_mem->dnsm_written);
    EXPECT_EQ(again.rr.rr_mem->dnsm_size, 1024U);
    for (KAVO_RR *block : {&rr.rr, &again.rr}) {
      EXPECT_EQ(shown(record.type, *block), record.shows);
      EXPECT_EQ(u32(block->rr_mem->dnsm_written), record.bytes.substr(0, 4));
      Rr copy;
      ASSERT_EQ(kavo_rr_dup(record.type, block, copy), KAVOE_OK) << "a block that was read is a block like any other";
      EXPECT_EQ(written([&](FILE *to) { return kavo_rr_write(record.type, copy, to); }), record.bytes);
    }
    EXPECT_TRUE(record.type != KAVOT_DNS_TXT || rr.rr.rr_txt->dnstxt_txt[2].txt[6] == '\0');
    EXPECT_TRUE(record.type != KAVOT_DNS_TXT || again.rr.rr_txt->dnstxt_txt[0].txt == nullptr);
    for (size_t room = 0; room < record.bytes.size(); ++room) {
      EXPECT_EQ(cut_short(room, [&](FILE *to) { return kavo_rr_write(record.type, rr, to); }), KAVOE_FILE);
      EXPECT_EQ(kavo_rr_read(record.type, again, reading(record.bytes.substr(0, room)).get()), KAVOE_FILE);
    }
  }
}

TEST_F(StoredTest, NamesMayBeNullOrShared) {
  Rr rr;
  const std::string nameless = u32(40) + u32(0) + u32(kTtl) + u32(0) + u32(0);
  Rr none = read(KAVOT_DNS_A, nameless);
  EXPECT_EQ(none.rr.rr_null->dnsn_cname, nullptr);
  EXPECT_EQ(none.rr.rr_null->dnsn_qname, nullptr);
  EXPECT_EQ(written([&](FILE *to) { return kavo_rr_write(KAVOT_DNS_A, none, to); }), nameless);

  // What a block with one text for both names is written as, up to the limit of a block's size.
  const std::string host = std::string(30, 'h') + ".example";
  const auto shared = [&host](uint32_t size) {
    return u32(size) + u32(2) + u32(kTtl) + name("a.example") + name("b.example") + name(host) + name(host);
  };
  const uint32_t size = 40 + 16 + 20 + static_cast<uint32_t>(host.size()) + 1;
  ASSERT_EQ(kavo_rr_read(KAVOT_BL_NS, rr, reading(shared(size)).get()), KAVOE_OK);
  EXPECT_EQ(shown(KAVOT_BL_NS, rr.rr), "a.example,b.example");
  EXPECT_NE(rr.rr.rr_null->dnsn_qname, rr.rr.rr_null->dnsn_cname);
  EXPECT_EQ(rr.rr.rr_null->dnsn_qname, host);
  Rr copy;
  EXPECT_EQ(kavo_rr_dup(KAVOT_BL_NS, rr, copy), KAVOE_OK);
  EXPECT_EQ(shown(KAVOT_BL_NS, copy.rr), "a.example,b.example");

  // Blocks of every layout have to grow for the second name, which moves them.
  for (const Stored &record : every_layout()) {
    if (record.type == KAVOT_PKT) continue;
    SCOPED_TRACE(record.type);
    Rr source = read(record.type, record.bytes);
    source.rr.rr_null->dnsn_qname = source.rr.rr_null->dnsn_cname;
    source.rr.rr_mem->dnsm_written -= sizeof "q.example";
    const Rr back = read(record.type, written([&](FILE *to) { return kavo_rr_write(record.type, source, to); }));
    EXPECT_EQ(shown(record.type, back.rr), record.shows);
    EXPECT_STREQ(back.rr.rr_null->dnsn_cname, "c.example");
    EXPECT_STREQ(back.rr.rr_null->dnsn_qname, "c.example");
  }

  // The last byte of a block may be an entry's, and a block have texts without bytes and no names.
  const Rr texts = read(KAVOT_DNS_TXT, u32(40 + 16 + 5) + u32(1) + u32(kTtl) + text("text") + u32(0) + u32(0));
  EXPECT_EQ(shown(KAVOT_DNS_TXT, texts.rr), "text");
  const Rr host_name = read(KAVOT_DNS_NS, u32(40 + 8 + 10) + u32(1) + u32(kTtl) + name("n.example") + u32(0) + u32(0));
  EXPECT_EQ(shown(KAVOT_DNS_NS, host_name.rr), "n.example");
  const Rr empty = read(KAVOT_DNS_TXT, u32(40 + 16 + 1) + u32(1) + u32(kTtl) + u32(0) + u32(0) + u32(0));
  EXPECT_EQ(empty.rr.rr_null->dnsn_cname, nullptr);

  // Three texts without bytes leave room for a short query name, which is not the name's to take.
  const std::string brief =
      u32(40 + 48 + 3 + 2) + u32(3) + u32(kTtl) + u32(0) + u32(0) + u32(0) + name("c") + name("c");
  EXPECT_EQ(kavo_rr_dup(KAVOT_DNS_TXT, read(KAVOT_DNS_TXT, brief), copy), KAVOE_OK);

  const std::string long_text(900, 't');
  const std::string crowded = u32(40 + 16 + 901 + 39) + u32(1) + u32(kTtl) + text(long_text) + name(host) + name(host);
  EXPECT_EQ(kavo_rr_read(KAVOT_DNS_TXT, rr, reading(crowded).get()), KAVOE_NOMEM);
  EXPECT_EQ(rr.rr.rr_txt->dnstxt_txt[0].txt, long_text);
}

TEST_F(StoredTest, ImpossibleRecordsAreRefused) {
  Rr rr;
  const auto read_of = [&rr](KAVO_TYPE type, const std::string &bytes) {
    return kavo_rr_read(type, rr, reading(bytes).get());
  };
  const std::string names = name("c") + name("q");
  EXPECT_EQ(read_of(KAVOT_DNS_A, u32(1025)), KAVOE_NOMEM);
  EXPECT_EQ(rr.rr.rr_mem, nullptr);
  EXPECT_EQ(read_of(KAVOT_DNS_A, u32(39) + u32(0) + u32(0) + names), KAVOE_FILE);
  EXPECT_EQ(read_of(KAVOT_PKT, u32(11)), KAVOE_FILE);
  EXPECT_EQ(read_of(KAVOT_DNS_A, u32(99) + u32(UINT32_MAX) + u32(0) + names), KAVOE_FILE);
  EXPECT_EQ(read_of(KAVOT_DNS_A, u32(99) + u32(1 << 30) + u32(0) + names), KAVOE_FILE);
  EXPECT_EQ(read_of(KAVOT_DNS_TXT, u32(99) + u32(1) + u32(0) + u32(UINT32_MAX) + names), KAVOE_FILE);
  EXPECT_EQ(read_of(KAVOT_DNS_TXT, u32(61) + u32(1) + u32(0) + text("textt") + names), KAVOE_FILE) << "no terminator";
  EXPECT_EQ(read_of(KAVOT_DNS_PTR, u32(99) + u32(1) + u32(0) + u32(3) + "abc" + names), KAVOE_FILE);
  EXPECT_EQ(read_of(KAVOT_DNS_PTR, u32(99) + u32(1) + u32(0) + u32(3) + "a\0\0"s + names), KAVOE_FILE);
  for (const KAVO_TYPE type : {KAVOT_DNS_A6, KAVOT_SYNC, KAVOT_DNS_SOA}) {
    EXPECT_EQ(read_of(type, ""), KAVOE_FAIL);
    EXPECT_EQ(kavo_rr_write(type, rr, stdout), KAVOE_FAIL);
  }
  EXPECT_EQ(kavo_rr_read(KAVOT_DNS_A, rr, nullptr), KAVOE_BADPAR);
  EXPECT_EQ(kavo_rr_read(KAVOT_DNS_A, nullptr, stdin), KAVOE_BADPAR);
  Rr txt = read(KAVOT_DNS_TXT, u32(99) + u32(1) + u32(0) + text("text") + names);
  const Stream sink(fopen("/dev/null", "w"), fclose);
  txt.rr.rr_txt->dnstxt_txt[0].txt = nullptr;
  EXPECT_EQ(kavo_rr_write(KAVOT_DNS_TXT, txt, sink.get()), KAVOE_BADPAR);
  EXPECT_EQ(kavo_rr_write(KAVOT_DNS_TXT, Rr(), sink.get()), KAVOE_BADPAR);
  Rr list = read(KAVOT_DNS_A, every_layout()[0].bytes), packet = read(KAVOT_PKT, u32(18) + "packet");
  EXPECT_EQ(kavo_rr_write(KAVOT_DNS_A, list, nullptr), KAVOE_BADPAR);
  EXPECT_EQ(kavo_rr_write(KAVOT_DNS_A, nullptr, sink.get()), KAVOE_BADPAR);
  list.rr.rr_null->dnsn_nrr = -1;
  EXPECT_EQ(kavo_rr_write(KAVOT_DNS_A, list, sink.get()), KAVOE_BADPAR);
  list.rr.rr_null->dnsn_nrr = 1;
  list.rr.rr_a->dnsa4_addr = nullptr;
  EXPECT_EQ(kavo_rr_write(KAVOT_DNS_A, list, sink.get()), KAVOE_BADPAR);
  list.rr.rr_null->dnsn_nrr = 0;
  EXPECT_EQ(kavo_rr_write(KAVOT_DNS_A, list, sink.get()), KAVOE_OK) << "no array is needed where nothing is in it";
  packet.rr.rr_pkt->dnspkt_psize = 7;
  EXPECT_EQ(kavo_rr_write(KAVOT_PKT, packet, sink.get()), KAVOE_BADPAR);
  packet.rr.rr_pkt->dnspkt_psize = 0;
  packet.rr.rr_mem->dnsm_written = 11;
  EXPECT_EQ(kavo_rr_write(KAVOT_PKT, packet, sink.get()), KAVOE_BADPAR);
  packet.rr.rr_mem->dnsm_written = 12;
  EXPECT_EQ(written([&](FILE *to) { return kavo_rr_write(KAVOT_PKT, packet, to); }), u32(12));
  Rr small;
  ASSERT_EQ(kavo_rr_alloc(small, sizeof(dns_rr_mem)), KAVOE_OK);
  EXPECT_EQ(kavo_rr_write(KAVOT_DNS_TXT, small, sink.get()), KAVOE_BADPAR) << "a block without room for a record";
}

// ---- zones

std::string saved(const Host &host) {
  return written([&host](FILE *to) { return kavo_zonesmap_save_bin(host, kavo_get_zonesmap(host), to); });
}
KAVO_ERR load(const Host &host, FILE *file) {
  return kavo_zonesmap_init_bin(host, kavo_get_zonesmap(host), file);
}

void fill(Host *host) {
  host->zone(KAVOT_BL_NS, "z.example").zone(KAVOT_BL_IP, "a.example").zone(KAVOT_BL_IP, "b.example");
  host->zone(KAVOT_BL_IP_TXT, "b.example").zone(KAVOT_BL_IP_TXT, "z.example");
}

std::string zone_list(const std::vector<uint32_t> &numbers) {
  std::string bytes = u32(static_cast<uint32_t>(numbers.size()));
  for (const uint32_t number : numbers)
    bytes += u32(number);
  return bytes;
}

TEST_F(StoredTest, ZonesComeBackUnderTheirNumbers) {
  Host host(4, 0, 8), wide(4, 0, 20), narrow(4, 0, 1);
  std::string fresh = u32(1);
  for (uint32_t slot = 1; slot <= 9; ++slot)
    fresh += u32(slot) + u32(0);
  fresh += u32(0);
  EXPECT_EQ(fresh.size(), 80U);
  EXPECT_EQ(saved(host), fresh);

  fill(&host);
  std::string expected = u32(4) + name("z.example") + name("a.example") + name("b.example");
  for (uint32_t slot = 1; slot <= 9; ++slot)
    expected += u32(slot) + zone_list(slot == 1   ? std::vector<uint32_t>{2, 3}
                                      : slot == 3 ? std::vector<uint32_t>{3, 1}
                                      : slot == 9 ? std::vector<uint32_t>{1}
                                                  : std::vector<uint32_t>{});
  expected += u32(0);
  const std::string bytes = saved(host);
  EXPECT_EQ(bytes, expected);

  const Stream file = reading(bytes + fresh + "host");
  ASSERT_EQ(load(wide, file.get()), KAVOE_OK);
  EXPECT_EQ(saved(wide), bytes);
  EXPECT_STREQ(kavo_zonesmap_zone(wide, 0), "GLOBAL LOOKUP");
  EXPECT_STREQ(kavo_zonesmap_zone(wide, 3), "b.example");
  ASSERT_EQ(load(wide, file.get()), KAVOE_OK) << "the second record of the stream";
  EXPECT_EQ(saved(wide), fresh);
  EXPECT_EQ(fgetc(file.get()), 'h');

  EXPECT_EQ(load(narrow, reading(bytes).get()), KAVOE_FILE);
  EXPECT_EQ(kavo_add_zone(narrow, KAVOT_BL_IP, "a.example"), KAVOE_BADPAR) << "the map is released";
  EXPECT_EQ(kavo_zonesmap_save_bin(narrow, kavo_get_zonesmap(narrow), stdout), KAVOE_BADPAR);
  EXPECT_EQ(kavo_zonesmap_init(narrow), KAVOE_OK);
  EXPECT_EQ(saved(narrow), fresh);

  // Lists may come in any order, twice, or not at all; a name is what precedes its last byte.
  const std::string odd = u32(2) + u32(10) + "a.exampleX" + u32(9) + zone_list({1}) + u32(1) + zone_list({1, 1}) +
                          u32(9) + zone_list({}) + u32(0);
  ASSERT_EQ(load(wide, reading(odd).get()), KAVOE_OK);
  EXPECT_STREQ(kavo_zonesmap_zone(wide, 1), "a.example");
  EXPECT_EQ(saved(wide).substr(4 + 14, 16), u32(1) + zone_list({1, 1}));
  // Names may be empty, or long, and a list may name the zone that means none.
  const std::string strange = u32(3) + name("") + name(std::string(2000, 'x')) + u32(1) + zone_list({0, 2}) + u32(0);
  const Stream more = reading(strange + "host");
  ASSERT_EQ(load(wide, more.get()), KAVOE_OK);
  EXPECT_STREQ(kavo_zonesmap_zone(wide, 1), "");
  EXPECT_EQ(kavo_zonesmap_zone(wide, 2), std::string(2000, 'x'));
  EXPECT_EQ(fgetc(more.get()), 'h');
  kavo_zonesmap *map = kavo_get_zonesmap(host);
  for (size_t room = 0; room < bytes.size(); ++room) {
    EXPECT_EQ(cut_short(room, [&](FILE *to) { return kavo_zonesmap_save_bin(host, map, to); }), KAVOE_FILE);
    EXPECT_EQ(load(wide, reading(bytes.substr(0, room)).get()), KAVOE_FILE);
  }
  EXPECT_EQ(kavo_zonesmap_init_bin(wide, map, reading(bytes).get()), KAVOE_BADPAR) << "another context's";
  for (KAVO_ERR (*call)(KAVO, kavo_zonesmap *, FILE *) : {kavo_zonesmap_save_bin, kavo_zonesmap_init_bin}) {
    EXPECT_EQ(call(nullptr, map, more.get()), KAVOE_BADPAR);
    EXPECT_EQ(call(host, nullptr, more.get()), KAVOE_BADPAR);
    EXPECT_EQ(call(host, map, nullptr), KAVOE_BADPAR);
  }
  EXPECT_EQ(saved(host), bytes);
}

TEST_F(StoredTest, ManyZonesAreFoundByTheirNames) {
  constexpr int kMany = 500;
  Host host(4, 0, kMany), later(4, 0, kMany);
  const auto add_all = [](Host *to) {
    for (int i = 0; i < kMany; ++i)
      to->zone(KAVOT_BL_IP, std::to_string(i).c_str()).zone(KAVOT_BL_MX, std::to_string(kMany - i).c_str());
  };
  add_all(&host);
  const std::string bytes = saved(host);
  EXPECT_EQ(bytes.substr(0, 4), u32(kMany + 2)) << "each name once";
  ASSERT_EQ(load(later, reading(bytes).get()), KAVOE_OK);
  add_all(&later);
  EXPECT_EQ(saved(later), bytes);

  // Of zones with one name the first is found, and a list that holds another holds the name.
  const std::string names = u32(4) + name("a.example") + name("b.example") + name("a.example");
  ASSERT_EQ(load(later, reading(names + u32(1) + zone_list({3}) + u32(0)).get()), KAVOE_OK);
  later.zone(KAVOT_BL_IP, "a.example").zone(KAVOT_BL_IP, "b.example").zone(KAVOT_BL_DOM, "a.example");
  EXPECT_EQ(saved(later).substr(0, names.size() + 32),
            names + u32(1) + zone_list({3, 2}) + u32(2) + zone_list({1}) + u32(3));
}

// A host's code reads the error number first: a stale one would mislead it.
TEST_F(StoredTest, FailuresOfNoCallAreReportedWithoutAnErrorNumber) {
  const TempDir directory;
  Host host(4, 1 << 16);
  host.open();
  const Node bell(host);
  const auto iterator = std::unique_ptr<kavo_answer_iterator_t, void (*)(KAVO_ANSWER_ITERATOR)>(
      kavo_alloc_answer_iterator(), kavo_free_answer_iterator);
  Rr rr;
  const auto stale = [](auto act) {
    errno = ECHILD;
    EXPECT_NE(act(), KAVOE_OK);
  };
  stale([&] { return kavo_set_answer_iterator(host, bell, iterator.get()); });
  stale([&] { return kavo_rr_read(KAVOT_DNS_A, rr, reading("x").get()); });
  stale([&] { return kavo_cacheload(host, directory.write("garbage", "no dump").c_str()); });
  stale([&] { return kavo_cacheload(host, directory.path().c_str()); });
  ASSERT_EQ(kavo_close(host), KAVOE_OK);
  stale([&] { return load(host, reading("x").get()); });
  EXPECT_EQ(complaints_about("errno 0 ").size(), 5u);
  EXPECT_EQ(complaints_about("errno").size(), 5u);
  stale([&] { return kavo_cachesave(host, "/nowhere/cache"); });
  EXPECT_EQ(complaints_about("errno " + std::to_string(ENOENT) + " ").size(), 1u) << "and a call's with its own";
}

TEST_F(StoredTest, ImpossibleZonesAreRefused) {
  const Host victim(4);
  const std::string zone = u32(2) + name("a");
  for (const std::string &bad :
       {u32(INT32_MAX), u32(0), u32(UINT32_MAX), u32(2) + u32(INT32_MAX) + "a", u32(2) + u32(0), u32(2) + u32(1U << 31),
        zone + u32(10) + zone_list({}) + u32(0), zone + u32(UINT32_MAX) + zone_list({}) + u32(0),
        zone + u32(1) + u32(UINT32_MAX) + u32(0), zone + u32(1) + zone_list({2}) + u32(0),
        zone + u32(1) + zone_list({UINT32_MAX}) + u32(0), u32(2) + u32(0) + u32(0),
        zone + u32(1) + u32(UINT32_MAX) + std::string(1 << 16, '\0'), zone + u32(1) + u32(9) + std::string(40, '\0')})
    EXPECT_EQ(load(victim, reading(bad).get()), KAVOE_FILE);
}

}  // namespace
