// socket_address.h - addresses in the forms of the system's interface: socket addresses, and texts with the names of
// interfaces. Stateless; any thread.
#ifndef SOCKET_ADDRESS_H
#define SOCKET_ADDRESS_H

#include <netinet/in.h>
#include <stdint.h>
#include <sys/socket.h>

#include <address.h>

namespace dns {

// SocketAddress is the socket address of an address. One that was made from no family is empty.
class SocketAddress {
 public:
  SocketAddress() = default;
  explicit SocketAddress(const Address &address);

  [[nodiscard]] const sockaddr *generic() const { return reinterpret_cast<const sockaddr *>(&ipv6_); }
  [[nodiscard]] sockaddr *generic() { return reinterpret_cast<sockaddr *>(&ipv6_); }
  [[nodiscard]] socklen_t size() const { return size_; }

 private:
  union {
    sockaddr_in6 ipv6_;
    sockaddr_in ipv4_;
  };
  socklen_t size_;
};

// from_socket returns the address in a socket address of `size` bytes; one of no family for any other content. It reads
// no more bytes than the family has.
[[nodiscard]] Address from_socket(const sockaddr *address, socklen_t size);
// from_host does so for a pointer of the host's, which says by its family how many bytes it points at.
[[nodiscard]] Address from_host(const sockaddr *address);

// as_server returns a server's address as the engine keeps it: on `port` where it names none, the unspecified address
// as loopback, as a host means "here" by it, and a mapped address (::ffff:192.0.2.1) as the IPv4 one. An address that
// cannot be a server's, such as a link-local one without its interface, becomes one of no family.
[[nodiscard]] Address as_server(Address address, uint16_t port);

// read_address reads an IPv4 address in four decimal octets, or an IPv6 address, a link-local one with its interface
// by name or number (fe80::1%eth0; RFC 4007, section 11). It returns an address of no family for any other text, and
// for the name of an interface that does not exist.
[[nodiscard]] Address read_address(const char *text, uint16_t port);

}  // namespace dns

#endif  // SOCKET_ADDRESS_H
