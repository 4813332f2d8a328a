// server_list.h - the servers of a context.
#ifndef DNS_ENGINE_SERVER_LIST_H
#define DNS_ENGINE_SERVER_LIST_H

#include <netinet/in.h>
#include <stdint.h>

#include <dns_engine.h>

namespace dns {

// read_server takes an IPv4 socket address out of the 16-byte form of the interface, on `port` where it names none.
// False for another family.
[[nodiscard]] bool read_server(const sockaddr *address, uint32_t port, sockaddr_in *server);

// add_server appends a server to the context's, one that follows DNS_OPT_PORT where it is `portless`; the new number of
// servers or a negative status. drop_servers empties the list.
[[nodiscard]] int add_server(dns_ctx *ctx, const sockaddr_in &address, bool portless);
void drop_servers(dns_ctx *ctx);

// move_portless gives the servers that were named without a port a new one. Without memory some may have moved.
[[nodiscard]] dns_status move_portless(dns_ctx *ctx, uint32_t port);

}  // namespace dns

#endif  // DNS_ENGINE_SERVER_LIST_H
