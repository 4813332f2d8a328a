// kavo_node_servers.cc - a question's own servers, into a node's key and out of it.
#include "kavo_node_servers.h"

#include <arpa/inet.h>
#include <string.h>

#include <pelk_log.h>
#include <socket_address.h>

namespace {

using dns::Address;
using dns::Family;

void assert_failed(const char *expression, int line = __builtin_LINE()) {
  pelk_syslog(PELK_LOG_CRIT, "[assertion at %s:%s():%d] for '%s'", "kavo_dns", "kavo_submit_key", line, expression);
}

KAVO_ERR refuse(const char *message) {
  PELK_INFO("kavo_resolve", "kavo_subscribe_node_", "%s", message);
  return KAVOE_BADPAR;
}

void append(const Address &server, kavo_packed_servers *packed) {
  kavo_sa *entry = &packed->entries[packed->count];
  *entry = {.addr = 0, .port = htons(server.port), .ipv6 = server.family == Family::ipv6};
  if (server.family == Family::ipv6) {
    entry->addr = server.scope;
    memcpy(entry + 1, server.octets, sizeof server.octets);
  } else {
    memcpy(&entry->addr, server.octets, sizeof entry->addr);
  }
  packed->count += server.family == Family::ipv6 ? KAVO_SA_IPV6 : 1;
}

// read_entry reads the server that begins at an entry, of `left` entries. Returns how many of them it takes; 0 for an
// IPv6 server that is cut short.
size_t read_entry(const uint8_t *bytes, size_t left, Address *server) {
  kavo_sa entry;
  memcpy(&entry, bytes, sizeof entry);
  if (entry.ipv6 == 0) {
    uint8_t octets[dns::kIpv4Size];
    memcpy(octets, &entry.addr, sizeof octets);
    *server = dns::ipv4(octets, ntohs(entry.port));
    return 1;
  }
  if (left < KAVO_SA_IPV6) return 0;
  uint8_t octets[dns::kIpv6Size];
  memcpy(octets, bytes + sizeof entry, sizeof octets);
  *server = dns::ipv6(octets, ntohs(entry.port), entry.addr);
  return KAVO_SA_IPV6;
}

}  // namespace

KAVO_ERR kavo_node_servers_pack(const kavo_given_servers &given, kavo_packed_servers *packed) {
  if (given.count > KAVO_MAX_SERV) return KAVOE_BADPAR;
  const auto *at = static_cast<const uint8_t *>(given.array);
  for (unsigned i = 0; i < given.count; ++i, at += given.step) {
    Address server =
        dns::from_socket(reinterpret_cast<const struct sockaddr *>(at), static_cast<socklen_t>(given.step));
    if (given.step == sizeof(struct sockaddr) && server.family != Family::ipv4)
      return refuse("Only IPv4 addresses are supported in servers list for node");
    if (server.family != Family::ipv4) server = dns::as_server(server, 0);
    if (server.family == Family::none)
      return refuse("Only addresses of servers are supported in servers list for node");
    append(server, packed);
  }
  return KAVOE_OK;
}

void kavo_node_servers_unpack(std::span<const uint8_t> bytes, kavo_node_servers *servers) {
  if (bytes.size() % sizeof(kavo_sa) != 0)
    assert_failed("servsiz >= sizeof(kavo_sa) && servsiz % sizeof(kavo_sa) == 0");
  size_t left = bytes.size() / sizeof(kavo_sa);
  const uint8_t *at = bytes.data();
  while (left > 0 && servers->count < KAVO_MAX_SERV) {
    const size_t taken = read_entry(at, left, &servers->all[servers->count]);
    if (taken == 0) break;
    ++servers->count;
    left -= taken;
    at += taken * sizeof(kavo_sa);
  }
  if (left > 0) assert_failed("nserv <= KAVO_MAX_SERV");
}
