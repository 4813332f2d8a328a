#include "packet.h"

#include <algorithm>
#include <cctype>

namespace testbed {
namespace {

constexpr size_t kTypeAndClass = 4;

void append(Bytes *to, std::span<const uint8_t> bytes) {
  to->insert(to->end(), bytes.begin(), bytes.end());
}

}  // namespace

Bytes operator+(Bytes left, std::span<const uint8_t> right) {
  append(&left, right);
  return left;
}

Bytes u16(unsigned value) {
  return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

Bytes u32(uint32_t value) {
  return u16(value >> 16) + u16(value & 0xFFFF);
}

Bytes dn(std::string_view dotted) {
  Bytes name;
  while (!dotted.empty() && dotted != ".") {
    const std::string_view label = dotted.substr(0, dotted.find('.'));
    name.push_back(static_cast<uint8_t>(label.size()));
    name.insert(name.end(), label.begin(), label.end());
    dotted.remove_prefix(std::min(dotted.size(), label.size() + 1));
  }
  name.push_back(0);
  return name;
}

Bytes soa(uint32_t minimum, const Bytes &primary, const Bytes &mailbox) {
  return primary + mailbox + u32(1) + u32(3600) + u32(600) + u32(86400) + u32(minimum);
}

size_t question_end(std::span<const uint8_t> packet) {
  size_t at = DNS_HSIZE;
  while (at < packet.size() && packet[at] != 0)
    at += packet[at] + size_t{1};
  at += 1 + kTypeAndClass;
  return at <= packet.size() ? at : 0;
}

Packet::Packet(std::string_view name, dns_type type, uint16_t id, uint16_t flags)
    : Packet(u16(id) + u16(flags) + Bytes{0, 1, 0, 0, 0, 0, 0, 0} + dn(name) + u16(type) + u16(DNS_C_IN)) {}

Packet Packet::reply(std::span<const uint8_t> query, unsigned rcode, bool authoritative) {
  const size_t end = question_end(query);
  Packet packet(Bytes(query.begin(), query.begin() + static_cast<long>(end)));
  packet.bytes.at(kFlagsAt) = static_cast<uint8_t>(kQr | (query[kFlagsAt] & kRd) | (authoritative ? kAa : 0));
  packet.bytes[kRcodeAt] = static_cast<uint8_t>(rcode);
  packet.bytes[kAdditionalAt] = 0;
  return packet;
}

Packet &Packet::add(const Bytes &owner, dns_type type, const Bytes &data, uint32_t ttl, int section) {
  bytes =
      std::move(bytes) + owner + u16(type) + u16(DNS_C_IN) + u32(ttl) + u16(static_cast<unsigned>(data.size())) + data;
  const size_t count_at = 4 + 2 * static_cast<size_t>(section);
  if (++bytes[count_at + 1] == 0) ++bytes[count_at];
  return *this;
}

std::string Packet::name() const {
  std::string text;
  for (size_t at = DNS_HSIZE; bytes.at(at) != 0; at += bytes[at] + size_t{1}) {
    if (!text.empty()) text += '.';
    for (size_t i = 1; i <= bytes[at]; ++i)
      text += static_cast<char>(std::tolower(bytes[at + i]));
  }
  return text;
}

}  // namespace testbed
