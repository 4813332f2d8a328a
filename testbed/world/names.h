// names.h - servers of the simulated world by their names, which are their addresses as texts, of either family.
#ifndef KAVO_TESTBED_NAMES_H
#define KAVO_TESTBED_NAMES_H

#include <address.h>
#include <socket_address.h>

#include <cstdint>
#include <string>

namespace sim {

[[nodiscard]] dns::Address address_of(const std::string &name, uint16_t port = 53);
[[nodiscard]] std::string name_of(const dns::Address &address);
[[nodiscard]] inline dns::SocketAddress socket_of(const std::string &name, uint16_t port = 53) {
  return dns::SocketAddress(address_of(name, port));
}

}  // namespace sim

#endif  // KAVO_TESTBED_NAMES_H
