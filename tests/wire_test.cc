// wire_test.cc - names, packets and record blocks, from well-formed answers to hostile bytes.
#include <block.h>
#include <block_text.h>
#include <chain.h>
#include <cursor.h>
#include <dns_wire.h>
#include <gtest/gtest.h>
#include <message.h>
#include <negative.h>
#include <packet.h>
#include <stream.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

using testbed::Bytes;
using testbed::kQuestionPointer;
using testbed::Packet;
using testbed::operator+;
using dns::Block;

constexpr Block kBlocks[] = {Block::a4,  Block::a6,    Block::txt, Block::etxt, Block::mx,
                             Block::ptr, Block::cname, Block::ns,  Block::srv,  Block::pkt};

// dn is the library's own conversion, escapes included.
Bytes dn(const std::string &text) {
  Bytes out(DNS_MAXDN);
  const int size = dns_ptodn(text.data(), static_cast<unsigned>(text.size()), out.data(), DNS_MAXDN, nullptr);
  EXPECT_GT(size, 0) << text;
  out.resize(static_cast<size_t>(std::max(size, 0)));
  return out;
}

// Laid is a block in a buffer of exactly the size it needs, every pointer checked, or the status of why there is none.
struct Laid {
  Laid(Block kind, const Packet &packet, const std::string &name, unsigned cnames_max = dns::kCnamesMax)
      : Laid(kind, packet.bytes, packet.answers_at, name, cnames_max) {}
  Laid(Block kind, const Bytes &packet, size_t answers_at, const std::string &name,
       unsigned cnames_max = dns::kCnamesMax) {
    const testbed::Exact exact(packet);
    const Bytes qname = dn(name);
    size_t needed = 0;
    status = dns::lay_block(kind, exact.span(), answers_at, qname.data(), {}, &needed, cnames_max);
    if (status != DNS_E_NOBUFS) return;
    memory.reset(new uint8_t[needed]);
    status = dns::lay_block(kind, exact.span(), answers_at, qname.data(), {memory.get(), needed}, nullptr, cnames_max);
    EXPECT_EQ(status, static_cast<int>(needed));
    EXPECT_EQ(as<dns_rr_mem>()->dnsm_size, needed);
    EXPECT_EQ(as<dns_rr_mem>()->dnsm_written, needed);
    EXPECT_TRUE(kind == Block::pkt || as<dns_rr_null>()->dnsn_ttl >= 0);
    (void)testbed::text_of(testbed::kBlockTypes[static_cast<size_t>(kind)], {as<dns_rr_mem>()});
  }
  template <typename Layout>
  Layout *as() const {
    return reinterpret_cast<Layout *>(memory.get());
  }
  int status = 0;
  std::unique_ptr<uint8_t[]> memory;
};

// rich_answer holds a record of every type that a block is made of, at the end of a chain of one CNAME.
Packet rich_answer() {
  Packet answer("www.example.org");
  const Bytes target = {4, 'h', 'o', 's', 't', 0xC0, DNS_HSIZE + 4};
  answer.add(kQuestionPointer, DNS_T_CNAME, target, 600);
  answer.add("host.example.org", DNS_T_A, {192, 0, 2, 1}).add("host.example.org", DNS_T_A, {192, 0, 2, 2}, 60);
  answer.add("host.example.org", DNS_T_AAAA, Bytes(16, 0x20));
  answer.add("host.example.org", DNS_T_TXT, {3, 'a', 'b', 'c', 0, 2, 'd', 'e'});
  answer.add("host.example.org", DNS_T_MX, Bytes{0, 10} + target);
  answer.add("HOST.example.org", DNS_T_PTR, target).add("host.example.org", DNS_T_NS, target);
  answer.add("host.example.org", DNS_T_SRV, Bytes{0, 1, 0, 2, 0x1F, 0x90} + target);
  answer.add("example.org", DNS_T_SOA, target + target + Bytes(20, 0), 300, DNS_S_NS);
  return answer;
}

