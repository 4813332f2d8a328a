// record.cc - see record.h; and what the data of each type is made of.
#include <record.h>

#include <algorithm>

#include <cursor.h>

namespace dns {
namespace {

constexpr uint8_t kAddress4Bytes = 4;
constexpr uint8_t kAddress6Bytes = 16;
constexpr uint8_t kSoaNumbersBytes = 20;  // SERIAL, REFRESH, RETRY, EXPIRE, MINIMUM
constexpr uint8_t kSigHeadBytes = 18;     // everything before the signer's name

// Shape is what a type's data consists of, in this order. A type without one is opaque bytes (RFC 3597).
struct Shape {
  uint16_t typ;
  uint8_t head;     // bytes of fixed length
  uint8_t strings;  // character-strings
  uint8_t names;    // names
  uint8_t tail;     // bytes of fixed length
  bool open;        // any number of bytes may follow
};

// The types of RFC 1035 and those of RFC 3597, section 4, whose names may come compressed; and the two addresses.
constexpr Shape kShapes[] = {
    {DNS_T_A, kAddress4Bytes, 0, 0, 0, false}, {DNS_T_NS, 0, 0, 1, 0, false},
    {3 /* MD */, 0, 0, 1, 0, false},           {4 /* MF */, 0, 0, 1, 0, false},
    {DNS_T_CNAME, 0, 0, 1, 0, false},          {DNS_T_SOA, 0, 0, 2, kSoaNumbersBytes, false},
    {7 /* MB */, 0, 0, 1, 0, false},           {8 /* MG */, 0, 0, 1, 0, false},
    {9 /* MR */, 0, 0, 1, 0, false},           {DNS_T_PTR, 0, 0, 1, 0, false},
    {14 /* MINFO */, 0, 0, 2, 0, false},       {DNS_T_MX, 2, 0, 1, 0, false},
    {17 /* RP */, 0, 0, 2, 0, false},          {18 /* AFSDB */, 2, 0, 1, 0, false},
    {21 /* RT */, 2, 0, 1, 0, false},          {24 /* SIG */, kSigHeadBytes, 0, 1, 0, true},
    {26 /* PX */, 2, 0, 2, 0, false},          {DNS_T_AAAA, kAddress6Bytes, 0, 0, 0, false},
    {30 /* NXT */, 0, 0, 1, 0, true},          {DNS_T_SRV, 6, 0, 1, 0, false},
    {DNS_T_NAPTR, 4, 3, 1, 0, false},          {DNS_T_KX, 2, 0, 1, 0, false},
    {DNS_T_DNAME, 0, 0, 1, 0, false},
};

const Shape *shape_of(uint16_t typ) {
  const auto *found = std::ranges::find(kShapes, typ, &Shape::typ);
  return found != std::end(kShapes) ? found : nullptr;
}

bool copy_bytes(Reader *reader, size_t count, Writer *writer) {
  std::span<const uint8_t> value;
  if (!reader->bytes(count, &value)) return false;
  writer->bytes(value);
  return true;
}

bool copy_string(Reader *reader, Writer *writer) {
  uint8_t size = 0;
  if (!reader->u8(&size)) return false;
  writer->u8(size);
  return copy_bytes(reader, size, writer);
}

bool copy_name(Reader *reader, Writer *writer) {
  uint8_t dn[DNS_MAXDN];
  if (!reader->name(dn)) return false;
  writer->name(dn);
  return true;
}

bool copy_shape(const Shape &shape, Reader *reader, Writer *writer) {
  if (!copy_bytes(reader, shape.head, writer)) return false;
  for (unsigned i = 0; i < shape.strings; ++i) {
    if (!copy_string(reader, writer)) return false;
  }
  for (unsigned i = 0; i < shape.names; ++i) {
    if (!copy_name(reader, writer)) return false;
  }
  return copy_bytes(reader, shape.open ? reader->left() : shape.tail, writer);
}

// copy_texts copies the character-strings of a TXT record: at least one, filling the data.
bool copy_texts(Reader *reader, Writer *writer) {
  do {
    if (!copy_string(reader, writer)) return false;
  } while (reader->left() > 0);
  return true;
}

}  // namespace

bool read_body(Reader *reader, Record *record) {
  Reader ahead = *reader;
  RecordHead head;
  if (!read_head(&ahead, &head)) return false;
  record->data_at = ahead.position();
  if (!ahead.bytes(head.data_size, &record->data)) return false;
  record->typ = head.typ;
  record->cls = head.cls;
  record->ttl = head.ttl <= INT32_MAX ? static_cast<int32_t>(head.ttl) : 0;
  *reader = ahead;
  return true;
}

bool read_record(Reader *reader, Record *record) {
  Reader ahead = *reader;
  if (!ahead.name(record->owner, &record->owner_size) || !read_body(&ahead, record)) return false;
  *reader = ahead;
  return true;
}

bool plain_data(std::span<const uint8_t> packet, uint16_t typ, size_t data_at, size_t data_size, Writer *writer) {
  if (data_at > packet.size() || data_size > packet.size() - data_at) return false;
  Reader reader = data_reader(packet, data_at, data_size);
  const Shape *shape = shape_of(typ);
  bool valid = false;
  if (typ == DNS_T_TXT) {
    valid = copy_texts(&reader, writer);
  } else if (shape != nullptr) {
    valid = copy_shape(*shape, &reader, writer);
  } else {
    valid = copy_bytes(&reader, data_size, writer);
  }
  return valid && reader.left() == 0 && writer->ok();
}

}  // namespace dns
