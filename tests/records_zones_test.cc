// records_zones_test.cc - record blocks and the zones file, from outside: what a host builds, copies and loads, and its
// mistakes.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <host_test.h>
#include <kavo.h>
#include <stored_records.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Log collects the library's log lines during its lifetime.
class Log {
 public:
  Log() { kavo_set_log_cb(&Log::line, this); }
  ~Log() { kavo_set_log_cb(nullptr, nullptr); }
  Log(const Log &) = delete;
  Log &operator=(const Log &) = delete;
  std::string take() { return std::exchange(text_, {}); }

 private:
  static void line(int level, const char *text, void *self) {
    static_cast<Log *>(self)->text_ += std::to_string(level) + " " + text + "\n";
  }
  std::string text_;
};

using testbed::name;
using testbed::read;
using testbed::Rr;
using testbed::Stored;
using testbed::text;
using testbed::u32;
using namespace std::string_literals;

bool contains(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

// describe reads a whole block through its public layout; its names and its array must be in its used bytes.
std::string describe(KAVO_TYPE type, const KAVO_RR &rr) {
  if (type == KAVOT_PKT)
    return std::string(reinterpret_cast<const char *>(rr.rr_pkt->dnspkt_pkt), rr.rr_pkt->dnspkt_psize);
  const dns_rr_null &head = *rr.rr_null;
  const char *start = reinterpret_cast<const char *>(&head);
  for (const char *place : std::initializer_list<const char *>{head.dnsn_cname, head.dnsn_qname,
                                                               reinterpret_cast<const char *>(rr.rr_ns->dnsns_ns)})
    EXPECT_TRUE(place >= start && place < start + head.dnsn_written) << "type " << type << " points outside its block";
  return std::to_string(head.dnsn_ttl) + " x" + std::to_string(head.dnsn_nrr) + " " + head.dnsn_cname + " " +
         head.dnsn_qname + (head.dnsn_cname == head.dnsn_qname ? " shared " : " apart ") + testbed::shown(type, rr);
}

void scribble(const Rr &block) {
  memset(reinterpret_cast<char *>(block.rr.rr_mem) + sizeof(dns_rr_mem), 0xee,
         block.rr.rr_mem->dnsm_size - sizeof(dns_rr_mem));
}

TEST(Records, EveryLayoutSurvivesItsSource) {
  for (const Stored &stored : testbed::every_layout()) {
    for (const bool shared : {false, true}) {
      SCOPED_TRACE(stored.type);
      Rr source = read(stored.type, stored.bytes), copy, exact, tight;
      if (shared && stored.type != KAVOT_PKT) source.rr.rr_null->dnsn_qname = source.rr.rr_null->dnsn_cname;
      const std::string expected = describe(stored.type, source.rr);
      ASSERT_EQ(kavo_rr_dup(stored.type, source, copy), KAVOE_OK);
      EXPECT_EQ(copy.rr.rr_mem->dnsm_size, source.rr.rr_mem->dnsm_size);
      const unsigned size = kavo_rr_get_size(copy);
      EXPECT_TRUE(shared || size == kavo_rr_get_size(source)) << size;
      ASSERT_EQ(kavo_rr_alloc(exact, size), KAVOE_OK);
      ASSERT_EQ(kavo_rr_alloc(tight, size - 1), KAVOE_OK);
      const Log log;
      EXPECT_EQ(kavo_rr_cpy(stored.type, copy, exact), KAVOE_OK);
      EXPECT_EQ(kavo_rr_cpy(stored.type, copy, tight), KAVOE_NOMEM);
      EXPECT_EQ(kavo_rr_get_size(tight), 0U);
      EXPECT_EQ(kavo_rr_dup(stored.type, copy, tight), KAVOE_OK) << "an existing block grows";
      scribble(source);
      scribble(copy);
      EXPECT_EQ(describe(stored.type, exact.rr), expected);
      EXPECT_EQ(describe(stored.type, tight.rr), expected);
    }
  }
}

Rr some_texts(KAVO_TYPE type) {
  return read(type, testbed::stored(type, 48 + 12, 3, text("") + text("b\0c"s) + text("second"), "").bytes);
}

TEST(Records, OnlyTextsOfTxtAreTerminated) {
  for (const bool closed : {true, false}) {
    const KAVO_TYPE type = closed ? KAVOT_DNS_TXT : KAVOT_DNS_ETXT;
    Rr source = some_texts(type), copy;
    ASSERT_EQ(kavo_rr_dup(type, source, copy), KAVOE_OK);
    const dns_txt *texts = copy.rr.rr_txt->dnstxt_txt;
    EXPECT_EQ(texts[2].txt - texts[1].txt, closed ? 4 : 3);
    EXPECT_EQ(texts[2].txt[texts[2].len], closed ? '\0' : 'c') << "the canonical name follows the last text";
  }
}

TEST(Records, SizesHaveLimits) {
  Log log;
  KAVO_RR rr = {};
  EXPECT_EQ(kavo_rr_alloc(&rr, 1025), KAVOE_NOMEM);
  EXPECT_TRUE(contains(log.take(), "Attempt to allocate too many memory for RR (requested: 1025, limit: 1024)"));
  EXPECT_EQ(rr.rr_mem, nullptr);
  ASSERT_EQ(kavo_rr_realloc(&rr, 0), KAVOE_OK) << "a block without room is still a block";
  Rr source = read(KAVOT_BL_IP, testbed::stored(KAVOT_BL_IP, 8, 1, "\x7f\0\0\4"s, "").bytes);
  EXPECT_EQ(kavo_rr_dup(KAVOT_BL_IP, source, &rr), KAVOE_OK);
  EXPECT_EQ(kavo_rr_realloc(&rr, 1024), KAVOE_OK);
  EXPECT_EQ(kavo_rr_realloc(&rr, 10), KAVOE_OK);
  EXPECT_EQ(rr.rr_mem->dnsm_size, 1024U) << "a block never shrinks";
  EXPECT_EQ(kavo_rr_realloc(&rr, 1025), KAVOE_NOMEM);
  kavo_rr_free(&rr);
  kavo_rr_free(&rr);
  ASSERT_EQ(kavo_rr_alloc(&rr, 0), KAVOE_OK);
  KAVO_RR same = rr;
  EXPECT_EQ(kavo_rr_dup(KAVOT_BL_IP, &rr, &same), KAVOE_OK) << "a block without room onto itself";
  EXPECT_EQ(same.rr_mem, rr.rr_mem);
  kavo_rr_free(&rr);
  EXPECT_EQ(kavo_rr_get_size(&rr), 0U);

  source.rr.rr_mem->dnsm_size = 2000;
  EXPECT_EQ(kavo_rr_dup(KAVOT_BL_IP, source, &rr), KAVOE_NOMEM);
  EXPECT_EQ(rr.rr_mem, nullptr);
  log.take();
  ASSERT_EQ(kavo_rr_alloc(&rr, 1024), KAVOE_OK);
  for (const KAVO_TYPE type : {KAVOT_DNS_A6, KAVOT_SYNC, KAVOT_DNS_SOA, KAVOT_INVALID, KAVOT_DNS_MAX, KAVOT_DNS_ATMA,
                               static_cast<KAVO_TYPE>(KAVOT_BL_MAX + 1)}) {
    EXPECT_EQ(kavo_rr_cpy(type, source, &rr), KAVOE_FAIL);
  }
  KAVO_RR none = {};
  testbed::expect_all(KAVOE_BADPAR,
                      {kavo_rr_cpy(KAVOT_DNS_A, nullptr, &rr), kavo_rr_cpy(KAVOT_DNS_A, source, nullptr),
                       kavo_rr_cpy(KAVOT_DNS_A, &none, &rr), kavo_rr_cpy(KAVOT_DNS_A, source, &none),
                       kavo_rr_dup(KAVOT_DNS_A, nullptr, &rr), kavo_rr_dup(KAVOT_DNS_A, source, nullptr),
                       kavo_rr_dup(KAVOT_DNS_A, &none, &rr), kavo_rr_alloc(nullptr, 8), kavo_rr_realloc(nullptr, 8)});
  kavo_rr_free(nullptr);
  EXPECT_EQ(log.take(), "");
  kavo_rr_free(&rr);
}

constexpr size_t kArrayAt = sizeof(dns_rr_a4);
constexpr uint32_t kPacketSize = sizeof(dns_rr_pkt) + 6;

char *at(KAVO_RR *rr, size_t offset) {
  return reinterpret_cast<char *>(rr->rr_mem) + offset;
}

void set_text(KAVO_RR *rr, int i, int size, char *text) {
  rr->rr_txt->dnstxt_txt[i] = {size, text};
}

// expect_refused falsifies a block; its copy must be empty, with nothing around it touched.
void expect_refused(const char *what, KAVO_TYPE type, Rr source, void (*tell)(KAVO_RR *)) {
  SCOPED_TRACE(what);
  constexpr uint64_t kCanary = 0x5ca1ab1e5ca1ab1e;
  const uint32_t size = source.rr.rr_mem->dnsm_size;
  tell(source);
  std::vector<uint64_t> room(64, kCanary);
  KAVO_RR target = {.rr_mem = reinterpret_cast<dns_rr_mem *>(room.data())};
  *target.rr_mem = {size, 8};
  Log log;
  EXPECT_EQ(kavo_rr_cpy(type, source, &target), KAVOE_FAIL);
  EXPECT_EQ(target.rr_mem->dnsm_written, 0U);
  EXPECT_TRUE(contains(log.take(), "[assertion at kavo_rr:"));
  for (size_t i = (size + 7) / 8; i < room.size(); ++i)
    ASSERT_EQ(room[i], kCanary);
}

// A host may lay out a block otherwise than the library does: the names apart and before the array, which ends with it.
TEST(Records, PartsOfASourceMayBeInAnyOrder) {
  constexpr uint32_t kAddresses = 2 * sizeof(in_addr);
  constexpr size_t kQname = kArrayAt + kAddresses, kCname = kQname + 2, kEntries = kCname + 2 + 2;
  Rr source, copy;
  ASSERT_EQ(kavo_rr_alloc(source, kEntries + kAddresses), KAVOE_OK);
  source.rr.rr_mem->dnsm_written = kEntries + kAddresses;
  *source.rr.rr_null = {.dnsn_size = kEntries + kAddresses,
                        .dnsn_written = kEntries + kAddresses,
                        .dnsn_cname = strcpy(at(source, kCname), "c"),
                        .dnsn_qname = strcpy(at(source, kQname), "q"),
                        .dnsn_ttl = 300,
                        .dnsn_nrr = 2};
  source.rr.rr_a->dnsa4_addr = reinterpret_cast<in_addr *>(at(source, kEntries));
  memcpy(at(source, kEntries), "\x7f\0\0\2\x7f\0\0\3", kAddresses);
  ASSERT_EQ(kavo_rr_dup(KAVOT_DNS_A, source, copy), KAVOE_OK);
  EXPECT_EQ(describe(KAVOT_DNS_A, copy.rr), "300 x2 c q apart 127.0.0.2,127.0.0.3");

  // The query name may be beyond the bytes that the source has used.
  constexpr uint32_t kShort = kCname + 2;
  source.rr.rr_mem->dnsm_written = kShort;
  source.rr.rr_null->dnsn_nrr = 0;
  source.rr.rr_a->dnsa4_addr = nullptr;
  ASSERT_EQ(kavo_rr_dup(KAVOT_DNS_A, source, copy), KAVOE_OK);
  EXPECT_EQ(kavo_rr_get_size(copy), kShort + 2);
  EXPECT_EQ(describe(KAVOT_DNS_A, copy.rr), "300 x0 c q apart ");
  Rr packet = read(KAVOT_PKT, u32(sizeof(dns_rr_pkt)));
  EXPECT_EQ(kavo_rr_dup(KAVOT_PKT, packet, copy), KAVOE_OK) << "a packet without bytes";
}

// A false source is refused, with a line in the log.
TEST(Records, FalseSourcesAreRefused) {
  static char elsewhere[] = "elsewhere";
  using Lie = std::pair<const char *, void (*)(KAVO_RR *)>;
  const Lie of_lists[] = {
      {"negative count", [](KAVO_RR *rr) { rr->rr_null->dnsn_nrr = -1; }},
      {"count beyond the block", [](KAVO_RR *rr) { rr->rr_null->dnsn_nrr = 1 << 30; }},
      {"array elsewhere", [](KAVO_RR *rr) { rr->rr_ns->dnsns_ns = reinterpret_cast<char **>(elsewhere); }},
      {"entry elsewhere", [](KAVO_RR *rr) { rr->rr_ns->dnsns_ns[1] = elsewhere; }},
      {"null entry", [](KAVO_RR *rr) { rr->rr_ns->dnsns_ns[0] = nullptr; }},
      {"entries that share a long text",
       [](KAVO_RR *rr) { rr->rr_ns->dnsns_ns[0] = rr->rr_ns->dnsns_ns[1] = rr->rr_null->dnsn_cname; }},
      {"name elsewhere", [](KAVO_RR *rr) { rr->rr_null->dnsn_cname = elsewhere; }},
      {"null name", [](KAVO_RR *rr) { rr->rr_null->dnsn_cname = nullptr; }},
      {"name inside the record", [](KAVO_RR *rr) { rr->rr_null->dnsn_cname = at(rr, sizeof(dns_rr_mem)); }},
      {"name before the entries", [](KAVO_RR *rr) { rr->rr_null->dnsn_cname = at(rr, kArrayAt); }},
      {"query name elsewhere", [](KAVO_RR *rr) { rr->rr_null->dnsn_qname = elsewhere; }},
      {"array that ends after the block",
       [](KAVO_RR *rr) {
         rr->rr_null->dnsn_nrr = 1;
         rr->rr_ns->dnsns_ns = reinterpret_cast<char **>(at(rr, kavo_rr_get_size(rr) - 7));
       }},
      {"name that ends after the block", [](KAVO_RR *rr) { rr->rr_mem->dnsm_written -= 1; }},
      {"name without an end", [](KAVO_RR *rr) { *at(rr, kavo_rr_get_size(rr) - 1) = 'x'; }}};
  const Lie of_texts[] = {
      {"negative text", [](KAVO_RR *rr) { rr->rr_txt->dnstxt_txt[0].len = -5; }},
      {"text beyond the block", [](KAVO_RR *rr) { rr->rr_txt->dnstxt_txt[2].len = INT32_MAX; }},
      {"texts that share a long text",
       [](KAVO_RR *rr) { set_text(rr, 0, 9, rr->rr_null->dnsn_cname), set_text(rr, 1, 9, rr->rr_null->dnsn_cname); }},
      {"text elsewhere", [](KAVO_RR *rr) { rr->rr_txt->dnstxt_txt[2].txt = elsewhere; }},
      {"letter elsewhere", [](KAVO_RR *rr) { set_text(rr, 2, 1, elsewhere); }},
      {"text that ends past the block", [](KAVO_RR *rr) { set_text(rr, 2, 4, at(rr, kavo_rr_get_size(rr) - 2)); }},
      {"text past the block", [](KAVO_RR *rr) { set_text(rr, 2, 1, at(rr, kavo_rr_get_size(rr))); }},
      {"less than a record", [](KAVO_RR *rr) { rr->rr_mem->dnsm_written = kArrayAt - 1; }}};
  const Lie of_packets[] = {{"packet beyond the block", [](KAVO_RR *rr) { rr->rr_pkt->dnspkt_psize++; }},
                            {"endless packet", [](KAVO_RR *rr) { rr->rr_pkt->dnspkt_psize = UINT32_MAX; }}};
  for (const Lie &lie : of_lists) {
    const std::string bytes = u32(kArrayAt + 16 + 2 + 2 + 13 + 10) + u32(2) + u32(300) + name("x") + name("y");
    expect_refused(lie.first, KAVOT_BL_NS, read(KAVOT_BL_NS, bytes + name("long.example") + name("q.example")),
                   lie.second);
  }
  for (const Lie &lie : of_texts)
    expect_refused(lie.first, KAVOT_DNS_TXT, some_texts(KAVOT_DNS_TXT), lie.second);
  for (const Lie &lie : of_packets)
    expect_refused(lie.first, KAVOT_PKT, read(KAVOT_PKT, u32(kPacketSize) + "packet"), lie.second);
}

// ---- zones

constexpr int kMaxZones = 8;

class Zones : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(kavo_init_ext(&kavo_, 4, 0, kMaxZones, 0), KAVOE_OK);
    path_ = testing::TempDir() + "zones." + std::to_string(getpid());
  }
  void TearDown() override {
    kavo_free(kavo_);
    std::filesystem::remove(path_);
  }

  KAVO_ERR load(const std::string &text) {
    std::ofstream(path_, std::ios::binary) << text;
    return kavo_zonesmap_init_cfg(kavo_, path_.c_str());
  }
  std::string saved() {
    EXPECT_EQ(kavo_zonesmap_save_cfg(kavo_, path_.c_str()), KAVOE_OK);
    std::ostringstream text;
    text << std::ifstream(path_, std::ios::binary).rdbuf();
    return text.str();
  }
  std::string zone(int number) {
    const char *name = kavo_zonesmap_zone(kavo_, number);
    return name == nullptr ? "(none)" : name;
  }

  KAVO kavo_ = nullptr;
  std::string path_;
  Log log_;
};

