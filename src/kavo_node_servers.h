// kavo_node_servers.h - the servers of a question that names its own: as a host gives them, as a node's key holds them,
// as the engine takes them.
//
// No state, any thread. The context's own servers are in kavo_servers.cc.
#ifndef KAVO_NODE_SERVERS_H
#define KAVO_NODE_SERVERS_H

#include <stdint.h>

#include <array>
#include <span>

#include <kavo.h>

// kavo_sa: a server in a node's key. Address and port are in network order.
struct kavo_sa {
  uint32_t addr = 0;
  uint16_t port = 0;
  uint16_t unused = 0;  // 0: keys are compared byte for byte
};
static_assert(sizeof(kavo_sa) == 8);

// kavo_node_servers_pack turns a host's `count` servers, at most KAVO_MAX_SERV, into a key's entries. KAVOE_BADPAR,
// with a line in the log, for a server that is not IPv4.
[[nodiscard]] KAVO_ERR kavo_node_servers_pack(kavo_sa *entries, const struct sockaddr *servers, unsigned count);

// kavo_node_servers_unpack turns the server bytes of a key into socket addresses. Returns their number.
[[nodiscard]] unsigned kavo_node_servers_unpack(std::array<struct sockaddr_in, KAVO_MAX_SERV> *servers,
                                                std::span<const uint8_t> bytes);

#endif  // KAVO_NODE_SERVERS_H
