// arrival.h - a packet that came in: its bytes, its sender, its socket or connection.
#ifndef DNS_ENGINE_ARRIVAL_H
#define DNS_ENGINE_ARRIVAL_H

#include <stdint.h>

#include <span>

#include <address.h>

#include "connection.h"

namespace dns {

struct Arrival {
  std::span<const uint8_t> packet;
  const Address *peer;
  int slot;  // of the socket or connection

  [[nodiscard]] bool by_udp() const { return slot < kTcpSlot; }
};

}  // namespace dns

#endif  // DNS_ENGINE_ARRIVAL_H
