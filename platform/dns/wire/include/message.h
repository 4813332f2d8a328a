// message.h - a packet as a whole: its header, its sections, and the query that asks for one.
//
// Stateless functions, for any thread; a Sections belongs to one thread. Nothing here allocates or keeps a packet: the
// caller owns the bytes. Single records are in record.h.
#ifndef MESSAGE_H
#define MESSAGE_H

#include <stddef.h>
#include <stdint.h>

#include <span>

#include <cursor.h>
#include <kavo/dns.h>

namespace dns {

// Header is a packet's first twelve bytes (RFC 1035, 4.1.1).
struct Header {
  uint16_t id;
  bool qr, aa, tc, rd, ra;
  uint8_t opcode;
  uint8_t rcode;
  uint16_t count[4];  // records by section, DNS_S_QD to DNS_S_AR
};
[[nodiscard]] bool read_header(std::span<const uint8_t> packet, Header *header);

// records_in returns how many records a packet's header counts in a section, DNS_S_QD to DNS_S_AR; 0 for a packet
// without a whole header.
[[nodiscard]] inline unsigned records_in(std::span<const uint8_t> packet, int section) {
  constexpr size_t kCountsAt = 4;
  if (packet.size() < DNS_HSIZE) return 0;
  return load_u16(packet.data() + kCountsAt + static_cast<size_t>(section) * sizeof(uint16_t));
}

// Sections finds where the sections of a packet begin, and walks each at most once.
class Sections {
 public:
  Sections(std::span<const uint8_t> packet, const Header &header) : reader_(packet, DNS_HSIZE), header_(header) {}
  // For a packet whose question section has been read, up to `answers_at`.
  Sections(std::span<const uint8_t> packet, const Header &header, size_t answers_at)
      : reader_(packet, answers_at), header_(header), passed_(DNS_S_AN), starts_{reader_.position()} {}

  [[nodiscard]] std::span<const uint8_t> packet() const { return reader_.packet(); }
  [[nodiscard]] const Header &header() const { return header_; }
  // find gives the position of the first record of a section, DNS_S_QD to DNS_S_AR; for DNS_S_ALL, the position after
  // the last section. False for a malformed packet.
  [[nodiscard]] bool find(int section, size_t *position);

 private:
  Reader reader_;  // after the sections that were passed
  const Header &header_;
  int passed_ = DNS_S_QD;          // the section at which the reader is
  size_t starts_[DNS_S_ALL] = {};  // of the sections after DNS_S_QD, as far as they were found
};

// section_at finds where a section begins. False for a malformed packet.
[[nodiscard]] bool section_at(std::span<const uint8_t> packet, int section, size_t *position);

inline constexpr uint16_t kFlagQr = 0x8000;
inline constexpr uint16_t kFlagRa = 0x0080;

// write_question writes a header and a question section of one question. Returns the bytes written; 0 when they do not
// fit, when a type or class is above 16 bits, or for an empty name.
[[nodiscard]] size_t write_question(std::span<uint8_t> buffer, uint16_t id, uint16_t flags, std::span<const uint8_t> dn,
                                    dns_type typ, dns_class cls);

// write_query builds a query for a whole DN, with the RD bit as `recursive` says; returns its length, 0 as
// write_question.
[[nodiscard]] size_t write_query(std::span<uint8_t> buffer, uint16_t id, bool recursive, std::span<const uint8_t> dn,
                                 dns_type typ, dns_class cls);

}  // namespace dns

#endif  // MESSAGE_H
