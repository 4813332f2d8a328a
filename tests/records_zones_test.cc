// records_zones_test.cc - record blocks and the zones file, from outside: what a host builds, copies, loads and gets
// wrong.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <kavo.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Log collects what the library says while it lives.
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

bool contains(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

// Block is a record block that a host lays out itself. Its memory is exactly as long as its content, so that a copy
// which reads past the end is seen by the address sanitizer.
class Block {
 public:
  explicit Block(KAVO_TYPE type, size_t head = sizeof(dns_rr_a4)) : type_(type) { bytes_.assign(head, '\0'); }

  // entries appends the array; what it points to is given as offsets, which seal turns into pointers.
  template <typename Entry>
  Block &entries(const std::vector<Entry> &list) {
    put(sizeof(dns_rr_null), bytes_.size(), true);
    count_ = static_cast<int32_t>(list.size());
    bytes_.append(reinterpret_cast<const char *>(list.data()), list.size() * sizeof(Entry));
    return *this;
  }
  // text appends a text for the pointer at `field` of entry `index`.
  template <typename Entry>
  Block &text(size_t index, size_t field, std::string bytes) {
    put(sizeof(dns_rr_a4) + index * sizeof(Entry) + field, bytes_.size(), true);
    bytes_ += bytes;
    return *this;
  }
  Block &names(const std::string &cname, const std::string &qname) {
    put(offsetof(dns_rr_null, dnsn_cname), bytes_.size(), true);
    bytes_ += cname + '\0';
    put(offsetof(dns_rr_null, dnsn_qname), bytes_.size() - (qname.empty() ? cname.size() + 1 : 0), true);
    if (!qname.empty()) bytes_ += qname + '\0';
    return *this;
  }
  Block &packet(const std::string &bytes) {
    bytes_.resize(sizeof(dns_rr_pkt));
    const auto size = static_cast<uint32_t>(bytes.size());
    memcpy(&bytes_[offsetof(dns_rr_pkt, dnspkt_psize)], &size, sizeof(size));
    bytes_ += bytes;
    return *this;
  }
  Block &seal() {
    memory_.reset(static_cast<char *>(malloc(bytes_.size())));
    memcpy(memory_.get(), bytes_.data(), bytes_.size());
    for (const size_t at : pointers_) {
      uint64_t offset;
      memcpy(&offset, &bytes_[at], sizeof(offset));
      const char *target = memory_.get() + offset;
      memcpy(memory_.get() + at, &target, sizeof(target));
    }
    rr_.rr_mem = reinterpret_cast<dns_rr_mem *>(memory_.get());
    rr_.rr_mem->dnsm_size = rr_.rr_mem->dnsm_written = static_cast<uint32_t>(bytes_.size());
    if (type_ != KAVOT_PKT) {
      rr_.rr_null->dnsn_ttl = 300;
      rr_.rr_null->dnsn_nrr = count_;
    }
    return *this;
  }

  KAVO_TYPE type() const { return type_; }
  KAVO_RR *rr() { return &rr_; }
  unsigned size() const { return static_cast<unsigned>(bytes_.size()); }
  char *at(size_t offset) { return memory_.get() + offset; }

 private:
  struct Free {
    void operator()(char *memory) const { free(memory); }
  };
  void put(size_t at, uint64_t offset, bool pointer) {
    memcpy(&bytes_[at], &offset, sizeof(offset));
    if (pointer) pointers_.push_back(at);
  }
  KAVO_TYPE type_;
  std::string bytes_;
  std::vector<size_t> pointers_;
  int32_t count_ = 0;
  std::unique_ptr<char, Free> memory_;
  KAVO_RR rr_ = {};
};

constexpr size_t kArrayAt = sizeof(dns_rr_a4);

template <typename Entry>
Block named(KAVO_TYPE type, size_t field, Entry first, Entry second) {
  Block block(type);
  block.entries<Entry>({first, second});
  for (size_t i = 0; i < 2; ++i)
    block.text<Entry>(i, field, std::string(i == 0 ? "one.example" : "two.example") + '\0');
  return std::move(block.names("list.example", "asked.example").seal());
}

Block texts(KAVO_TYPE type, bool closed) {
  Block block(type);
  block.entries<dns_txt>({{5, nullptr}, {0, nullptr}, {4, nullptr}});
  const std::string end = closed ? std::string(1, '\0') : "";
  block.text<dns_txt>(0, offsetof(dns_txt, txt), std::string("ab\0cd", 5) + end);
  block.text<dns_txt>(1, offsetof(dns_txt, txt), end).text<dns_txt>(2, offsetof(dns_txt, txt), "last" + end);
  return std::move(block.names("list.example", "").seal());
}

Block addresses(KAVO_TYPE type) {
  Block block(type);
  block.entries<in_addr>({{htonl(0x7f000002)}, {htonl(0xc0000201)}, {htonl(0x01020304)}});
  return std::move(block.names("list.example", "asked.example").seal());
}

std::vector<Block> every_layout() {
  std::vector<Block> blocks;
  for (const KAVO_TYPE type : {KAVOT_DNS_A, KAVOT_BL_IP, KAVOT_BL_DOM})
    blocks.push_back(addresses(type));
  for (const KAVO_TYPE type : {KAVOT_DNS_AAAA, KAVOT_BL_A6}) {
    Block block(type);
    block.entries<in6_addr>({in6_addr{}, in6addr_loopback});
    blocks.push_back(std::move(block.names("six.example", "").seal()));
  }
  for (const KAVO_TYPE type : {KAVOT_DNS_TXT, KAVOT_BL_IP_TXT, KAVOT_BL_DOM_TXT})
    blocks.push_back(texts(type, true));
  blocks.push_back(texts(KAVOT_DNS_ETXT, false));
  for (const KAVO_TYPE type : {KAVOT_DNS_MX, KAVOT_BL_MX}) {
    blocks.push_back(named<dns_mx>(type, offsetof(dns_mx, name), {10, nullptr}, {-1, nullptr}));
  }
  for (const KAVO_TYPE type : {KAVOT_DNS_SRV, KAVOT_BL_SRV}) {
    blocks.push_back(named<dns_srv>(type, offsetof(dns_srv, name), {1, 2, 53, nullptr}, {4, 5, 65535, nullptr}));
  }
  for (const KAVO_TYPE type : {KAVOT_DNS_PTR, KAVOT_DNS_CNAME, KAVOT_BL_CNAME, KAVOT_DNS_NS, KAVOT_BL_NS}) {
    blocks.push_back(named<char *>(type, 0, nullptr, nullptr));
  }
  Block empty(KAVOT_DNS_A);
  blocks.push_back(std::move(empty.entries<in_addr>({}).names("none.example", "").seal()));
  Block packet(KAVOT_PKT, sizeof(dns_rr_pkt));
  blocks.push_back(std::move(packet.packet(std::string("\x12\x34\x81\x80packet", 10)).seal()));
  return blocks;
}

// describe reads a whole block through its public layout. Anything that lies outside the used bytes is a failure.
std::string describe(KAVO_TYPE type, const KAVO_RR &rr) {
  std::ostringstream out;
  const char *start = reinterpret_cast<const char *>(rr.rr_mem);
  const char *end = start + rr.rr_mem->dnsm_written;
  const auto inside = [&](const void *place, size_t size) {
    const char *at = static_cast<const char *>(place);
    const bool fits = at >= start && at <= end && size <= static_cast<size_t>(end - at);
    EXPECT_TRUE(fits) << "type " << type << " points outside its block";
    return fits;
  };
  const auto bytes = [&](const char *place, size_t size) {
    if (inside(place, size)) out << " '" << std::string(place, size) << "'";
  };
  const auto name = [&](const char *place) {
    if (inside(place, 1)) bytes(place, strnlen(place, static_cast<size_t>(end - place)));
  };
  if (type == KAVOT_PKT) {
    bytes(reinterpret_cast<const char *>(rr.rr_pkt->dnspkt_pkt), rr.rr_pkt->dnspkt_psize);
    return out.str();
  }
  const auto count = static_cast<size_t>(rr.rr_null->dnsn_nrr);
  out << rr.rr_null->dnsn_ttl << " x" << count;
  name(rr.rr_null->dnsn_cname);
  name(rr.rr_null->dnsn_qname);
  out << (rr.rr_null->dnsn_cname == rr.rr_null->dnsn_qname ? " shared" : " apart");
  const auto each = [&]<typename Entry>(const Entry *array, auto show) {
    if (!inside(array, count * sizeof(Entry))) return;
    for (size_t i = 0; i < count; ++i)
      show(array[i]);
  };
  switch (static_cast<unsigned>(kavo_convert_type(type))) {
    case DNS_T_A:
      each(rr.rr_a->dnsa4_addr, [&](const in_addr &a) { out << ' ' << a.s_addr; });
      break;
    case DNS_T_AAAA:
      each(rr.rr_a6->dnsa6_addr, [&](const in6_addr &a) { bytes(reinterpret_cast<const char *>(&a), sizeof(a)); });
      break;
    case DNS_T_TXT:
      each(rr.rr_txt->dnstxt_txt, [&](const dns_txt &t) { bytes(t.txt, static_cast<size_t>(t.len)); });
      break;
    case DNS_T_MX:
      each(rr.rr_mx->dnsmx_mx, [&](const dns_mx &m) { out << ' ' << m.priority, name(m.name); });
      break;
    case DNS_T_SRV:
      each(rr.rr_srv->dnssrv_srv,
           [&](const dns_srv &s) { out << ' ' << s.priority << ' ' << s.weight << ' ' << s.port, name(s.name); });
      break;
    default:
      each(rr.rr_ns->dnsns_ns, [&](char *const &n) { name(n); });
      break;
  }
  return out.str();
}

TEST(Records, EveryLayoutSurvivesItsSource) {
  for (Block &source : every_layout()) {
    SCOPED_TRACE(source.type());
    const std::string expected = describe(source.type(), *source.rr());
    KAVO_RR copy = {};
    ASSERT_EQ(kavo_rr_dup(source.type(), source.rr(), &copy), KAVOE_OK);
    EXPECT_EQ(copy.rr_mem->dnsm_size, source.size());
    EXPECT_EQ(kavo_rr_get_size(&copy), source.size());

    KAVO_RR exact = {};
    KAVO_RR tight = {};
    ASSERT_EQ(kavo_rr_alloc(&exact, source.size()), KAVOE_OK);
    ASSERT_EQ(kavo_rr_alloc(&tight, source.size() - 1), KAVOE_OK);
    const Log log;
    EXPECT_EQ(kavo_rr_cpy(source.type(), &copy, &exact), KAVOE_OK);
    EXPECT_EQ(kavo_rr_cpy(source.type(), &copy, &tight), KAVOE_NOMEM);
    EXPECT_EQ(kavo_rr_get_size(&tight), 0U);
    EXPECT_EQ(kavo_rr_dup(source.type(), &copy, &tight), KAVOE_OK) << "an existing block grows";

    memset(source.at(0), 0xee, source.size());
    memset(reinterpret_cast<char *>(copy.rr_mem) + sizeof(dns_rr_mem), 0xee, source.size() - sizeof(dns_rr_mem));
    EXPECT_EQ(describe(source.type(), exact), expected);
    EXPECT_EQ(describe(source.type(), tight), expected);
    for (KAVO_RR *rr : {&copy, &exact, &tight})
      kavo_rr_free(rr);
  }
}

TEST(Records, OnlyTextsOfTxtAreTerminated) {
  for (const bool closed : {true, false}) {
    Block source = texts(closed ? KAVOT_DNS_TXT : KAVOT_DNS_ETXT, closed);
    KAVO_RR copy = {};
    ASSERT_EQ(kavo_rr_dup(source.type(), source.rr(), &copy), KAVOE_OK);
    const dns_txt *text = copy.rr_txt->dnstxt_txt;
    EXPECT_EQ(text[1].txt - text[0].txt, closed ? 6 : 5);
    EXPECT_EQ(text[2].txt[text[2].len], closed ? '\0' : 'l') << "the canonical name follows the last text";
    kavo_rr_free(&copy);
  }
}

TEST(Records, SizesHaveLimits) {
  Log log;
  KAVO_RR rr = {};
  EXPECT_EQ(kavo_rr_alloc(&rr, 1025), KAVOE_NOMEM);
  EXPECT_TRUE(contains(log.take(), "Attempt to allocate too many memory for RR (requested: 1025, limit: 1024)"));
  EXPECT_EQ(rr.rr_mem, nullptr);
  ASSERT_EQ(kavo_rr_realloc(&rr, 0), KAVOE_OK) << "a block without room is still a block";
  Block source = addresses(KAVOT_BL_IP);
  EXPECT_EQ(kavo_rr_dup(KAVOT_BL_IP, source.rr(), &rr), KAVOE_OK);
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

  source.rr()->rr_mem->dnsm_size = 2000;
  EXPECT_EQ(kavo_rr_dup(KAVOT_BL_IP, source.rr(), &rr), KAVOE_NOMEM);
  EXPECT_EQ(rr.rr_mem, nullptr);
  log.take();
  ASSERT_EQ(kavo_rr_alloc(&rr, 1024), KAVOE_OK);
  for (const KAVO_TYPE type : {KAVOT_DNS_A6, KAVOT_SYNC, KAVOT_DNS_SOA, KAVOT_INVALID, KAVOT_DNS_MAX}) {
    EXPECT_EQ(kavo_rr_cpy(type, source.rr(), &rr), KAVOE_FAIL);
  }
  KAVO_RR none = {};
  EXPECT_EQ(kavo_rr_cpy(KAVOT_DNS_A, &none, &rr), KAVOE_BADPAR);
  EXPECT_EQ(kavo_rr_cpy(KAVOT_DNS_A, source.rr(), &none), KAVOE_BADPAR);
  EXPECT_EQ(log.take(), "");
  kavo_rr_free(&rr);
}

// A source that lies is refused, with a word in the log; the destination ends empty and nothing around it is touched.
TEST(Records, LyingSourcesAreRefused) {
  static char elsewhere[] = "elsewhere";
  const auto name_of = [](Block *b) -> char *& { return b->rr()->rr_null->dnsn_cname; };
  const auto list = [] { return named<char *>(KAVOT_BL_NS, 0, nullptr, nullptr); };
  const auto text = [] { return texts(KAVOT_DNS_TXT, true); };
  const auto packet = [] { return std::move(every_layout().back()); };
  struct Lie {
    const char *what;
    std::function<Block()> make;
    std::function<void(Block *)> tell;
  };
  const Lie lies[] = {
      {"negative count", list, [](Block *b) { b->rr()->rr_null->dnsn_nrr = -1; }},
      {"count beyond the block", list, [](Block *b) { b->rr()->rr_null->dnsn_nrr = 1 << 30; }},
      {"array elsewhere", list, [](Block *b) { b->rr()->rr_ns->dnsns_ns = reinterpret_cast<char **>(elsewhere); }},
      {"entry elsewhere", list, [](Block *b) { b->rr()->rr_ns->dnsns_ns[1] = elsewhere; }},
      {"null entry", list, [](Block *b) { b->rr()->rr_ns->dnsns_ns[0] = nullptr; }},
      {"entries that share a long text", list,
       [](Block *b) { b->rr()->rr_ns->dnsns_ns[0] = b->rr()->rr_ns->dnsns_ns[1] = b->rr()->rr_null->dnsn_cname; }},
      {"name elsewhere", list, [&](Block *b) { name_of(b) = elsewhere; }},
      {"null name", list, [&](Block *b) { name_of(b) = nullptr; }},
      {"name inside the record", list, [&](Block *b) { name_of(b) = b->at(sizeof(dns_rr_mem)); }},
      {"name before the entries", list, [&](Block *b) { name_of(b) = b->at(kArrayAt); }},
      {"question's name elsewhere", list, [](Block *b) { b->rr()->rr_null->dnsn_qname = elsewhere; }},
      {"name without an end", list, [](Block *b) { b->at(b->size())[-1] = 'x'; }},
      {"negative text", text, [](Block *b) { b->rr()->rr_txt->dnstxt_txt[0].len = -5; }},
      {"text beyond the block", text, [](Block *b) { b->rr()->rr_txt->dnstxt_txt[2].len = INT32_MAX; }},
      {"texts that share a long text", text,
       [](Block *b) {
         for (int i = 0; i < 2; ++i)
           b->rr()->rr_txt->dnstxt_txt[i] = {12, b->rr()->rr_null->dnsn_cname};
       }},
      {"text elsewhere", text, [](Block *b) { b->rr()->rr_txt->dnstxt_txt[2].txt = elsewhere; }},
      {"less than a record", text, [](Block *b) { b->rr()->rr_mem->dnsm_written = kArrayAt - 1; }},
      {"packet beyond the block", packet, [](Block *b) { b->rr()->rr_pkt->dnspkt_psize++; }},
      {"endless packet", packet, [](Block *b) { b->rr()->rr_pkt->dnspkt_psize = UINT32_MAX; }},
  };
  constexpr uint64_t kCanary = 0x5ca1ab1e5ca1ab1e;
  for (const Lie &lie : lies) {
    SCOPED_TRACE(lie.what);
    Block source = lie.make();
    lie.tell(&source);
    std::vector<uint64_t> room(64, kCanary);
    KAVO_RR target = {.rr_mem = reinterpret_cast<dns_rr_mem *>(room.data())};
    *target.rr_mem = {source.size(), 8};
    Log log;
    EXPECT_EQ(kavo_rr_cpy(source.type(), source.rr(), &target), KAVOE_FAIL);
    EXPECT_EQ(target.rr_mem->dnsm_written, 0U);
    EXPECT_TRUE(contains(log.take(), "[assertion at kavo_rr:"));
    for (size_t i = (source.size() + 7) / 8; i < room.size(); ++i)
      ASSERT_EQ(room[i], kCanary);
  }
}

// Blocks with any bytes changed copy to something whole or not at all.
TEST(Records, ChangedBytesNeverEscape) {
  const Log log;
  for (unsigned seed = 0; seed < 400; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (Block &source : every_layout()) {
      for (unsigned changes = 1 + random() % 4; changes > 0; --changes) {
        const size_t at = sizeof(dns_rr_mem) + random() % (source.size() - sizeof(dns_rr_mem));
        *source.at(at) = static_cast<char>(random() % 2 == 0 ? random() : *source.at(at) + 8);
      }
      KAVO_RR copy = {};
      const KAVO_ERR result = kavo_rr_dup(source.type(), source.rr(), &copy);
      EXPECT_TRUE(result == KAVOE_OK || result == KAVOE_FAIL);
      if (result == KAVOE_OK) describe(source.type(), copy);
      kavo_rr_free(&copy);
    }
  }
}

// ---- zones
// --------------------------------------------------------------------------------------------------------------

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
  EXPECT_EQ(kavo_add_zone(kavo_, KAVOT_BL_IP, ""), KAVOE_BADPAR);
  EXPECT_EQ(kavo_add_zone(kavo_, KAVOT_BL_IP, nullptr), KAVOE_BADPAR);
  EXPECT_EQ(kavo_add_zone(nullptr, KAVOT_BL_IP, "a.example"), KAVOE_BADPAR);
  EXPECT_EQ(kavo_add_zone(kavo_, KAVOT_BL_A6, std::string(255, 'x').c_str()), KAVOE_BADPAR);

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

TEST_F(Zones, ARunningContextKeepsItsZones) {
  EXPECT_EQ(kavo_zonesmap_init_cfg(kavo_, nullptr), KAVOE_BADPAR);
  EXPECT_EQ(load("#IP\nkept.example\n"), KAVOE_OK);
  ASSERT_EQ(kavo_open(kavo_), KAVOE_OK);
  log_.take();
  EXPECT_EQ(load("#IP\nother.example\n"), KAVOE_SRV);
  EXPECT_TRUE(contains(log_.take(), "Cannot initialize zonesmap because KAVO is already opened"));
  EXPECT_EQ(zone(1), "kept.example");
  KAVO_QUERY_NODE node = nullptr;
  EXPECT_EQ(kavo_subscribe_node_p(kavo_, KAVOT_BL_DOM, "example", 0, nullptr, &node), KAVOE_NOZONES);
  ASSERT_EQ(kavo_close(kavo_), KAVOE_OK);

  ASSERT_EQ(load("#nonsense\n"), KAVOE_FILE);
  ASSERT_EQ(kavo_open(kavo_), KAVOE_OK);
  EXPECT_EQ(kavo_subscribe_node_p(kavo_, KAVOT_DNS_A, "example", 0, nullptr, &node), KAVOE_NOZONES)
      << "a released map has no zone, not even the one that stands for none";
  EXPECT_EQ(kavo_close(kavo_), KAVOE_OK);
}

}  // namespace