const std::string kEmpty = "#IP\n\n#DOMAIN\n\n#IP_TXT\n\n#DOMAIN_TXT\n\n#A6\n\n#MX\n\n#SRV\n\n#CNAME\n\n#NS\n\n";

std::string lines(int count, const std::string &prefix) {
  std::string text;
  for (int i = 0; i < count; ++i)
    text += prefix + std::to_string(i) + ".example\n";
  return text;
}

TEST_F(Zones, AddingCountsEachNameOnce) {
  EXPECT_EQ(saved(), kEmpty);
  EXPECT_EQ(zone(0), "GLOBAL LOOKUP");
  for (const KAVO_TYPE type : {KAVOT_BL_IP, KAVOT_BL_IP, KAVOT_BL_NS}) {
    EXPECT_EQ(kavo_add_zone(kavo_, type, "a.example"), KAVOE_OK);
  }
  EXPECT_EQ(kavo_add_zone(kavo_, KAVOT_BL_IP, "A.example"), KAVOE_OK) << "names differ by their bytes";
  EXPECT_EQ(kavo_add_zone(kavo_, KAVOT_BL_MX, "GLOBAL LOOKUP"), KAVOE_OK) << "the pseudo-zone is never matched";
  EXPECT_EQ(zone(1) + zone(2) + zone(3) + zone(4), "a.exampleA.exampleGLOBAL LOOKUP(none)");

  for (int i = 2; i < kMaxZones; ++i) {
    EXPECT_EQ(kavo_add_zone(kavo_, KAVOT_BL_IP, std::to_string(i).c_str()), KAVOE_OK);
  }
  log_.take();
  EXPECT_EQ(kavo_add_zone(kavo_, KAVOT_BL_IP, "over.example"), KAVOE_NOMEM);
  EXPECT_TRUE(contains(log_.take(), "Too many zones too for one query type"));
  EXPECT_EQ(zone(kMaxZones + 2), "(none)") << "the table of names did not grow";

  for (const KAVO_TYPE type : {KAVOT_INVALID, KAVOT_DNS_A, KAVOT_DNS_MAX, KAVOT_DNS_ETXT, KAVOT_PKT}) {
    EXPECT_EQ(kavo_add_zone(kavo_, type, "a.example"), KAVOE_BADPAR);
  }
  testbed::expect_all(KAVOE_BADPAR, {kavo_add_zone(kavo_, KAVOT_BL_IP, ""), kavo_add_zone(kavo_, KAVOT_BL_IP, nullptr),
                                     kavo_add_zone(kavo_, KAVOT_BL_A6, std::string(255, 'x').c_str())});

  char name[10] = "";
  EXPECT_EQ(kavo_zonesmap_zone_cpy(kavo_, 1, name, 9), KAVOE_NOMEM);
  EXPECT_EQ(kavo_zonesmap_zone_cpy(kavo_, 1, name, -1), KAVOE_NOMEM);
  EXPECT_EQ(kavo_zonesmap_zone_cpy(kavo_, 1, nullptr, 0), KAVOE_NOMEM);
  EXPECT_EQ(kavo_zonesmap_zone_cpy(kavo_, -1, name, 10), KAVOE_BADPAR);
  EXPECT_EQ(kavo_zonesmap_zone_cpy(kavo_, 1, name, 10), KAVOE_OK);
  EXPECT_STREQ(name, "a.example");
}

