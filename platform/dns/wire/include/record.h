// record.h - one record of a packet.
#ifndef RECORD_H
#define RECORD_H

#include <stddef.h>
#include <stdint.h>

#include <span>

#include <cursor.h>
#include <kavo/dns.h>

namespace dns {

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

// Record is one record of a packet, its data still compressed. `data_at` is the data's place in the packet.
struct Record {
  uint8_t owner[DNS_MAXDN];
  unsigned owner_size;
  uint16_t typ;
  uint16_t cls;
  int32_t ttl;  // 0 to 2^31 - 1: a larger one is read as 0 (RFC 2181, section 8)
  std::span<const uint8_t> data;
  size_t data_at;
};
[[nodiscard]] bool read_record(Reader *reader, Record *record);

// kToQuestion is a name's two bytes when it is a pointer to the question's name, as servers write most owners.
inline constexpr uint16_t kToQuestion = 0xC000 | DNS_HSIZE;

// read_body reads a record from behind its owner name on, and leaves `owner` alone.
[[nodiscard]] bool read_body(Reader *reader, Record *record);

// data_reader stands at the beginning of a record's data and cannot pass its end; pointers lead anywhere before it.
inline Reader data_reader(std::span<const uint8_t> packet, size_t data_at, size_t data_size) {
  const bool inside = data_at <= packet.size() && data_size <= packet.size() - data_at;
  return inside ? Reader(packet.first(data_at + data_size), data_at) : Reader({});
}

// plain_data writes a record's data to `writer` with every compressed name in it written whole, for the types that may
// hold one (RFC 3597, section 4). False for data that its type does not allow, or when it does not fit.
[[nodiscard]] bool plain_data(std::span<const uint8_t> packet, uint16_t typ, size_t data_at, size_t data_size,
                              Writer *writer);

}  // namespace dns

#endif  // RECORD_H