TEST(Names, TextsRoundTrip) {
  const std::string label63(63, 'x');
  const std::string longest = label63 + "." + label63 + "." + label63 + "." + std::string(61, 'y');
  for (const std::string &text : {std::string("."), std::string("a"), std::string("Mail.Example.org"), longest,
                                  std::string(R"(a\.b.\\c)"), std::string(R"(\000\032\255.z)")}) {
    const Bytes name = dn(text);
    EXPECT_EQ(dns_dnlen(name.data()), name.size());
    EXPECT_EQ(text, dns_dntosp(name.data()));
    EXPECT_EQ(dns_dntop_size(name.data()), text.size() + 1);
  }
  EXPECT_EQ(dn(longest).size(), size_t{DNS_MAXDN});
  Bytes opaque(DNS_MAXDN, 1);
  for (size_t i = 0; i < DNS_MAXDN; i += 64)
    opaque[i] = static_cast<uint8_t>(std::min<size_t>(63, DNS_MAXDN - 2 - i));
  opaque[DNS_MAXDN - 1] = 0;
  EXPECT_LE(dns_dntop_size(opaque.data()), unsigned{DNS_MAXNAME});
  EXPECT_EQ(dn(dns_dntosp(opaque.data())), opaque);
}

TEST(Names, TextsThatAreNoNames) {
  uint8_t out[DNS_MAXDN];
  const auto convert = [&out](const std::string &text, int size = DNS_MAXDN) {
    int absolute = -1;
    return dns_ptodn(text.data(), static_cast<unsigned>(text.size()), out, size, &absolute);
  };
  for (const std::string text : {"..", ".a", "a..b", "a..", "a\\", "a\\1", "a\\12x", "\\256", "\\999"}) {
    EXPECT_LT(convert(text), 0) << text;
  }
  EXPECT_LT(convert(std::string("a\0b", 3)), 0);
  EXPECT_LT(dns_ptodn("", 0, out, DNS_MAXDN, nullptr), 0);
  const std::string label(63, 'x');
  EXPECT_LT(convert(label + "x"), 0);
  EXPECT_EQ(convert(label + "." + label + "." + label + "." + std::string(62, 'y')), 0);
  EXPECT_EQ(convert("abc.de", 8), 8);
  EXPECT_EQ(convert("abc.de", 7), 0);
  EXPECT_EQ(convert(".", 0), 0);
  int absolute = 0;
  EXPECT_EQ(dns_ptodn("org.", 0, out, DNS_MAXDN, &absolute), 5);
  EXPECT_EQ(absolute, 1);
  EXPECT_EQ(dns_ptodn("org.net", 3, out, DNS_MAXDN, &absolute), 5);
  EXPECT_EQ(absolute, 0);
}

TEST(Names, ComparisonAndBadWireForms) {
  EXPECT_EQ(dns_dnequal(dn("A.Example.ORG").data(), dn("a.eXample.org").data()), 15U);
  EXPECT_EQ(dns_dnequal(dn(".").data(), dn(".").data()), 1U);
  EXPECT_EQ(dns_dnequal(dn("a.b").data(), dn("a\\.b").data()), 0U);
  EXPECT_EQ(dns_dnequal(dn("[").data(), dn("{").data()), 0U);
  EXPECT_EQ(dns_dnequal(dn("\\200").data(), dn("\\232").data()), 0U);
  const Bytes endless(DNS_MAXDN, 1);
  const Bytes pointer = {0xC0, 0};
  const Bytes extended = {0x41, 'a', 0};
  char text[DNS_MAXNAME];
  for (const Bytes &bad : {endless, pointer, extended}) {
    EXPECT_EQ(dns_dnlen(bad.data()), 0U);
    EXPECT_EQ(dns_dnequal(bad.data(), bad.data()), 0U);
    EXPECT_LT(dns_dntop(bad.data(), text, sizeof text), 0);
    EXPECT_STREQ(dns_dntosp(bad.data()), "");
  }
}

