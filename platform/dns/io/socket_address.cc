// socket_address.cc - see socket_address.h.
#include <socket_address.h>

#include <net/if.h>
#include <stdlib.h>
#include <string.h>

#include <dns_wire.h>

namespace dns {
namespace {

// read_scope returns the index of an interface, by its name or as a number; 0 when there is none.
uint32_t read_scope(const char *text) {
  const unsigned named = if_nametoindex(text);
  if (named != 0) return named;
  char *end = nullptr;
  const unsigned long number = strtoul(text, &end, 10);
  const bool whole = *text >= '0' && *text <= '9' && *end == '\0';
  return whole && number <= UINT32_MAX ? static_cast<uint32_t>(number) : 0;
}

}  // namespace

SocketAddress::SocketAddress(const Address &address) : ipv6_{}, size_(0) {
  if (address.family == Family::ipv4) {
    ipv4_ = {};
    ipv4_.sin_family = AF_INET;
    ipv4_.sin_port = htons(address.port);
    memcpy(&ipv4_.sin_addr, address.octets, sizeof ipv4_.sin_addr);
    size_ = sizeof ipv4_;
  } else if (address.family == Family::ipv6) {
    ipv6_.sin6_family = AF_INET6;
    ipv6_.sin6_port = htons(address.port);
    memcpy(&ipv6_.sin6_addr, address.octets, sizeof ipv6_.sin6_addr);
    ipv6_.sin6_scope_id = address.scope;
    size_ = sizeof ipv6_;
  }
}

Address from_socket(const sockaddr *address, socklen_t size) {
  Address result;
  sa_family_t family = AF_UNSPEC;
  if (size < sizeof family) return result;
  memcpy(&family, &address->sa_family, sizeof family);
  if (family == AF_INET && size >= sizeof(sockaddr_in)) {
    sockaddr_in ip4;
    memcpy(&ip4, address, sizeof ip4);
    memcpy(result.octets, &ip4.sin_addr, kIpv4Size);
    result.port = ntohs(ip4.sin_port);
    result.family = Family::ipv4;
  } else if (family == AF_INET6 && size >= sizeof(sockaddr_in6)) {
    sockaddr_in6 ip6;
    memcpy(&ip6, address, sizeof ip6);
    memcpy(result.octets, &ip6.sin6_addr, kIpv6Size);
    result.scope = ip6.sin6_scope_id;
    result.port = ntohs(ip6.sin6_port);
    result.family = Family::ipv6;
  }
  return result;
}

Address from_host(const sockaddr *address) {
  return from_socket(address, sizeof(sockaddr_in6));
}

Address as_server(Address address, uint16_t port) {
  if (address.family == Family::none) return {};
  if (address.port == 0) address.port = port;
  if (is_mapped(address)) address = unmapped(address);
  if (is_unspecified(address)) return loopback(address.family, address.port);
  if (address.family == Family::ipv6) {
    const bool on_link = reach_of(address) == Reach::link;
    if (on_link && address.scope == 0) return {};
    if (!on_link) address.scope = 0;  // it means nothing there
  }
  return address;
}

Address read_address(const char *text, uint16_t port) {
  uint8_t octets[kIpv6Size];
  if (dns_pton(AF_INET, text, octets) > 0) return ipv4(std::span(octets).first<kIpv4Size>(), port);
  char bare[INET6_ADDRSTRLEN];
  const char *percent = strchr(text, '%');
  const size_t length = percent != nullptr ? static_cast<size_t>(percent - text) : strlen(text);
  if (length >= sizeof bare) return {};
  memcpy(bare, text, length);
  bare[length] = '\0';
  if (dns_pton(AF_INET6, bare, octets) <= 0) return {};
  Address address = ipv6(octets, port);
  const bool on_link = reach_of(address) == Reach::link;
  if (on_link != (percent != nullptr)) return {};
  if (on_link) address.scope = read_scope(percent + 1);
  return !on_link || address.scope != 0 ? address : Address{};
}

}  // namespace dns
