// message.cc - see message.h.
#include <message.h>

#include <string.h>

#include <algorithm>

#include <cursor.h>
#include <record.h>

namespace dns {
namespace {

constexpr uint16_t kFlagAa = 0x0400;
constexpr uint16_t kFlagTc = 0x0200;
constexpr uint16_t kFlagRd = 0x0100;
constexpr unsigned kOpcodeShift = 11;
constexpr uint8_t kOpcodeMask = 0x0F;
constexpr uint8_t kRcodeMask = 0x0F;

}  // namespace

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