TEST(Compression, OnlyBackwardsAndNeverTooLong) {
  const auto read = [](const Bytes &packet, size_t at) {
    uint8_t out[DNS_MAXDN];
    dns::Reader reader(packet, at);
    return reader.name(out) ? std::string(dns_dntosp(out)) : std::string("refused");
  };
  const Bytes good = {1, 'a', 0, 1, 'b', 0xC0, 0, 0xC0, 3};
  EXPECT_EQ(read(good, 7), "b.a");
  const std::pair<Bytes, size_t> refused[] = {
      {{0xC0, 0}, 0}, {{1, 'a', 0xC0, 0}, 0}, {{0xC0, 2, 0}, 0}, {{1, 'a', 0xC0, 4, 1, 'b', 0xC0, 0}, 4},
      {{0xC0}, 0},    {{0x40, 0}, 0},         {{0x80, 0}, 0},    {{3, 'a', 'b'}, 0}};
  for (const auto &[packet, at] : refused)
    EXPECT_EQ(read(packet, at), "refused") << testing::PrintToString(packet);
  Bytes ladder = {0};
  for (unsigned i = 0; i < 130; ++i) {
    const size_t back = i == 0 ? 0 : ladder.size() - 63;
    ladder =
        ladder + Bytes{60} + Bytes(60, 'x') + Bytes{static_cast<uint8_t>(0xC0 | back >> 8), static_cast<uint8_t>(back)};
  }
  EXPECT_NE(read(ladder, 1 + 3 * 63), "refused");
  EXPECT_EQ(read(ladder, 1 + 4 * 63), "refused");
  Bytes relays = {0, 0xC0, 0};  // pointers to pointers
  for (size_t at = 1; at < 400; at += 2) {
    relays = relays + Bytes{static_cast<uint8_t>(0xC0 | at >> 8), static_cast<uint8_t>(at)};
  }
  EXPECT_EQ(read(relays, 101), ".");
  EXPECT_EQ(read(relays, relays.size() - 2), "refused");
}

TEST(Blocks, EveryKindAtTheEndOfACname) {
  const Packet answer = rich_answer();
  const std::string name = "www.example.org";
  for (const Block kind : kBlocks) {
    if (kind == Block::cname) continue;
    const Laid laid(kind, answer, name);
    ASSERT_GT(laid.status, 0);
    if (kind == Block::pkt) continue;
    EXPECT_STREQ(laid.as<dns_rr_null>()->dnsn_cname, "host.example.org");
    EXPECT_STREQ(laid.as<dns_rr_null>()->dnsn_qname, "www.example.org");
  }
  const Laid a4(Block::a4, answer, name);
  EXPECT_EQ(a4.as<dns_rr_a4>()->dnsa4_ttl, 60) << "the least of its records and CNAMEs";
  const Laid txt(Block::txt, answer, name);
  const Laid etxt(Block::etxt, answer, name);
  EXPECT_EQ(etxt.status, txt.status - 1);
  EXPECT_EQ(etxt.as<dns_rr_txt>()->dnstxt_txt[0].txt + 5, etxt.as<dns_rr_txt>()->dnstxt_cname);
  const Laid cname(Block::cname, answer, name);
  ASSERT_EQ(cname.as<dns_rr_cname>()->dnscname_nrr, 1);
  EXPECT_STREQ(cname.as<dns_rr_cname>()->dnscname_cnames[0], "host.example.org");
  EXPECT_EQ(cname.as<dns_rr_cname>()->dnscname_cname, cname.as<dns_rr_cname>()->dnscname_qname);
  const Laid pkt(Block::pkt, answer, name);
  EXPECT_EQ(pkt.status, static_cast<int>(12 + answer.bytes.size()));
  EXPECT_EQ(memcmp(pkt.as<dns_rr_pkt>()->dnspkt_pkt, answer.bytes.data(), answer.bytes.size()), 0);
}

