// delivery.cc - see delivery.h.
#include "delivery.h"

#include <utility>

#include "coalesce.h"
#include "context.h"
#include "cost_zone.h"
#include "move.h"
#include "places.h"
#include "resolving.h"

namespace dns {
namespace {

// abandon_lookup cancels the lookup that a query waits for.
void abandon_lookup(dns_query *q) {
  if (q->resolution == nullptr || q->resolution->lookup == nullptr) return;
  drop(std::exchange(q->resolution->lookup, nullptr));
}

void release_name(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  if (q->question.dn == nullptr || q->question.dn == q->inline_dn) return;
  auto *block = const_cast<uint8_t *>(q->question.dn);
  if (q->dn_size <= kMediumName) {
    ctx->medium_names.put(block);
  } else {
    ctx->long_names.put(block);
  }
}

}  // namespace

void release_own_servers(dns_query *q) {
  OwnServers *own = std::exchange(q->question.own, nullptr);
  if (own == nullptr) return;
  for (unsigned i = 0; i < own->count; ++i)
    q->ctx->server_table.release(own->servers[i]);
  q->ctx->own_servers.put(own);
}

void release(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  abandon_lookup(q);
  end_resolution(q);
  release_own_servers(q);
  release_name(q);
  q->~dns_query();
  ctx->queries.put(q);
}

void deliver(dns_query *q, dns_status status, void *result, unsigned size, unsigned sflags) {
  dns_ctx *ctx = q->ctx;
  base::Link coalesced;
  stop_leading(q, &coalesced);
  leave(q);
  move(q, State::delivering, nullptr);
  --ctx->active;
  ctx->status = status;
  ctx->sflags = sflags;
  if (q->question.callback != nullptr) q->question.callback(ctx, q, result, size, q->question.data);
  if (q->rating != 0) end_rating(q);
  release(q);
  while (!coalesced.alone())
    deliver(static_cast<dns_query *>(coalesced.next), status, nullptr, 0, sflags);
}

void drop(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  base::Link coalesced;
  abandon_lookup(q);
  stop_leading(q, &coalesced);
  leave(q);
  --ctx->active;
  if (q->rating != 0) end_rating(q);
  promote(&coalesced);
  if (ctx->holds == 0) {
    release(q);
  } else {
    move(q, State::cancelled, &ctx->cancelled);
  }
}

}  // namespace dns
