// network.h - what the kernel counts of UDP packets, on a loopback of this program's own where the system allows it.
#ifndef KAVO_BENCH_STOCK_NETWORK_H
#define KAVO_BENCH_STOCK_NETWORK_H

#include <cstdint>

namespace stock {

// enter_own_network gives this process, and those that it starts afterwards, a network of their own with nothing but
// loopback: what others send is then not counted. False where the system refuses. Before any other thread is there.
[[nodiscard]] bool enter_own_network();

// default_buffer returns the size of the receive buffer that the system gives to a socket.
[[nodiscard]] int default_buffer();

// Counters are the kernel's, of all UDP sockets of this network, and the drops of those that are bound to a port.
struct Counters {
  int64_t taken = 0;   // packets that a process took from a socket
  int64_t full = 0;    // that met a full receive buffer
  int64_t closed = 0;  // that met no socket
  int64_t drops = 0;   // of those that met a full buffer, the ones sent to the server

  // queries returns how many packets reached the server's machine, dropped ones included. Every query that a server
  // takes gets one answer. Each answer is taken by the client, or meets a full buffer or a closed socket there.
  [[nodiscard]] int64_t queries() const { return (taken + full - drops + closed) / 2 + drops; }
};
[[nodiscard]] Counters operator-(const Counters &after, const Counters &before);

// settled_counters waits until nothing is counted any more for a while, and returns the counters.
[[nodiscard]] Counters settled_counters(uint16_t port);

}  // namespace stock

#endif  // KAVO_BENCH_STOCK_NETWORK_H
