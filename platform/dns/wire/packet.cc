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

// walk_name walks over a name and its pointers, and hands each label with its length byte to `keep`, which refuses one
// that makes the name too long.
template <typename Keep>
bool Reader::walk_name(Keep keep) {
  const uint8_t *bytes = packet_.data();
  const size_t end = packet_.size();
  size_t piece = at_;  // where the labels being read begin: a pointer must lead in front of it
  size_t after = 0;    // where reading goes on: behind the name's first pointer
  unsigned size = 0;
  unsigned jumps = 0;
  for (size_t at = at_; at < end;) {
    const uint8_t length = bytes[at];
    if (length <= DNS_MAXLABEL) {
      const unsigned label = length + 1U;
      const unsigned closing = length == 0 ? 0 : 1;
      if (size + label + closing > DNS_MAXDN || label > end - at) return false;
      keep(bytes + at, size, label);
      size += label;
      at += label;
      if (length != 0) continue;
      at_ = after != 0 ? after : at;
      return true;
    }
    if ((length & kPointer) != kPointer || end - at < kPointerBytes) return false;
    const size_t target = static_cast<size_t>(length & kPointerHigh) << kByteBits | bytes[at + 1];
    if (target >= piece || ++jumps > kJumpsMax) return false;
    if (after == 0) after = at + kPointerBytes;
    piece = at = target;
  }
  return false;
}

bool Reader::name(uint8_t *dn, unsigned *size) {
  unsigned written = 0;
  const bool whole = walk_name([&](const uint8_t *label, unsigned at, unsigned count) {
    std::copy(label, label + count, dn + at);
    written = at + count;
  });
  if (whole && size != nullptr) *size = written;
  return whole;
}

bool Reader::check_name() {
  return walk_name([](const uint8_t *, unsigned, unsigned) {});
}

bool Reader::skip_name() {
  const uint8_t *bytes = packet_.data();
  const size_t end = packet_.size();
  for (size_t at = at_; at < end;) {
    const uint8_t length = bytes[at];
    const bool pointer = (length & kPointer) == kPointer;
    if (!pointer && length > DNS_MAXLABEL) return false;
    const size_t step = pointer ? kPointerBytes : length + size_t{1};
    if (step > end - at) return false;
    at += step;
    if (!pointer && at - at_ > DNS_MAXDN) return false;
    if (!pointer && length != 0) continue;
    at_ = at;
    return true;
  }
  return false;
}

void Writer::name(const uint8_t *dn) {
  const unsigned length = dns_dnlen(dn);
  if (length == 0) ok_ = false;
  if (length != 0) bytes({dn, length});
}

void Writer::patch_u16(size_t position, uint16_t value) {
  if (position > at_ || at_ - position < sizeof value) ok_ = false;
  if (!ok_) return;
  store_u16(buffer_.data() + position, value);
}

bool read_header(std::span<const uint8_t> packet, Header *header) {
  if (packet.size() < DNS_HSIZE) return false;
  const uint8_t *at = packet.data();
  header->id = load_u16(at);
  const uint16_t flags = load_u16(at + sizeof flags);
  for (int section = DNS_S_QD; section <= DNS_S_AR; ++section)
    header->count[section] = static_cast<uint16_t>(records_in(packet, section));
  header->qr = (flags & kFlagQr) != 0;
  header->aa = (flags & kFlagAa) != 0;
  header->tc = (flags & kFlagTc) != 0;
  header->rd = (flags & kFlagRd) != 0;
  header->ra = (flags & kFlagRa) != 0;
  header->opcode = static_cast<uint8_t>(flags >> kOpcodeShift) & kOpcodeMask;
  header->rcode = static_cast<uint8_t>(flags) & kRcodeMask;
  return true;
}

size_t write_question(std::span<uint8_t> buffer, uint16_t id, uint16_t flags, std::span<const uint8_t> dn, dns_type typ,
                      dns_class cls) {
  constexpr size_t kTypeAndClass = 4;
  const size_t size = DNS_HSIZE + dn.size() + kTypeAndClass;
  if (typ < 0 || typ > UINT16_MAX || cls < 0 || cls > UINT16_MAX) return 0;
  if (dn.empty() || dn.size() > DNS_MAXDN || size > buffer.size()) return 0;
  uint8_t *at = buffer.data();
  for (const uint16_t field : {id, flags, uint16_t{1}, uint16_t{0}, uint16_t{0}, uint16_t{0}}) {
    store_u16(at, field);
    at += sizeof field;
  }
  at = std::copy(dn.begin(), dn.end(), at);
  store_u16(at, static_cast<uint16_t>(typ));
  store_u16(at + sizeof(uint16_t), static_cast<uint16_t>(cls));
  return size;
}

size_t write_query(std::span<uint8_t> buffer, uint16_t id, bool recursive, std::span<const uint8_t> dn, dns_type typ,
                   dns_class cls) {
  return write_question(buffer, id, recursive ? kFlagRd : 0, dn, typ, cls);
}

bool Sections::find(int section, size_t *position) {
  constexpr size_t kTypeAndClass = 4;
  if (section < DNS_S_QD || section > DNS_S_ALL) return false;
  for (Reader ahead = reader_; passed_ < section; starts_[passed_++] = ahead.position(), reader_ = ahead) {
    for (unsigned left = header_.count[passed_]; left > 0; --left) {
      RecordHead head;
      if (!ahead.skip_name()) return false;
      if (passed_ == DNS_S_QD ? !ahead.skip(kTypeAndClass) : !read_head(&ahead, &head) || !ahead.skip(head.data_size))
        return false;
    }
  }
  *position = section == DNS_S_QD ? size_t{DNS_HSIZE} : starts_[section - 1];
  return true;
}

bool section_at(std::span<const uint8_t> packet, int section, size_t *position) {
  Header header{};
  return read_header(packet, &header) && Sections(packet, header).find(section, position);
}

}  // namespace dns
