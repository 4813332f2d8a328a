// server_statistics.cc - what any thread may read of a server (dns_get_serv_avgrtt and its relatives), and of the
// context's sockets.
#include <socket_address.h>

#include <algorithm>

#include "context.h"

using namespace dns;

namespace {

template <typename Use>
dns_status statistic(dns_ctx *ctx, const sockaddr *server, const void *value, Use use) {
  if (ctx == nullptr || server == nullptr || value == nullptr) return DNS_E_INVAL;
  const Address address = as_server(from_host(server), static_cast<uint16_t>(ctx->options.port));
  bool asked = false;
  const bool found = ctx->server_table.read(address, [&](const Server &s) {
    asked = s.sent.load(std::memory_order_relaxed) > 0;
    use(s);
  });
  return found && asked ? DNS_E_NOERROR : DNS_E_INVAL;
}

}  // namespace

extern "C" {

dns_status dns_get_serv_avgrtt(dns_ctx *ctx, const sockaddr *server, int *value) {
  return statistic(ctx, server, value, [=](const Server &s) { *value = s.average_ms.load(std::memory_order_relaxed); });
}

dns_status dns_get_serv_lastrtt(dns_ctx *ctx, const sockaddr *server, int *value) {
  return statistic(ctx, server, value, [=](const Server &s) { *value = s.last_ms.load(std::memory_order_relaxed); });
}

dns_status dns_get_serv_last_check(dns_ctx *ctx, const sockaddr *server, int *value) {
  return statistic(ctx, server, value,
                   [=](const Server &s) { *value = static_cast<int>(s.last_check.load(std::memory_order_relaxed)); });
}

dns_status dns_get_serv_nqsent(dns_ctx *ctx, const sockaddr *server, uint64_t *value) {
  return statistic(ctx, server, value, [=](const Server &s) { *value = s.sent.load(std::memory_order_relaxed); });
}

dns_status dns_get_serv_nused(dns_ctx *ctx, const sockaddr *server, uint64_t *value) {
  return statistic(ctx, server, value, [=](const Server &s) { *value = s.used.load(std::memory_order_relaxed); });
}

dns_status dns_get_serv_ntimeout(dns_ctx *ctx, const sockaddr *server, uint64_t *value) {
  return statistic(ctx, server, value, [=](const Server &s) { *value = s.timed_out.load(std::memory_order_relaxed); });
}

dns_status dns_get_serv_window(dns_ctx *ctx, const sockaddr *server, int *value) {
  return statistic(ctx, server, value,
                   [=](const Server &s) { *value = static_cast<int>(std::min(s.window.size(), ctx->options.window)); });
}

dns_status dns_get_serv_nwaiting(dns_ctx *ctx, const sockaddr *server, int *value) {
  return statistic(ctx, server, value,
                   [=](const Server &s) { *value = static_cast<int>(s.waiting.load(std::memory_order_relaxed)); });
}

dns_status dns_get_serv_noverload(dns_ctx *ctx, const sockaddr *server, uint64_t *value) {
  return statistic(ctx, server, value, [=](const Server &s) { *value = s.overloads.load(std::memory_order_relaxed); });
}

dns_status dns_get_ndropped(dns_ctx *ctx, uint64_t *value) {
  if (ctx == nullptr || value == nullptr) return DNS_E_INVAL;
  *value = ctx->sockets.drops();
  return DNS_E_NOERROR;
}

}  // extern "C"
