// address.h - the address of a server, IPv4 or IPv6 alike. Stateless; any thread.
#ifndef ADDRESS_H
#define ADDRESS_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <span>
#include <type_traits>

namespace dns {

enum class Family : uint16_t { none, ipv4, ipv6 };

inline constexpr size_t kFamilies = 3;
inline constexpr size_t kIpv4Size = 4;
inline constexpr size_t kIpv6Size = 16;

// Address is an IP address and a port. Equal addresses have equal bytes.
struct Address {
  uint8_t octets[kIpv6Size] = {};  // in network order; an IPv4 address is the first four of them, and the rest are 0
  uint32_t scope = 0;              // the interface's index, of an address that needs one (RFC 4007, section 6), else 0
  uint16_t port = 0;
  Family family = Family::none;

  // ip returns the octets that the family has.
  [[nodiscard]] std::span<const uint8_t> ip() const {
    return {octets, family == Family::ipv4 ? kIpv4Size : family == Family::ipv6 ? kIpv6Size : 0};
  }
};
static_assert(sizeof(Address) == 24 && std::has_unique_object_representations_v<Address>);

[[nodiscard]] inline bool operator==(const Address &a, const Address &b) {
  uint64_t x[3], y[3];
  static_assert(sizeof x == sizeof a);
  memcpy(x, &a, sizeof x);
  memcpy(y, &b, sizeof y);
  return ((x[0] ^ y[0]) | (x[1] ^ y[1]) | (x[2] ^ y[2])) == 0;
}

// ipv4 and ipv6 make an address of the octets in a record's data; loopback is 127.0.0.1 or ::1.
[[nodiscard]] Address ipv4(std::span<const uint8_t, kIpv4Size> octets, uint16_t port);
[[nodiscard]] Address ipv6(std::span<const uint8_t, kIpv6Size> octets, uint16_t port, uint32_t scope = 0);
[[nodiscard]] Address loopback(Family family, uint16_t port);

// is_mapped tells whether an IPv6 address stands for an IPv4 address (::ffff:0:0/96; RFC 4291, section 2.5.5.2), and
// unmapped returns that one. is_unspecified is for 0.0.0.0 and ::.
[[nodiscard]] bool is_mapped(const Address &address);
[[nodiscard]] Address unmapped(const Address &address);
[[nodiscard]] bool is_unspecified(const Address &address);

// Reach is where packets to an address go: to the network, back to this host, to its own link, or nowhere.
enum class Reach : uint8_t { network, host, link, nowhere };
[[nodiscard]] Reach reach_of(const Address &address);

}  // namespace dns

#endif  // ADDRESS_H