TEST_F(Zones, WhatIsWrittenReadsBack) {
  const std::string longest(254, 'z');
  for (const char *name : {"b.example", "a.example", " blank ", longest.c_str()}) {
    ASSERT_EQ(kavo_add_zone(kavo_, KAVOT_BL_IP_TXT, name), KAVOE_OK);
  }
  ASSERT_EQ(kavo_add_zone(kavo_, KAVOT_BL_IP, "a.example"), KAVOE_OK);
  const std::string text = saved();
  EXPECT_EQ(text.substr(0, 60), "#IP\na.example\n\n#DOMAIN\n\n#IP_TXT\nb.example\na.example\n blank \n");
  EXPECT_EQ(load(text), KAVOE_OK);
  EXPECT_EQ(saved(), text);
  EXPECT_EQ(zone(1), "a.example") << "numbers follow the file";
  EXPECT_EQ(zone(4), longest);

  EXPECT_EQ(kavo_zonesmap_save_cfg(kavo_, "/dev/full"), KAVOE_FILE);
  EXPECT_EQ(kavo_zonesmap_save_cfg(kavo_, "/nowhere/zones"), KAVOE_FILE);
  EXPECT_EQ(kavo_zonesmap_save_cfg(kavo_, ""), KAVOE_BADPAR);
}

