// packet.h - DNS packets built by hand, so that they can be as wrong as a test needs. Written without the library's own
// writer, which would hide its faults.
#ifndef KAVO_TESTBED_PACKET_H
#define KAVO_TESTBED_PACKET_H

#include <kavo/dns.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace testbed {

using Bytes = std::vector<uint8_t>;

Bytes operator+(Bytes left, std::span<const uint8_t> right);

// Numbers in network byte order.
[[nodiscard]] Bytes u16(unsigned value);
[[nodiscard]] Bytes u32(uint32_t value);
// dn returns a name in wire form; "" and "." are the root. A dot in a label cannot be written.
[[nodiscard]] Bytes dn(std::string_view dotted);
// soa returns an SOA record's data, `minimum` its last figure.
[[nodiscard]] Bytes soa(uint32_t minimum, const Bytes &primary, const Bytes &mailbox);

// question_end returns the end of a packet's question section of one question; 0 when it is not whole.
[[nodiscard]] size_t question_end(std::span<const uint8_t> packet);

// Places in the header.
inline constexpr size_t kFlagsAt = 2, kRcodeAt = 3, kQuestionsAt = 5, kAnswersAt = 7, kAuthorityAt = 9,
                        kAdditionalAt = 11;
inline constexpr uint8_t kQr = 0x80, kAa = 4, kTc = 2, kRd = 1;
inline constexpr uint16_t kQueryFlags = kRd << 8, kAnswerFlags = 0x8180;  // RD; QR, RD and RA

// A record's owner: a pointer to the query name.
inline const Bytes kQuestionPointer = {0xC0, DNS_HSIZE};

// Packet is a header, a question and whatever is added.
struct Packet {
  explicit Packet(std::string_view name, dns_type type = DNS_T_A, uint16_t id = 0x1234, uint16_t flags = kAnswerFlags);
  // reply repeats a query's header and question; RD stays, QR is set, and AA as told.
  static Packet reply(std::span<const uint8_t> query, unsigned rcode = 0, bool authoritative = true);

  Packet &add(const Bytes &owner, dns_type type, const Bytes &data, uint32_t ttl = 300, int section = DNS_S_AN);
  Packet &add(std::string_view owner, dns_type type, const Bytes &data, uint32_t ttl = 300, int section = DNS_S_AN) {
    return add(dn(owner), type, data, ttl, section);
  }
  // name returns the query name in lower case, without a dot at its end.
  [[nodiscard]] std::string name() const;
  operator std::span<const uint8_t>() const { return bytes; }

  Bytes bytes;
  size_t answers_at;

 private:
  explicit Packet(Bytes start) : bytes(std::move(start)), answers_at(bytes.size()) {}
};

}  // namespace testbed

#endif  // KAVO_TESTBED_PACKET_H
