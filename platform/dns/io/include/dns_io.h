// dns_io.h - the one table of functions through which the engine reaches the operating system: sockets, the wall clock
// and random bytes.
//
// The table is constant. A context calls it on the thread that drives it, and during its construction; system_io's
// functions may run on any number of threads. No function of a socket ever blocks, and none knows about queries.
#ifndef DNS_IO_H
#define DNS_IO_H

#include <stddef.h>
#include <stdint.h>

#include <address.h>
#include <kavo/dns_types.h>

namespace dns {

// Datagram is one packet on its way out (`size` bytes from `data`) or in (`capacity` bytes at `data`; `size` is then
// the packet's true length, above `capacity` when the packet was cut).
struct Datagram {
  uint8_t *data;
  uint32_t capacity;
  uint32_t size;
  Address peer;
};

inline constexpr unsigned kBatch = 64;  // datagrams that one call sends or receives at most

// Io is the table; `self` is the first argument of each function. Tests replace it by a simulated network and clock.
// Functions that fail return a negated errno.
struct Io {
  void *self;
  dns_time (*wall)(void *self);
  bool (*random)(void *self, void *bytes, size_t size);
  // udp_open returns a non-blocking socket bound to `port` on every local address of a family. With a `peer` it is
  // connected: it then sends to that address and receives from it alone.
  int (*udp_open)(void *self, Family family, uint16_t port, const Address *peer);
  void (*udp_close)(void *self, int socket);
  // udp_send sends up to kBatch datagrams and returns how many left; a negated errno when the first could not.
  // `connected` tells that the socket is connected to the peer of all of them; datagrams of one size are then cheapest
  // next to each other.
  int (*udp_send)(void *self, int socket, const Datagram *datagrams, unsigned count, bool connected);
  // udp_receive fills up to kBatch datagrams and returns how many arrived; 0 or -EAGAIN when none is there. Those on a
  // connected socket get no `peer`, as there is only one.
  int (*udp_receive)(void *self, int socket, Datagram *datagrams, unsigned count, bool connected);
  // udp_returned takes one packet that the network reported back as undeliverable: as many of its bytes as came back,
  // and its destination as the peer. 1; 0 when there is none.
  int (*udp_returned)(void *self, int socket, Datagram *datagram);
  // udp_dropped returns how many datagrams the system has dropped at the socket since it was opened, modulo 2^31, as
  // its receive buffer was full.
  int (*udp_dropped)(void *self, int socket);
  // tcp_open returns a non-blocking socket that is connecting to `peer`.
  int (*tcp_open)(void *self, const Address &peer);
  void (*tcp_close)(void *self, int socket);
  // tcp_send and tcp_receive return how many bytes went through; -EAGAIN when none can yet, also while connecting;
  // tcp_receive returns 0 after the peer has closed.
  int (*tcp_send)(void *self, int socket, const uint8_t *bytes, size_t size);
  int (*tcp_receive)(void *self, int socket, uint8_t *bytes, size_t size);
};

// system_io returns the table of the operating system.
[[nodiscard]] const Io *system_io();

}  // namespace dns

#endif  // DNS_IO_H
