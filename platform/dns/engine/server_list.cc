// server_list.cc - see server_list.h.
#include "server_list.h"

#include <string.h>

#include <dns_wire.h>

#include "context.h"
#include "cost_zone.h"

namespace dns {

void drop_servers(dns_ctx *ctx) {
  for (unsigned i = 0; i < ctx->nserv; ++i)
    ctx->server_table.release(ctx->servers[i]);
  ctx->nserv = 0;
  ctx->portless = 0;
}

int add_server(dns_ctx *ctx, const sockaddr_in &address, bool portless) {
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
    sockaddr_in address = ctx->servers[i]->address;
    address.sin_port = htons(static_cast<uint16_t>(port));
    Server *server = ctx->server_table.hold(address);
    if (server == nullptr) return DNS_E_NOMEM;
    ctx->server_table.release(ctx->servers[i]);
    ctx->servers[i] = server;
  }
  return DNS_E_NOERROR;
}

bool read_server(const sockaddr *address, uint32_t port, sockaddr_in *server) {
  memcpy(server, address, sizeof *server);
  if (server->sin_family != AF_INET) return false;
  // The address that means "this host" answers from loopback.
  if (server->sin_addr.s_addr == htonl(INADDR_ANY)) server->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (server->sin_port == 0) server->sin_port = htons(static_cast<uint16_t>(port));
  memset(server->sin_zero, 0, sizeof server->sin_zero);
  return true;
}

}  // namespace dns

using namespace dns;

extern "C" {

int dns_add_serv_s(dns_ctx *ctx, const sockaddr *address) {
  if (ctx == nullptr) return DNS_E_INVAL;
  if (ctx->open_queries() > 0) return DNS_E_BUSY;  // they remember servers by their place in the list
  drop_ratings(ctx);
  if (address == nullptr) {
    drop_servers(ctx);
    return 0;
  }
  sockaddr_in server;
  memcpy(&server, address, sizeof server);
  const bool portless = server.sin_port == 0;
  if (!read_server(address, ctx->options.port, &server)) return DNS_E_INVAL;
  return add_server(ctx, server, portless);
}

int dns_add_serv(dns_ctx *ctx, const char *address) {
  if (address == nullptr) return dns_add_serv_s(ctx, nullptr);
  sockaddr_in server{};
  server.sin_family = AF_INET;
  if (dns_pton(AF_INET, address, &server.sin_addr) <= 0) return DNS_E_INVAL;
  return dns_add_serv_s(ctx, reinterpret_cast<const sockaddr *>(&server));
}

int dns_get_serv(const dns_ctx *ctx, sockaddr *addresses, unsigned *size) {
  if (ctx == nullptr || size == nullptr) return DNS_E_INVAL;
  const unsigned needed = ctx->nserv * static_cast<unsigned>(sizeof(sockaddr_in));
  const bool fits = *size >= needed && (addresses != nullptr || needed == 0);
  *size = needed;
  if (!fits) return DNS_E_NOBUFS;
  for (unsigned i = 0; i < ctx->nserv; ++i)
    memcpy(addresses + i, &ctx->servers[i]->address, sizeof(sockaddr_in));
  return static_cast<int>(ctx->nserv);
}

int dns_add_expserv_s(dns_ctx *ctx, const sockaddr *address) {
  if (ctx == nullptr) return DNS_E_INVAL;
  if (address == nullptr) {
    ctx->nexpected = 0;
    return 0;
  }
  sockaddr_in server;
  memcpy(&server, address, sizeof server);
  if (server.sin_family != AF_INET) return DNS_E_INVAL;
  if (ctx->nexpected == kExpectedServersMax) return DNS_E_NOBUFS;
  ctx->expected[ctx->nexpected++] = server;
  return static_cast<int>(ctx->nexpected);
}

}  // extern "C"
