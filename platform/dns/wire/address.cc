// address.cc - see address.h.
#include <address.h>

#include <algorithm>
#include <iterator>

namespace dns {
namespace {

constexpr uint8_t kMapped[] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};

bool begins_with(const Address &address, std::span<const uint8_t> octets) {
  return std::equal(octets.begin(), octets.end(), address.octets);
}

Reach reach_of_ipv4(const Address &address) {
  constexpr uint8_t kLinkLocal[] = {169, 254};
  constexpr uint8_t kMulticast = 224;  // and above it what is reserved
  const uint8_t first = address.octets[0];
  if (first == 127) return Reach::host;
  if (begins_with(address, kLinkLocal)) return Reach::link;
  return first == 0 || first >= kMulticast ? Reach::nowhere : Reach::network;
}

Reach reach_of_ipv6(const Address &address) {
  constexpr uint8_t kLowZeros[kIpv6Size - sizeof(uint32_t)] = {};
  constexpr uint8_t kMulticast = 0xFF;
  const uint8_t *octets = address.octets;
  if (octets[0] == 0xFE && (octets[1] & 0xC0) == 0x80) return Reach::link;  // fe80::/10
  if (octets[0] == kMulticast || is_mapped(address)) return Reach::nowhere;
  if (!begins_with(address, kLowZeros)) return Reach::network;
  // ::/96, in which only ::1 is an address that packets may have.
  return address == loopback(Family::ipv6, address.port) ? Reach::host : Reach::nowhere;
}

}  // namespace

Address ipv4(std::span<const uint8_t, kIpv4Size> octets, uint16_t port) {
  Address address;
  std::copy(octets.begin(), octets.end(), address.octets);
  address.port = port;
  address.family = Family::ipv4;
  return address;
}

Address ipv6(std::span<const uint8_t, kIpv6Size> octets, uint16_t port, uint32_t scope) {
  Address address;
  std::copy(octets.begin(), octets.end(), address.octets);
  address.scope = scope;
  address.port = port;
  address.family = Family::ipv6;
  return address;
}

Address loopback(Family family, uint16_t port) {
  constexpr uint8_t kIpv4[kIpv4Size] = {127, 0, 0, 1};
  constexpr uint8_t kIpv6[kIpv6Size] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  return family == Family::ipv6 ? ipv6(kIpv6, port) : ipv4(kIpv4, port);
}

bool is_mapped(const Address &address) {
  return address.family == Family::ipv6 && begins_with(address, kMapped);
}

Address unmapped(const Address &address) {
  return ipv4(std::span<const uint8_t, kIpv4Size>(address.octets + std::size(kMapped), kIpv4Size), address.port);
}

bool is_unspecified(const Address &address) {
  return std::ranges::all_of(address.octets, [](uint8_t octet) { return octet == 0; });
}

Reach reach_of(const Address &address) {
  switch (address.family) {
    case Family::ipv4:
      return reach_of_ipv4(address);
    case Family::ipv6:
      return reach_of_ipv6(address);
    case Family::none:
      break;
  }
  return Reach::nowhere;
}

}  // namespace dns