TEST_F(Zones, OddFilesThatLoad) {
  struct Odd {
    std::string text, ip, domain;
  };
  const Odd odds[] = {
      {"", "", ""},
      {"#IP", "", ""},
      {"#IP\nlast.example", "last.example\n", ""},
      {"stray\n#IP\na\n\nstray\n#DOMAIN\nb\n", "a\n", "b\n"},
      {"#IP\na\n#DOMAIN\nb\n#IP\nc\n", "c\n", "b\n"},
      {"#IP\na\na\n", "a\na\n", ""},
      {"#IP\n" + lines(kMaxZones, "x"), lines(kMaxZones, "x"), ""},
      {"#IP\n" + std::string(300, 'l') + "\n", std::string(255, 'l') + "\n" + std::string(45, 'l') + "\n", ""},
  };
  for (const Odd &odd : odds) {
    SCOPED_TRACE(odd.text.substr(0, 40));
    EXPECT_EQ(load(odd.text), KAVOE_OK);
    EXPECT_EQ(saved(), "#IP\n" + odd.ip + "\n#DOMAIN\n" + odd.domain + kEmpty.substr(kEmpty.find("\n#IP_TXT")));
  }
  EXPECT_EQ(load("#IP\na\nb\n#IP\nb\n"), KAVOE_OK);
  for (const char *name : {"a", "b", "a"})
    EXPECT_EQ(kavo_add_zone(kavo_, KAVOT_BL_IP, name), KAVOE_OK);
  EXPECT_EQ(saved(), "#IP\nb\na\n" + kEmpty.substr(4)) << "the section before is forgotten";
}