TEST(Blocks, EmptyAnswersAndMalformedData) {
  const Packet empty("none.example.org");
  const Laid none(Block::a4, empty, "none.example.org");
  ASSERT_GT(none.status, 0);
  EXPECT_EQ(none.as<dns_rr_a4>()->dnsa4_nrr, 0);
  EXPECT_EQ(none.as<dns_rr_a4>()->dnsa4_ttl, 0);
  EXPECT_EQ(none.as<dns_rr_a4>()->dnsa4_cname, none.as<dns_rr_a4>()->dnsa4_qname);
  alignas(8) uint8_t buffer[256];
  const Bytes name = dn("none.example.org");
  EXPECT_EQ(dns::lay_block(Block::a4, empty.bytes, empty.answers_at, name.data(), {buffer + 4, 200}, nullptr),
            DNS_E_INVAL);
  const struct {
    Block kind;
    dns_type typ;
    Bytes data;
  } wrong[] = {
      {Block::a4, DNS_T_A, {1, 2, 3}},        {Block::a4, DNS_T_A, {1, 2, 3, 4, 5}},
      {Block::a6, DNS_T_AAAA, Bytes(15, 1)},  {Block::txt, DNS_T_TXT, {}},
      {Block::txt, DNS_T_TXT, {3, 'a', 'b'}}, {Block::mx, DNS_T_MX, {0, 1}},
      {Block::mx, DNS_T_MX, {0, 1, 0, 0}},    {Block::srv, DNS_T_SRV, {0, 1, 0, 1, 0}},
      {Block::ns, DNS_T_NS, {1, 'a'}},        {Block::ptr, DNS_T_PTR, {0xC0, 0xFF}},
  };
  for (const auto &bad : wrong) {
    Packet answer("www.example.org");
    answer.add(kQuestionPointer, bad.typ, bad.data);
    EXPECT_EQ(Laid(bad.kind, answer, "www.example.org").status, DNS_E_PROTOCOL);
    EXPECT_GT(Laid(Block::pkt, answer, "www.example.org").status, 0);
  }
  Packet high("www.example.org");
  high.add(kQuestionPointer, DNS_T_A, {192, 0, 2, 1}, 0x80000001U);
  EXPECT_EQ(Laid(Block::a4, high, "www.example.org").as<dns_rr_a4>()->dnsa4_ttl, 0);
}

TEST(Blocks, HoldTheRecordsOfTheQuerysClass) {
  constexpr uint8_t kChaos = 3;
  Packet answer("version.bind");
  answer.add(kQuestionPointer, DNS_T_TXT, {3, 'o', 'n', 'e'});
  answer.bytes.at(answer.answers_at - 1) = kChaos;
  EXPECT_EQ(Laid(Block::txt, answer, "version.bind").as<dns_rr_txt>()->dnstxt_nrr, 0);
  constexpr size_t kPointerTypeAndHalfTheClass = 5;
  answer.bytes.at(answer.answers_at + kPointerTypeAndHalfTheClass) = kChaos;
  EXPECT_EQ(Laid(Block::txt, answer, "version.bind").as<dns_rr_txt>()->dnstxt_nrr, 1);
}

// chain_answer makes CNAME records n0 -> n1 -> ... -> n<links>, with an address at the end.
Packet chain_answer(int links, bool reverse, bool loop = false) {
  Packet answer("n0");
  const auto node = [](int i) { return "n" + std::to_string(i); };
  const std::string end = node(links);
  if (!loop && reverse) answer.add(end, DNS_T_A, {192, 0, 2, 1}, 77);
  for (int i = 0; i < links; ++i) {
    const int link = reverse ? links - 1 - i : i;
    answer.add(node(link), DNS_T_CNAME, dn(loop && link == links - 1 ? node(0) : node(link + 1)));
  }
  if (!loop && !reverse) answer.add(end, DNS_T_A, {192, 0, 2, 1}, 77);
  return answer.add("stranger", DNS_T_A, {192, 0, 2, 66}, 1);
}

