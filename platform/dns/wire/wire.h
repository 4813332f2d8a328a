// wire.h - what the sources of this folder share among themselves.
#ifndef DNS_WIRE_WIRE_H
#define DNS_WIRE_WIRE_H

#include <span>

#include <dns_wire.h>

namespace dns {

inline constexpr uint16_t kFlagQr = 0x8000;
inline constexpr uint16_t kFlagRa = 0x0080;

// RecordHead is what follows a record's owner: type, class, TTL and the size of its data. read_head reads one.
struct RecordHead {
  uint16_t typ;
  uint16_t cls;
  uint32_t ttl;
  uint16_t data_size;
};
inline constexpr size_t kRecordHeadSize = 10;
[[nodiscard]] inline bool read_head(Reader *reader, RecordHead *head) {
  std::span<const uint8_t> bytes;
  if (!reader->bytes(kRecordHeadSize, &bytes)) return false;
  const uint8_t *at = bytes.data();
  *head = {load_u16(at), load_u16(at + 2), load_u32(at + 4), load_u16(at + 8)};
  return true;
}

// write_question writes a header and one question about a whole DN. Returns the bytes written; 0 when they do not fit,
// or for a type or class that has no 16 bits, or for an empty name.
[[nodiscard]] size_t write_question(std::span<uint8_t> buffer, uint16_t id, uint16_t flags, std::span<const uint8_t> dn,
                                    dns_type typ, dns_class cls);

// put_name writes a whole DN as text, which takes up to DNS_MAXNAME bytes with its terminator; returns where that is.
char *put_name(const uint8_t *dn, char *text);

// kToQuestion is a name's two bytes when it is a pointer to the question's name, as servers write most owners.
inline constexpr uint16_t kToQuestion = 0xC000 | DNS_HSIZE;

// read_body reads a record from behind its owner name on, and leaves `owner` alone.
[[nodiscard]] bool read_body(Reader *reader, Record *record);

// data_reader stands at the beginning of a record's data and cannot pass its end; pointers lead anywhere before it.
inline Reader data_reader(std::span<const uint8_t> packet, size_t data_at, size_t data_size) {
  const bool inside = data_at <= packet.size() && data_size <= packet.size() - data_at;
  return inside ? Reader(packet.first(data_at + data_size), data_at) : Reader({});
}

}  // namespace dns

#endif  // DNS_WIRE_WIRE_H
