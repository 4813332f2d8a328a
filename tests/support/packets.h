// packets.h - answers built by hand for tests, and what every record block that comes of one must satisfy.
//
// Every packet under test lies in a heap buffer of exactly its size, so that a read past its end is seen by the
// sanitizer.
#ifndef TESTS_SUPPORT_PACKETS_H
#define TESTS_SUPPORT_PACKETS_H

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <dns_wire.h>

namespace packets {

using Bytes = std::vector<uint8_t>;
using dns::Block;

inline constexpr Block kBlocks[] = {Block::a4,  Block::a6,    Block::txt, Block::etxt, Block::mx,
                                    Block::ptr, Block::cname, Block::ns,  Block::srv,  Block::pkt};

inline Bytes dn(const std::string &text) {
  Bytes out(DNS_MAXDN);
  const int size = dns_ptodn(text.data(), static_cast<unsigned>(text.size()), out.data(), DNS_MAXDN, nullptr);
  EXPECT_GT(size, 0) << text;
  out.resize(static_cast<size_t>(std::max(size, 0)));
  return out;
}

inline Bytes operator+(Bytes left, const Bytes &right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// Answer builds packets by hand, so that they can be as wrong as a test needs.
struct Answer {
  Bytes packet;

  explicit Answer(const std::string &question, dns_type typ = DNS_T_A) {
    packet = Bytes{0x12, 0x34, 0x81, 0x80, 0, 1, 0, 0, 0, 0, 0, 0} + dn(question);
    packet = packet + Bytes{0, static_cast<uint8_t>(typ), 0, DNS_C_IN};
    answers_at = packet.size();
  }
  Answer &add(const Bytes &owner, dns_type typ, const Bytes &data, uint32_t ttl = 300, int section = DNS_S_AN) {
    packet = packet + owner + Bytes{0, static_cast<uint8_t>(typ), 0, DNS_C_IN};
    for (int shift = 24; shift >= 0; shift -= 8)
      packet.push_back(static_cast<uint8_t>(ttl >> shift));
    packet = packet + Bytes{static_cast<uint8_t>(data.size() >> 8), static_cast<uint8_t>(data.size())} + data;
    const size_t at = 4 + 2 * static_cast<size_t>(section);
    if (++packet[at + 1] == 0) ++packet[at];
    return *this;
  }
  Answer &add(const std::string &owner, dns_type typ, const Bytes &data, uint32_t ttl = 300, int section = DNS_S_AN) {
    return add(dn(owner), typ, data, ttl, section);
  }
  size_t answers_at;
};

inline const Bytes kQuestionPointer = {0xC0, DNS_HSIZE};

// Laid is a block laid out in a buffer of exactly the size it needs, or the status of why there is none.
struct Laid {
  Laid(Block kind, const Bytes &packet, size_t answers_at, const std::string &name,
       unsigned aliases = dns::kAliasesMax) {
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[packet.size()]);
    std::copy(packet.begin(), packet.end(), exact.get());
    const Bytes question = dn(name);
    const std::span<const uint8_t> bytes(exact.get(), packet.size());
    size_t needed = 0;
    status = dns::lay_block(kind, bytes, answers_at, question.data(), {}, &needed, aliases);
    if (status != DNS_E_NOBUFS) return;
    memory.reset(new uint8_t[needed]);
    status = dns::lay_block(kind, bytes, answers_at, question.data(), {memory.get(), needed}, nullptr, aliases);
    EXPECT_EQ(status, static_cast<int>(needed));
  }
  template <typename Layout>
  const Layout *as() const {
    return reinterpret_cast<const Layout *>(memory.get());
  }
  bool holds(const void *place, size_t size) const {
    const auto *first = static_cast<const uint8_t *>(place);
    return first >= memory.get() && first + size <= memory.get() + status;
  }
  bool holds_text(const char *text) const { return holds(text, 1) && holds(text, strlen(text) + 1); }
  int status = 0;
  std::unique_ptr<uint8_t[]> memory;
};

template <typename Entry>
void expect_entries_inside(const Laid &laid, const void *entries, int count) {
  const auto *entry = static_cast<const Entry *>(entries);
  ASSERT_TRUE(laid.holds(entry, sizeof(Entry) * static_cast<size_t>(count)));
  for (int i = 0; i < count; ++i) {
    if constexpr (std::is_same_v<Entry, dns_txt>) {
      ASSERT_TRUE(entry[i].len >= 0 && laid.holds(entry[i].txt, static_cast<size_t>(entry[i].len)));
    } else if constexpr (std::is_same_v<Entry, char *>) {
      ASSERT_TRUE(laid.holds_text(entry[i]));
    } else if constexpr (!std::is_same_v<Entry, in_addr> && !std::is_same_v<Entry, in6_addr>) {
      ASSERT_TRUE(laid.holds_text(entry[i].name));
    }
  }
}

using EntryCheck = void(const Laid &laid, const void *entries, int count);
inline constexpr EntryCheck *kEntryChecks[] = {
    expect_entries_inside<in_addr>, expect_entries_inside<in6_addr>, expect_entries_inside<dns_txt>,
    expect_entries_inside<dns_txt>, expect_entries_inside<dns_mx>,   expect_entries_inside<char *>,
    expect_entries_inside<char *>,  expect_entries_inside<char *>,   expect_entries_inside<dns_srv>};

// expect_sound checks what holds for every block: its sizes, and that every pointer in it leads into it.
inline void expect_sound(Block kind, const Laid &laid) {
  ASSERT_EQ(laid.as<dns_rr_mem>()->dnsm_size, static_cast<uint32_t>(laid.status));
  ASSERT_EQ(laid.as<dns_rr_mem>()->dnsm_written, static_cast<uint32_t>(laid.status));
  if (kind == Block::pkt) return;
  const auto *head = laid.as<dns_rr_null>();
  ASSERT_TRUE(laid.holds_text(head->dnsn_cname) && laid.holds_text(head->dnsn_qname) && head->dnsn_ttl >= 0);
  kEntryChecks[static_cast<size_t>(kind)](laid, laid.as<dns_rr_a4>()->dnsa4_addr, head->dnsn_nrr);
}

// attack reads a packet in every way there is; each must end in a status or in a sound block.
inline void attack(const Bytes &packet, size_t answers_at, const std::string &name) {
  for (const Block kind : kBlocks) {
    const Laid laid(kind, packet, answers_at, name);
    if (laid.status >= 0) expect_sound(kind, laid);
  }
  const std::unique_ptr<uint8_t[]> exact(new uint8_t[packet.size()]);
  std::copy(packet.begin(), packet.end(), exact.get());
  const std::span<const uint8_t> bytes(exact.get(), packet.size());
  dns::Denial denial;
  size_t at = 0;
  if (dns::section_at(bytes, DNS_S_NS, &at)) (void)dns::read_denial(bytes, at, dn(name), &denial);
  dns_parse parse;
  uint8_t question[DNS_MAXDN];
  uint8_t copy[4096];
  dns_pkt out;
  if (dns_initparse(&parse, exact.get(), exact.get() + packet.size(), question) != 0) return;
  ASSERT_GT(dns_initpacket(&out, copy, sizeof copy, question, DNS_T_A, DNS_C_IN), 0);
  for (int section = DNS_S_AN; section <= DNS_S_AR && dns_rewind_sec(&parse, section) == 0; ++section) {
    for (dns_rr rr; dns_nextrr(&parse, &rr) == 1;)
      (void)dns_addrr(&out, &parse, &rr);
  }
}

// rich_answer holds a record of every type that a block is made of, at the end of a chain of one alias.
inline Answer rich_answer() {
  Answer answer("www.example.org");
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

}  // namespace packets

#endif  // TESTS_SUPPORT_PACKETS_H
