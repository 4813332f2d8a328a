// kavo_node_servers.h - the servers of a question that names its own: as a host gives them, as a node's key holds them,
// as the engine takes them.
//
// No state, any thread. The context's own servers are in kavo_servers.cc.
#ifndef KAVO_NODE_SERVERS_H
#define KAVO_NODE_SERVERS_H

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#include <span>

#include <address.h>
#include <kavo.h>

// kavo_sa: an entry of a node's key. An IPv4 server has one, with its address and its port in network order. An IPv6
// server has three: its scope and its port, and the two halves of its address.
struct kavo_sa {
  uint32_t addr;
  uint16_t port;
  uint16_t ipv6;  // 1 in the first entry of an IPv6 server, 0 in that of an IPv4 server
};
static_assert(sizeof(kavo_sa) == 8);

inline constexpr unsigned KAVO_SA_IPV6 = 3;  // entries of an IPv6 server
inline constexpr unsigned KAVO_SA_MAX = KAVO_MAX_SERV * KAVO_SA_IPV6;

// kavo_given_servers: an array of a host's, of IPv4 socket addresses in 16 bytes each, or of either family in a struct
// sockaddr_storage each.
struct kavo_given_servers {
  const void *array = nullptr;
  unsigned count = 0;
  size_t step = sizeof(struct sockaddr);

  [[nodiscard]] bool any() const { return array != nullptr && count > 0; }
};

// kavo_packed_servers: the part of a key that servers take.
struct kavo_packed_servers {
  kavo_sa entries[KAVO_SA_MAX];  // `count` are set
  unsigned count = 0;
};

// kavo_node_servers_pack turns a host's servers into entries. KAVOE_BADPAR for more than KAVO_MAX_SERV of them, and,
// with a line in the log, for an address of another family, or one that no server can have.
[[nodiscard]] KAVO_ERR kavo_node_servers_pack(const kavo_given_servers &given, kavo_packed_servers *packed);

// kavo_node_servers: the servers of a key.
struct kavo_node_servers {
  dns::Address all[KAVO_MAX_SERV];
  unsigned count = 0;
};

// kavo_node_servers_unpack reads the bytes of a key that follow its name.
void kavo_node_servers_unpack(std::span<const uint8_t> bytes, kavo_node_servers *servers);

#endif  // KAVO_NODE_SERVERS_H
