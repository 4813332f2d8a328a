// server_list.h - the servers of a context.
#ifndef DNS_ENGINE_SERVER_LIST_H
#define DNS_ENGINE_SERVER_LIST_H

#include <stdint.h>

#include <address.h>
#include <dns_engine.h>

namespace dns {

// add_server appends a server to the context's, one that follows DNS_OPT_PORT where it is `portless`; the new number of
// servers or a negative status. drop_servers empties the list.
[[nodiscard]] int add_server(dns_ctx *ctx, const Address &address, bool portless);
void drop_servers(dns_ctx *ctx);

// move_portless gives the servers that were named without a port a new one. Without memory some may have moved.
[[nodiscard]] dns_status move_portless(dns_ctx *ctx, uint32_t port);

}  // namespace dns

#endif  // DNS_ENGINE_SERVER_LIST_H
