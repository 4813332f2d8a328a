// server_list.cc - see server_list.h.
#include "server_list.h"

#include <string.h>

#include <algorithm>

#include <socket_address.h>

#include "context.h"
#include "cost_zone.h"

namespace dns {

void drop_servers(dns_ctx *ctx) {
  for (unsigned i = 0; i < ctx->nserv; ++i)
    ctx->server_table.release(ctx->servers[i]);
  ctx->nserv = 0;
  ctx->portless = 0;
}

int add_server(dns_ctx *ctx, const Address &address, bool portless) {
  if (ctx->nserv == kServersMax) return DNS_E_NOBUFS;
  Server *server = ctx->server_table.hold(address);
  if (server == nullptr) return DNS_E_NOMEM;
  if (portless) ctx->portless |= 1U << ctx->nserv;
  ctx->servers[ctx->nserv++] = server;
  return static_cast<int>(ctx->nserv);
}

dns_status move_portless(dns_ctx *ctx, uint32_t port) {
  if (ctx->open_queries() > 0 && ctx->portless != 0)
    return DNS_E_BUSY;  // open queries know their servers by their addresses
  drop_ratings(ctx);
  for (unsigned i = 0; i < ctx->nserv; ++i) {
    if ((ctx->portless & 1U << i) == 0) continue;
    Address address = ctx->servers[i]->address;
    address.port = static_cast<uint16_t>(port);
    Server *server = ctx->server_table.hold(address);
    if (server == nullptr) return DNS_E_NOMEM;
    ctx->server_table.release(ctx->servers[i]);
    ctx->servers[i] = server;
  }
  return DNS_E_NOERROR;
}

}  // namespace dns

using namespace dns;

namespace {

// append adds a server to the context's list, or empties that where there is none.
int append(dns_ctx *ctx, const Address *address) {
  if (ctx->open_queries() > 0) return DNS_E_BUSY;  // they remember servers by their place in the list
  drop_ratings(ctx);
  if (address == nullptr) {
    drop_servers(ctx);
    return 0;
  }
  const Address server = as_server(*address, static_cast<uint16_t>(ctx->options.port));
  return server.family != Family::none ? add_server(ctx, server, address->port == 0) : int{DNS_E_INVAL};
}

}  // namespace

extern "C" {

int dns_add_serv_s(dns_ctx *ctx, const sockaddr *address) {
  if (ctx == nullptr) return DNS_E_INVAL;
  if (address == nullptr) return append(ctx, nullptr);
  const Address server = from_host(address);
  return append(ctx, &server);
}

int dns_add_serv(dns_ctx *ctx, const char *address) {
  if (ctx == nullptr) return DNS_E_INVAL;
  if (address == nullptr) return append(ctx, nullptr);
  return dns_add_serv_p(ctx, address, 0);
}

int dns_add_serv_p(dns_ctx *ctx, const char *address, unsigned port) {
  if (ctx == nullptr || address == nullptr || port > UINT16_MAX) return DNS_E_INVAL;
  const Address server = read_address(address, static_cast<uint16_t>(port));
  return server.family != Family::none ? append(ctx, &server) : int{DNS_E_INVAL};
}

int dns_get_serv(const dns_ctx *ctx, sockaddr *addresses, unsigned *size) {
  if (ctx == nullptr || size == nullptr) return DNS_E_INVAL;
  const std::span servers(ctx->servers, ctx->nserv);
  const auto is_ipv4 = [](const Server *server) { return server->address.family == Family::ipv4; };
  const auto count = static_cast<unsigned>(std::ranges::count_if(servers, is_ipv4));
  const unsigned needed = count * static_cast<unsigned>(sizeof(sockaddr));
  const bool fits = *size >= needed && (addresses != nullptr || needed == 0);
  *size = needed;
  if (!fits) return DNS_E_NOBUFS;
  for (const Server *server : servers) {
    if (!is_ipv4(server)) continue;
    const SocketAddress address(server->address);
    memcpy(addresses++, address.generic(), address.size());
  }
  return static_cast<int>(count);
}

int dns_get_serv_ss(const dns_ctx *ctx, sockaddr_storage *addresses, unsigned *count) {
  if (ctx == nullptr || count == nullptr) return DNS_E_INVAL;
  const bool fits = *count >= ctx->nserv && (addresses != nullptr || ctx->nserv == 0);
  *count = ctx->nserv;
  if (!fits) return DNS_E_NOBUFS;
  for (const Server *server : std::span(ctx->servers, ctx->nserv)) {
    const SocketAddress address(server->address);
    *addresses = {};
    memcpy(addresses++, address.generic(), address.size());
  }
  return static_cast<int>(ctx->nserv);
}

int dns_add_expserv_s(dns_ctx *ctx, const sockaddr *address) {
  if (ctx == nullptr) return DNS_E_INVAL;
  if (address == nullptr) {
    ctx->nexpected = 0;
    return 0;
  }
  Address server = from_host(address);
  if (server.family == Family::ipv6) server = as_server(server, 0);
  if (server.family == Family::none) return DNS_E_INVAL;
  if (ctx->nexpected == kExpectedServersMax) return DNS_E_NOBUFS;
  ctx->expected[ctx->nexpected++] = server;
  return static_cast<int>(ctx->nexpected);
}

}  // extern "C"
