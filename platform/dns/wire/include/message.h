// message.h - a packet as a whole: its header, its sections, the query that asks for one.
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

// Sections finds where the sections of a packet begin, and walks over each at most once.
class Sections {
 public:
  Sections(std::span<const uint8_t> packet, const Header &header) : reader_(packet, DNS_HSIZE), header_(header) {}
  // One for a packet whose questions have been read, up to `answers_at`.
  Sections(std::span<const uint8_t> packet, const Header &header, size_t answers_at)
      : reader_(packet, answers_at), header_(header), passed_(DNS_S_AN), starts_{reader_.position()} {}

  [[nodiscard]] std::span<const uint8_t> packet() const { return reader_.packet(); }
  [[nodiscard]] const Header &header() const { return header_; }
  // find gives the position of the first record of a section, DNS_S_QD to DNS_S_ALL, which stands for the byte behind
  // the last one. False for a malformed packet.
  [[nodiscard]] bool find(int section, size_t *position);

 private:
  Reader reader_;  // behind the last section that was passed
  const Header &header_;
  int passed_ = DNS_S_QD;          // the section that the reader stands before
  size_t starts_[DNS_S_ALL] = {};  // of the sections behind DNS_S_QD, as far as they were found
};

// section_at finds where a section begins. False for a malformed packet.
[[nodiscard]] bool section_at(std::span<const uint8_t> packet, int section, size_t *position);

inline constexpr uint16_t kFlagQr = 0x8000;
inline constexpr uint16_t kFlagRa = 0x0080;

// write_question writes a header and one question about a whole DN. Returns the bytes written; 0 when they do not fit,
// or for a type or class that has no 16 bits, or for an empty name.
[[nodiscard]] size_t write_question(std::span<uint8_t> buffer, uint16_t id, uint16_t flags, std::span<const uint8_t> dn,
                                    dns_type typ, dns_class cls);

// write_query builds a packet that asks about a whole DN, with the RD bit as told; returns its length, 0 when `buffer`
// is too small.
[[nodiscard]] size_t write_query(std::span<uint8_t> buffer, uint16_t id, bool recursive, std::span<const uint8_t> dn,
                                 dns_type typ, dns_class cls);

}  // namespace dns

#endif  // MESSAGE_H