TEST(Chains, AnyOrderUpToTheBound) {
  for (const bool reverse : {false, true}) {
    for (const int links : {1, 2, 16}) {
      const Packet answer = chain_answer(links, reverse);
      const Laid laid(Block::a4, answer, "n0");
      ASSERT_GT(laid.status, 0);
      EXPECT_EQ(laid.as<dns_rr_a4>()->dnsa4_nrr, 1);
      EXPECT_EQ(laid.as<dns_rr_a4>()->dnsa4_ttl, 77);
      EXPECT_EQ("n" + std::to_string(links), laid.as<dns_rr_a4>()->dnsa4_cname);
      EXPECT_STREQ(laid.as<dns_rr_a4>()->dnsa4_qname, "n0");
      EXPECT_EQ(Laid(Block::a4, answer, "n0", static_cast<unsigned>(links) - 1).status, DNS_E_CNLOOP);
    }
    for (const int links : {1, 2, 5}) {
      const Packet loop = chain_answer(links, reverse, true);
      EXPECT_EQ(Laid(Block::a4, loop, "n0", UINT32_MAX).status, DNS_E_CNLOOP);
    }
  }
  dns::Chain chain;
  const Packet rich = rich_answer();
  ASSERT_EQ(dns::follow_chain(rich.bytes, rich.answers_at, dn("host.example.org"), DNS_T_ANY, DNS_C_IN, 4, &chain), 0);
  EXPECT_EQ(chain.records, 8U);
  ASSERT_EQ(dns::follow_chain(rich.bytes, rich.answers_at, dn("www.example.org"), DNS_T_ANY, DNS_C_IN, 4, &chain), 0);
  EXPECT_EQ(chain.cnames, 0U);
  ASSERT_EQ(dns::follow_chain(rich.bytes, rich.answers_at, dn("www.example.org"), DNS_T_A, 3, 4, &chain), 0);
  EXPECT_EQ(chain.cnames + chain.records, 0U);
}

