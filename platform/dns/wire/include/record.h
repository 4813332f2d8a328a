// record.h - one resource record of a packet: its owner, its fixed fields, and its data.
//
// Stateless; any thread. A Record points into its packet and is valid as long as the packet's bytes are. read_record
// checks bounds and the owner's name, not the data; plain_data checks the data by its type. Nothing here allocates.
#ifndef RECORD_H
#define RECORD_H

#include <stddef.h>
#include <stdint.h>

#include <span>

#include <cursor.h>
#include <kavo/dns.h>

namespace dns {

// RecordHead is the fixed part of a record, after its owner.
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

// Record is one record of a packet. The names in its data may be compressed; `data_at` is the data's place in the
// packet.
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

// kToQuestion is a compression pointer to the question's name, which is how servers write most owners.
inline constexpr uint16_t kToQuestion = 0xC000 | DNS_HSIZE;

// read_body reads what follows a record's owner, and leaves `owner` alone.
[[nodiscard]] bool read_body(Reader *reader, Record *record);

// data_reader returns a reader over a record's data. It cannot pass the data's end; names in it may point back into the
// packet.
inline Reader data_reader(std::span<const uint8_t> packet, size_t data_at, size_t data_size) {
  const bool inside = data_at <= packet.size() && data_size <= packet.size() - data_at;
  return inside ? Reader(packet.first(data_at + data_size), data_at) : Reader({});
}

// plain_data writes a record's data to `writer` with every name uncompressed, for the types whose names may be
// compressed (RFC 3597, section 4). False for data that its type does not allow, or when it does not fit.
[[nodiscard]] bool plain_data(std::span<const uint8_t> packet, uint16_t typ, size_t data_at, size_t data_size,
                              Writer *writer);

}  // namespace dns

#endif  // RECORD_H
