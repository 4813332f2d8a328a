// choice.cc - see choice.h. Servers are taken in the order of the list, in rotation, or by cost.
//
// Nothing here has a timer. Each query updates the figures of its own servers; so the work is bounded by the servers of
// one query, and an idle context does none.
#include "choice.h"

#include <algorithm>
#include <bit>

#include <siphash.h>

#include "candidates.h"
#include "context.h"
#include "cost_zone.h"
#include "places.h"
#include "resolving.h"
#include "route.h"
#include "rto.h"

namespace dns {
namespace {

constexpr int64_t kUnknownUs = INT64_MAX / 4;  // the cost of a server that has not been measured

constexpr bool has(uint32_t set, unsigned place) {
  return (set & bit(place)) != 0;
}

bool rates(const dns_query *q) {
  return q->ctx->options.bsc_size > 0;
}

// by_cost tells whether the cheapest server comes next: the servers of a delegation are in no order of preference.
bool by_cost(const dns_query *q) {
  return rates(q) || zone_of(q) != nullptr;
}

// following returns the next place after `place` in a set that is not empty.
unsigned following(uint32_t set, unsigned place, unsigned count) {
  do
    place = (place + 1) % count;
  while (!has(set, place));
  return place;
}

// rate updates a server's cost: the time that a query takes there, with what its timeouts cost.
void rate(const dns_query *q, Server *server) {
  const dns_ctx *ctx = q->ctx;
  const bool known = server->srtt_us != 0;
  const bool fresh = server->rated_us != 0 && ctx->now_us - server->rated_us < ctx->options.bsc_update_s * kUsPerSecond;
  if (fresh && known == (server->cost_us < kUnknownUs)) return;
  lookup_cost(q, server);
  server->forget_losses(ctx->now_us);
  const int64_t wasted = server->loss * server->rto_us(0, ctx->options.timeout_us) / kLossWhole;
  server->cost_us = (known ? server->srtt_us + wasted : kUnknownUs) + (ctx->costs.is_set() ? server->zone_cost_us : 0);
  server->rated_us = ctx->now_us;
}

int64_t cost_of(const dns_query *q, const Server *server) {
  if (rates(q)) return server->cost_us;
  return server->srtt_us != 0 ? server->srtt_us : kUnknownUs;
}

// start_of returns where the search through the servers starts, so that equal servers of a delegation share the
// queries.
unsigned start_of(const dns_query *q) {
  uint16_t number = 0;
  if (zone_of(q) == nullptr || !q->ctx->random.u16(&number)) return 0;
  return number % static_cast<unsigned>(servers_of(q).size());
}

// cheapest returns the place with the least cost in a set that is not empty.
unsigned cheapest(const dns_query *q, uint32_t set, unsigned start) {
  const auto servers = servers_of(q);
  const auto count = static_cast<unsigned>(servers.size());
  unsigned best = has(set, start) ? start : following(set, start, count);
  for (unsigned i = 1; i < count; ++i) {
    const unsigned place = (start + i) % count;
    if (has(set, place) && cost_of(q, servers[place]) < cost_of(q, servers[best])) best = place;
  }
  return best;
}

// probe makes a query the probe of a server that is marked down, when a probe is due.
bool probe(dns_query *q, unsigned place) {
  const dns_ctx *ctx = q->ctx;
  Server *server = servers_of(q)[place];
  if (ctx->now_us < server->probe_at_us || server->under_way >= server->window.size()) return false;
  q->attempt.server = static_cast<uint8_t>(place);
  q->attempt.probes = true;
  server->probe_wait_us = std::min(2 * server->probe_wait_us, kProbeMaxUs);
  // Not before the timeout of this one: one probe at a time.
  server->probe_at_us = ctx->now_us + std::max(server->probe_wait_us, attempt_timeout_us(q));
  return true;
}

// probe_stale directs a query, when a measurement is due, to the server of a set that was measured longest ago, or
// never.
bool probe_stale(dns_query *q, uint32_t set) {
  const dns_ctx *ctx = q->ctx;
  const auto servers = servers_of(q);
  const int64_t stale_us = std::max(kStaleMinUs, ctx->options.bsc_update_s * kUsPerSecond);
  unsigned oldest = static_cast<unsigned>(servers.size());
  for (unsigned i = 0; i < servers.size(); ++i) {
    const Server *server = servers[i];
    const bool due =
        server->srtt_us == 0 || (ctx->now_us - server->heard_us >= stale_us && ctx->next_first % kStaleEvery == 0);
    if (!due || !has(set, i) || ctx->now_us < server->probe_at_us) continue;
    if (oldest == servers.size() || server->heard_us < servers[oldest]->heard_us) oldest = i;
  }
  if (oldest == servers.size()) return false;
  q->attempt.server = static_cast<uint8_t>(oldest);
  servers[oldest]->probe_at_us = ctx->now_us + (servers[oldest]->srtt_us != 0 ? stale_us : kProbeMinUs);
  return true;
}

void first_in_turn(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  const auto servers = servers_of(q);
  const auto count = static_cast<unsigned>(servers.size());
  const bool turns = (ctx->options.flags & DNS_SERVRRB) != 0 && q->question.own == nullptr;
  unsigned place = turns ? (ctx->next_first + 1) % count : 0;
  if (servers[place]->marked_down() || route_to(ctx, servers[place]) != Route::there) {
    const Candidates found = candidates(q);
    while (!has(found.open, place) && !(has(found.down, place) && probe(q, place)))
      place = (place + 1) % count;
  }
  if (turns) ctx->next_first = place;
  q->attempt.server = static_cast<uint8_t>(place);
}

void first_by_cost(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  const auto servers = servers_of(q);
  const Candidates found = candidates(q);
  for (unsigned i = 0; i < servers.size(); ++i)
    if (has(found.down, i) && probe(q, i)) return;
  unsigned rank = 0;
  if (rates(q)) {
    ++ctx->next_first;
    for (Server *server : servers)
      rate(q, server);
    if (probe_stale(q, found.open)) return;
    rank = ctx->next_first % std::min(ctx->options.bsc_nbest, static_cast<uint32_t>(std::popcount(found.open)));
  }
  const unsigned start = start_of(q);
  uint32_t left = found.open;
  for (; rank > 0; --rank)
    left &= ~bit(cheapest(q, left, start));
  q->attempt.server = static_cast<uint8_t>(cheapest(q, left, start));
}

// key_of returns a hash of a query and a server under the context's secret: untrusted peers choose the names, and none
// may displace others. Letter case is folded in the name only, as 'A' and 'a' are different bytes in types, ports and
// addresses.
uint64_t key_of(const dns_query *q, const Server *server) {
  struct {
    uint64_t name;
    uint16_t typ, cls, recursive, unused;
    Address address;
  } const key = {siphash_folded(q->ctx->secret, q->question.ask, q->ask_size),
                 q->question.typ,
                 q->question.cls,
                 static_cast<uint16_t>(recursive(q)),
                 0,
                 server->address};
  return siphash(q->ctx->secret, &key, sizeof key);
}

}  // namespace

void choose_first(dns_query *q) {
  prepare_for(q, 0);
  q->attempt.probes = false;
  q->attempt.round = 0;
  q->progress.tried = 0;
  if (servers_of(q).size() < 2) return;
  if (by_cost(q)) {
    first_by_cost(q);
  } else {
    first_in_turn(q);
  }
}

bool choose_next(dns_query *q) {
  const uint32_t left = candidates(q).open;
  if (left == 0) return false;
  const uint32_t open = (left & ~q->progress.unreached) != 0 ? left & ~q->progress.unreached : left;
  q->progress.tried |= bit(q->attempt.server);
  if ((open & ~q->progress.tried) == 0) {
    q->progress.tried = 0;
    ++q->attempt.round;
  }
  const uint32_t set = open & ~q->progress.tried;
  const unsigned place = by_cost(q) ? cheapest(q, set, start_of(q))
                                    : following(set, q->attempt.server, static_cast<unsigned>(servers_of(q).size()));
  q->attempt.server = static_cast<uint8_t>(place);
  q->attempt.probes = false;
  return true;
}

void turn_away(dns_query *q) {
  if (q->attempt.probes || !has(candidates(q).down, q->attempt.server)) return;
  // The queries parked at the server would wait in vain.
  unpark(q->ctx, present_server(q));
  give_up_place(q);
  (void)choose_next(q);
  prepare_for(q, q->attempt.server);
}

void missed(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  Server *server = present_server(q);
  // A cost lookup whose sockets were not read says nothing about the server.
  if (q->rating != 0 || !server->missed(q->attempt.sent_us, ctx->now_us)) return;
  server->probe_wait_us = kProbeMinUs;
  server->probe_at_us = ctx->now_us + kProbeMinUs;
}

bool recall_any_failures(dns_query *q) {
  const dns_ctx *ctx = q->ctx;
  const auto servers = servers_of(q);
  for (unsigned i = 0; i < servers.size(); ++i) {
    const dns_status status = ctx->failures.recall(key_of(q, servers[i]), ctx->now_us);
    if (status == DNS_E_NOERROR) continue;
    q->progress.refused |= bit(i);
    q->progress.error = static_cast<int16_t>(status);
  }
  return !has(q->progress.refused, q->attempt.server) || choose_next(q);
}

void remember_failure(const dns_query *q, unsigned place, dns_status status) {
  dns_ctx *ctx = q->ctx;
  ctx->failures.remember(key_of(q, servers_of(q)[place]), ctx->now_us, status);
}

}  // namespace dns
