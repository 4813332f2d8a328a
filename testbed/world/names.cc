#include "names.h"

#include <arpa/inet.h>

#include <stdexcept>

namespace sim {

dns::Address address_of(const std::string &name, uint16_t port) {
  const dns::Address address = dns::read_address(name.c_str(), port);
  if (address.family == dns::Family::none) throw std::invalid_argument(name);
  return address;
}

std::string name_of(const dns::Address &address) {
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(address.family == dns::Family::ipv6 ? AF_INET6 : AF_INET, address.octets, text, sizeof text);
}

}  // namespace sim
