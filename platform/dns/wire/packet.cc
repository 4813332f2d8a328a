// packet.cc - the cursors over packet bytes, the packet header, and the questions that this side writes.
//
// Reader is the only place that does arithmetic on foreign bytes. Stateless; any thread.
#include <string.h>

#include <algorithm>

#include <dns_wire.h>

#include "wire.h"

namespace dns {
namespace {

constexpr unsigned kByteBits = 8;
constexpr uint8_t kPointer = 0xC0;  // the two top bits of a length byte that starts a pointer
constexpr uint8_t kPointerHigh = 0x3F;
constexpr size_t kPointerBytes = 2;
// A name has at most 127 labels, and a pointer is worth following only to a label: past that many jumps the packet is
// made to waste time.
constexpr unsigned kJumpsMax = 127;

constexpr uint16_t kFlagAa = 0x0400;
constexpr uint16_t kFlagTc = 0x0200;
constexpr uint16_t kFlagRd = 0x0100;
constexpr unsigned kOpcodeShift = 11;
constexpr uint8_t kOpcodeMask = 0x0F;
constexpr uint8_t kRcodeMask = 0x0F;

}  // namespace

bool Reader::skip(size_t count) {
  if (count > left()) return false;
  at_ += count;
  return true;
}

bool Reader::u8(uint8_t *value) {
  if (left() < sizeof *value) return false;
  *value = packet_[at_++];
  return true;
}

bool Reader::u16(uint16_t *value) {
  if (left() < sizeof *value) return false;
  *value = static_cast<uint16_t>(packet_[at_] << kByteBits | packet_[at_ + 1]);
  at_ += sizeof *value;
  return true;
}

bool Reader::u32(uint32_t *value) {
  if (left() < sizeof *value) return false;
  uint32_t sum = 0;
  for (size_t i = 0; i < sizeof *value; ++i)
    sum = sum << kByteBits | packet_[at_ + i];
  *value = sum;
  at_ += sizeof *value;
  return true;
}

bool Reader::bytes(size_t count, std::span<const uint8_t> *value) {
  if (count > left()) return false;
  *value = packet_.subspan(at_, count);
  at_ += count;
  return true;
}

bool Reader::name(uint8_t *dn, unsigned *size) {
  size_t piece = at_;  // where the labels being read begin: a pointer must lead in front of it
  size_t after = 0;    // where reading goes on: behind the name's first pointer
  unsigned written = 0;
  unsigned jumps = 0;
  for (Reader walk = *this;;) {
    uint8_t length = 0;
    if (!walk.u8(&length)) return false;
    if ((length & kPointer) == kPointer) {
      uint8_t low = 0;
      if (!walk.u8(&low)) return false;
      const size_t target = static_cast<size_t>(length & kPointerHigh) << kByteBits | low;
      if (target >= piece || ++jumps > kJumpsMax) return false;
      if (after == 0) after = walk.at_;
      piece = walk.at_ = target;
      continue;
    }
    if (length > DNS_MAXLABEL) return false;
    std::span<const uint8_t> label;
    const unsigned closing = length == 0 ? 0 : 1;
    if (written + 1 + length + closing > DNS_MAXDN || !walk.bytes(length, &label)) return false;
    dn[written++] = length;
    std::copy(label.begin(), label.end(), dn + written);
    written += length;
    if (length != 0) continue;
    at_ = after != 0 ? after : walk.at_;
    if (size != nullptr) *size = written;
    return true;
  }
}

bool Reader::skip_name() {
  const size_t start = at_;
  for (Reader walk = *this;;) {
    uint8_t length = 0;
    if (!walk.u8(&length)) return false;
    const bool pointer = (length & kPointer) == kPointer;
    if (!pointer && length > DNS_MAXLABEL) return false;
    if (!walk.skip(pointer ? kPointerBytes - 1 : length)) return false;
    if (!pointer && walk.at_ - start > DNS_MAXDN) return false;
    if (!pointer && length != 0) continue;
    at_ = walk.at_;
    return true;
  }
}

uint8_t *Writer::room(size_t count) {
  if (!ok_ || at_ > buffer_.size() || count > buffer_.size() - at_) {
    ok_ = false;
    return nullptr;
  }
  uint8_t *place = buffer_.data() + at_;
  at_ += count;
  return place;
}

void Writer::u8(uint8_t value) {
  bytes({&value, sizeof value});
}

void Writer::u16(uint16_t value) {
  const uint8_t wire[] = {static_cast<uint8_t>(value >> kByteBits), static_cast<uint8_t>(value)};
  bytes(wire);
}

void Writer::u32(uint32_t value) {
  uint8_t wire[sizeof value];
  for (size_t i = sizeof wire; i > 0; --i, value >>= kByteBits)
    wire[i - 1] = static_cast<uint8_t>(value);
  bytes(wire);
}

void Writer::bytes(std::span<const uint8_t> value) {
  uint8_t *place = room(value.size());
  if (place != nullptr && !value.empty()) memcpy(place, value.data(), value.size());
}

void Writer::name(const uint8_t *dn) {
  const unsigned length = dns_dnlen(dn);
  if (length == 0) ok_ = false;
  if (length != 0) bytes({dn, length});
}

void Writer::patch_u16(size_t position, uint16_t value) {
  if (position > at_ || at_ - position < sizeof value) ok_ = false;
  if (!ok_) return;
  buffer_[position] = static_cast<uint8_t>(value >> kByteBits);
  buffer_[position + 1] = static_cast<uint8_t>(value);
}

bool read_header(std::span<const uint8_t> packet, Header *header) {
  Reader reader(packet);
  uint16_t flags = 0;
  if (packet.size() < DNS_HSIZE || !reader.u16(&header->id) || !reader.u16(&flags)) return false;
  for (uint16_t &count : header->count) {
    if (!reader.u16(&count)) return false;
  }
  header->qr = (flags & kFlagQr) != 0;
  header->aa = (flags & kFlagAa) != 0;
  header->tc = (flags & kFlagTc) != 0;
  header->rd = (flags & kFlagRd) != 0;
  header->ra = (flags & kFlagRa) != 0;
  header->opcode = static_cast<uint8_t>(flags >> kOpcodeShift) & kOpcodeMask;
  header->rcode = static_cast<uint8_t>(flags) & kRcodeMask;
  return true;
}

size_t write_question(std::span<uint8_t> buffer, uint16_t id, uint16_t flags, const uint8_t *dn, dns_type typ,
                      dns_class cls) {
  if (typ < 0 || typ > UINT16_MAX || cls < 0 || cls > UINT16_MAX) return 0;
  Writer writer(buffer.first(std::min(buffer.size(), size_t{DNS_MAXPACKET})));
  const uint16_t head[] = {id, flags, 1, 0, 0, 0};
  for (const uint16_t field : head)
    writer.u16(field);
  writer.name(dn);
  writer.u16(static_cast<uint16_t>(typ));
  writer.u16(static_cast<uint16_t>(cls));
  return writer.ok() ? writer.position() : 0;
}

size_t write_query(std::span<uint8_t> buffer, uint16_t id, bool recursive, const uint8_t *dn, dns_type typ,
                   dns_class cls) {
  return write_question(buffer, id, recursive ? kFlagRd : 0, dn, typ, cls);
}

bool section_at(std::span<const uint8_t> packet, int section, size_t *position) {
  Header header{};
  Reader reader(packet, DNS_HSIZE);
  if (section < DNS_S_QD || section > DNS_S_ALL || !read_header(packet, &header)) return false;
  for (int passed = DNS_S_QD; passed < section; ++passed) {
    for (unsigned left = header.count[passed]; left > 0; --left) {
      constexpr size_t kTypeAndClass = 4;
      constexpr size_t kTtl = 4;
      if (!reader.skip_name() || !reader.skip(kTypeAndClass)) return false;
      if (passed == DNS_S_QD) continue;
      uint16_t size = 0;
      if (!reader.skip(kTtl) || !reader.u16(&size) || !reader.skip(size)) return false;
    }
  }
  *position = reader.position();
  return true;
}

}  // namespace dns
