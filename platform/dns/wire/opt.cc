// opt.cc - see opt.h.
#include <opt.h>

#include <cursor.h>
#include <message.h>
#include <record.h>

namespace dns {
namespace {

constexpr size_t kAdditionalCountAt = 10;  // where the header counts the additional records
constexpr uint16_t kOptionCookie = 10;     // RFC 7873
constexpr unsigned kRcodeShift = 24;       // of the upper bits of the response code, in the TTL field
constexpr unsigned kVersionShift = 16;

// read_options looks for a cookie among the options of an OPT record. False when they are malformed.
[[nodiscard]] bool read_options(std::span<const uint8_t> data, Opt *opt) {
  Reader reader(data);
  while (reader.left() > 0) {
    uint16_t code = 0, size = 0;
    std::span<const uint8_t> value;
    if (!reader.u16(&code) || !reader.u16(&size) || !reader.bytes(size, &value)) return false;
    if (code == kOptionCookie) opt->cookie = value;
  }
  return true;
}

}  // namespace

size_t write_opt(std::span<uint8_t> packet, size_t size, uint16_t udp_size, std::span<const uint8_t> cookie) {
  Writer writer(packet, size);
  writer.u8(0);  // the owner is the root
  writer.u16(DNS_T_OPT);
  writer.u16(udp_size);
  writer.u32(0);  // version 0, no flags
  constexpr size_t kOptionHead = 4;
  writer.u16(static_cast<uint16_t>(cookie.empty() ? 0 : kOptionHead + cookie.size()));
  if (!cookie.empty()) {
    writer.u16(kOptionCookie);
    writer.u16(static_cast<uint16_t>(cookie.size()));
    writer.bytes(cookie);
  }
  writer.patch_u16(kAdditionalCountAt, 1);
  return writer.ok() ? writer.position() : 0;
}

bool read_opt(Sections *sections, Opt *opt) {
  *opt = {};
  const unsigned count = sections->header().count[DNS_S_AR];
  size_t at = 0;
  if (count == 0) return true;
  if (!sections->find(DNS_S_AR, &at)) return false;
  Reader reader(sections->packet(), at);
  for (unsigned left = count; left > 0; --left) {
    RecordHead head;
    std::span<const uint8_t> data;
    if (!reader.skip_name() || !read_head(&reader, &head) || !reader.bytes(head.data_size, &data)) return false;
    if (head.typ != DNS_T_OPT) continue;
    if (opt->present) return false;  // a message has one at most (RFC 6891, 6.1.1)
    opt->present = true;
    opt->udp_size = head.cls;
    opt->rcode_high = static_cast<uint8_t>(head.ttl >> kRcodeShift);
    opt->version = static_cast<uint8_t>(head.ttl >> kVersionShift & UINT8_MAX);
    if (!read_options(data, opt)) return false;
  }
  return true;
}

}  // namespace dns
