// cost_zone.cc - see cost_zone.h.
#include "cost_zone.h"

#include <netinet/in.h>
#include <string.h>

#include <algorithm>
#include <utility>

#include <dns_wire.h>

#include "context.h"
#include "resolving.h"

namespace dns {
namespace {

// costed is the callback of a cost's lookup. Without an answer the cost is 0.
void costed(dns_ctx *ctx, dns_query *lookup, void *result, unsigned, void *) {
  constexpr in_addr_t kNet = 127U << 8;  // 127.0
  Server *server = ctx->costs.ratings[lookup->rating - 1].server;
  const auto *block = static_cast<const dns_rr_a4 *>(dns_get_status(ctx) == DNS_E_NOERROR ? result : nullptr);
  server->zone_cost_us = 0;
  for (int i = 0; block != nullptr && i < block->dnsa4_nrr; ++i) {
    const in_addr_t address = ntohl(block->dnsa4_addr[i].s_addr);
    if (address >> 16 != kNet) continue;
    server->zone_cost_us = int64_t{address & 0xFFFF} * kUsPerMs;
    break;
  }
  const int64_t ttl_us = block != nullptr ? block->dnsa4_ttl * kUsPerSecond : 0;
  server->zone_until_us = ctx->now_us + std::max(ttl_us, kCostMinUs);
  server->rated_us = 0;
}

// cost_name writes the name of a server's cost in the cost zone; false when it would be too long.
bool cost_name(const dns_ctx *ctx, const Server *server, uint8_t *dn) {
  const uint8_t *end = dn + DNS_MAXDN;
  in_addr ip4;
  in6_addr ip6;
  memcpy(&ip4, server->address.octets, sizeof ip4);
  memcpy(&ip6, server->address.octets, sizeof ip6);
  uint8_t *at = server->address.family == Family::ipv6 ? dns_a6todn_(&ip6, dn, end) : dns_a4todn_(&ip4, dn, end);
  return at != nullptr && dns_dntodn(ctx->costs.zone, at, static_cast<unsigned>(end - at)) != 0;
}

}  // namespace

void lookup_cost(const dns_query *q, Server *server) {
  dns_ctx *ctx = q->ctx;
  const bool own = q->rating != 0 || is_lookup(q);
  uint8_t dn[DNS_MAXDN];
  if (!ctx->costs.is_set() || own || ctx->now_us < server->zone_until_us) return;
  CostZone::Rating *free_one = nullptr;
  for (CostZone::Rating &rating : ctx->costs.ratings) {
    if (rating.server == server) return;
    if (rating.server == nullptr) free_one = &rating;
  }
  if (free_one == nullptr || !cost_name(ctx, server, dn)) return;
  free_one->lookup =
      dns_submit_dn_serv(ctx, dn, DNS_C_IN, DNS_T_A, DNS_RCRS, nullptr, 0, dns_parse_a4, costed, nullptr);
  if (free_one->lookup == nullptr) return;
  free_one->lookup->rating = static_cast<uint8_t>(free_one - ctx->costs.ratings + 1);
  free_one->server = server;
  ctx->server_table.hold_again(server);
  ++ctx->costs.open;
}

void end_rating(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  CostZone::Rating &rating = ctx->costs.ratings[std::exchange(q->rating, uint8_t{0}) - 1];
  ctx->server_table.release(std::exchange(rating.server, nullptr));
  --ctx->costs.open;
}

void drop_ratings(dns_ctx *ctx) {
  for (const CostZone::Rating &rating : ctx->costs.ratings)
    if (rating.server != nullptr) dns_cancel(ctx, rating.lookup);
}

}  // namespace dns

using namespace dns;

extern "C" {

dns_status dns_set_cost_zone(dns_ctx *ctx, const char *zone) {
  if (ctx == nullptr) return DNS_E_INVAL;
  uint8_t dn[DNS_MAXDN] = {};
  if (zone != nullptr && dns_ptodn(zone, 0, dn, sizeof dn, nullptr) <= 0) return DNS_E_BADQUERY;
  drop_ratings(ctx);
  memcpy(ctx->costs.zone, dn, sizeof dn);
  ctx->server_table.each([](Server *server) { server->forget_cost(); });
  return DNS_E_NOERROR;
}

}  // extern "C"