TEST(Chains, LargestPacketsTakeBoundedTime) {
  const auto begin = std::chrono::steady_clock::now();
  const Packet reverse = chain_answer(2500, true);
  EXPECT_EQ(Laid(Block::a4, reverse, "n0").status, DNS_E_CNLOOP);
  std::string deep = "a";
  while (deep.size() < 250)
    deep += ".a";
  Packet tiny(deep);
  const Bytes deeper = {1, 'b', 0xC0, DNS_HSIZE + 2};
  while (tiny.bytes.size() + 15 <= DNS_MAXPACKET)
    tiny.add(deeper, DNS_T_A, {});
  for (const Block kind : kBlocks)
    EXPECT_GT(Laid(kind, tiny, deep).status, 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

TEST(NegativeAnswers, TheSoaMustCoverTheName) {
  const auto read = [](const std::string &owner, uint32_t ttl, uint32_t minimum) {
    Packet answer("www.example.org");
    answer.add("ns.zone", DNS_T_NS, dn("a.b"), 9, DNS_S_NS);
    Bytes data = dn("ns") + dn("mail") + Bytes(16, 0);
    for (int shift = 24; shift >= 0; shift -= 8)
      data.push_back(static_cast<uint8_t>(minimum >> shift));
    answer.add(owner, DNS_T_SOA, data, ttl, DNS_S_NS);
    dns::NegativeAnswer negative;
    EXPECT_EQ(dns::read_negative(answer.bytes, answer.answers_at, dn("www.example.org"), &negative), 0);
    EXPECT_TRUE(negative.ns);
    EXPECT_STREQ(dns_dntosp(negative.zone), negative.soa ? owner.c_str() : "ns.zone");
    return negative.soa ? negative.ttl : -1;
  };
  EXPECT_EQ(read("example.ORG", 300, 60), 60);
  EXPECT_EQ(read(".", 30, 60), 30);
  EXPECT_EQ(read("www.example.org", 30, 0xFFFFFFFFU), 0);
  EXPECT_EQ(read("ample.org", 30, 60), -1);
  EXPECT_EQ(read("a.www.example.org", 30, 60), -1);
  Packet cut("www.example.org");
  cut.add("example.org", DNS_T_SOA, Bytes(21, 0), 1, DNS_S_NS);
  dns::NegativeAnswer negative;
  EXPECT_EQ(dns::read_negative(cut.bytes, cut.answers_at, dn("www.example.org"), &negative), DNS_E_PROTOCOL);
}

TEST(Packets, QuestionsAndRebuiltAnswers) {
  uint8_t buffer[512];
  dns::Header header{};
  const Bytes name = dn("www.example.org");
  const size_t size = dns::write_query(buffer, 0xABCD, true, name, DNS_T_MX, DNS_C_IN);
  ASSERT_EQ(size, DNS_HSIZE + name.size() + 4);
  EXPECT_EQ(dns::write_query({buffer, size - 1}, 1, true, name, DNS_T_MX, DNS_C_IN), 0U);

  const Packet source = rich_answer();
  dns_parse parse;
  dns_pkt out;
  uint8_t qname[DNS_MAXDN];
  const uint8_t *first = source.bytes.data();
  ASSERT_EQ(dns_initparse(&parse, first, first + source.bytes.size(), qname), 0);
  ASSERT_EQ(dns_rewind_sec(&parse, DNS_S_AN), 0);
  ASSERT_GT(dns_initpacket(&out, buffer, sizeof buffer, qname, DNS_T_A, DNS_C_IN), 0);
  ASSERT_EQ(dns_end_section(&out, DNS_S_AN), 0);
  uint8_t other[512];
  dns_pkt uncompressed;
  ASSERT_GT(dns_initpacket(&uncompressed, other, sizeof other, qname, DNS_T_A, DNS_C_IN), 0);
  const std::set<dns_type> names = {DNS_T_CNAME, DNS_T_MX, DNS_T_PTR, DNS_T_NS, DNS_T_SRV};
  for (dns_rr rr; dns_nextrr(&parse, &rr) == 1;) {
    ASSERT_EQ(dns_addrr(&out, &parse, &rr), 0);
    EXPECT_EQ(dns_addrr(&uncompressed, nullptr, &rr) == DNS_E_PROTOCOL, names.contains(rr.dnsrr_typ)) << rr.dnsrr_typ;
  }
  const Bytes rebuilt(buffer, out.dnspk_end);
  ASSERT_TRUE(dns::read_header(rebuilt, &header));
  EXPECT_TRUE(header.qr && header.ra && header.count[DNS_S_AN] == 9 && header.count[DNS_S_NS] == 0);
  ASSERT_EQ(dns_end_section(&out, DNS_S_ALL), 0);
  dns_rr rr = {};
  EXPECT_EQ(dns_addrr(&out, nullptr, &rr), DNS_E_INVAL);
  EXPECT_EQ(dns_initpacket(&out, buffer, 20, qname, DNS_T_A, DNS_C_IN), DNS_E_NOBUFS);
}

TEST(Blocks, AnAnswerCutShortAnywhereIsRefused) {
  const Packet answer = rich_answer();
  size_t answers_end = 0;
  ASSERT_TRUE(dns::section_at(answer, DNS_S_NS, &answers_end));
  for (size_t size = 0; size < answer.bytes.size(); ++size) {
    const Bytes cut(answer.bytes.begin(), answer.bytes.begin() + static_cast<ptrdiff_t>(size));
    EXPECT_EQ(Laid(Block::a4, cut, answer.answers_at, "www.example.org").status == DNS_E_PROTOCOL, size < answers_end)
        << size;
  }
}

}  // namespace