// A load that fails loses the zones there were: the map is released until it is initialized again.
TEST_F(Zones, FilesThatFailReleaseTheMap) {
  const std::pair<std::string, std::string> bad[] = {
      {"# comment\n", "Wrong line \"# comment\" in the config file"},
      {"#IP \na\n", "Wrong line \"#IP \" in the config file"},
      {"# IP\na\n", "Wrong line \"# IP\" in the config file"},
      {"#ip\na\n", "Wrong line \"#ip\" in the config file"},
      {"#\n", "Wrong line \"#\" in the config file"},
      {"#IP\r\na\r\n", "Wrong line \"#IP"},
      {"#IP\na\n#hash.example\n", "Wrong line \"#hash.example\" in the config file"},
      {"#IP\n" + lines(kMaxZones + 1, "x"), "Invalid zones configuration file structure"},
      {"#IP\n" + lines(kMaxZones, "x") + "x0.example\n", "Invalid zones configuration file structure"},
  };
  for (const auto &[text, message] : bad) {
    SCOPED_TRACE(message);
    ASSERT_EQ(kavo_zonesmap_init(kavo_), KAVOE_OK);
    ASSERT_EQ(kavo_add_zone(kavo_, KAVOT_BL_IP, "old.example"), KAVOE_OK);
    log_.take();
    EXPECT_EQ(load(text), KAVOE_FILE);
    EXPECT_TRUE(contains(log_.take(), message));
    EXPECT_EQ(zone(0), "(none)");
    EXPECT_EQ(kavo_add_zone(kavo_, KAVOT_BL_IP, "new.example"), KAVOE_BADPAR);
    EXPECT_EQ(saved(), kEmpty);
  }
  EXPECT_EQ(kavo_zonesmap_init_cfg(kavo_, "/nowhere/zones"), KAVOE_FILE);
  EXPECT_TRUE(contains(log_.take(), "Unable to open zones config file"));
  EXPECT_EQ(kavo_zonesmap_init_cfg(kavo_, "/"), KAVOE_FILE) << "a directory opens and cannot be read";
  kavo_free_zones(kavo_);
  kavo_free_zones(kavo_);
}

TEST_F(Zones, AReleasedMapHasNoZoneToAsk) {
  ASSERT_EQ(load("#nonsense\n"), KAVOE_FILE);
  EXPECT_EQ(kavo_zonesmap_init_cfg(kavo_, nullptr), KAVOE_BADPAR);
  ASSERT_EQ(kavo_open(kavo_), KAVOE_OK);
  log_.take();
  EXPECT_EQ(load("#IP\nother.example\n"), KAVOE_SRV);
  EXPECT_TRUE(contains(log_.take(), "Cannot initialize zonesmap because KAVO is already opened"));
  KAVO_QUERY_NODE node = nullptr;
  EXPECT_EQ(kavo_subscribe_node_p(kavo_, KAVOT_DNS_A, "example", 0, nullptr, &node), KAVOE_NOZONES)
      << "not even the one that means none";
  EXPECT_EQ(kavo_close(kavo_), KAVOE_OK);
}

}  // namespace
