// rto.cc - see rto.h.
#include "rto.h"

#include <algorithm>
#include <bit>

#include "arrival.h"
#include "candidates.h"
#include "congestion.h"
#include "context.h"
#include "move.h"
#include "places.h"

namespace dns {
namespace {

// places_of returns the set of the query's servers that have an address.
uint32_t places_of(const dns_query *q, const Address &address) {
  const auto servers = servers_of(q);
  uint32_t set = 0;
  for (unsigned i = 0; i < servers.size(); ++i)
    if (servers[i]->address == address) set |= bit(i);
  return set;
}

}  // namespace

int64_t attempt_timeout_us(const dns_query *q) {
  const dns_ctx *ctx = q->ctx;
  const auto servers = servers_of(q);
  const Server *server = present_server(q);
  const int64_t longest = ctx->options.timeout_us;
  // Nothing is sent after the last attempt, so it has the longest timeout: an answer to any attempt still counts.
  if (q->progress.attempts >= ctx->options.ntries && recursive(q)) return longest;
  if (server->srtt_us != 0 && !q->attempt.probes) return server->rto_us(q->attempt.round, longest);
  // A server without an estimate gets part of the timeout, so that the next server can answer in the rest.
  const uint32_t others = candidates(q).open & ~q->progress.tried & ~bit(q->attempt.server);
  int64_t timeout = others == 0 ? longest : longest / 2;
  for (unsigned i = 0; q->attempt.probes && i < servers.size(); ++i)
    if ((others & bit(i)) != 0) timeout = std::min(timeout, servers[i]->rto_us(0, longest));
  return timeout;
}

void wait_for_answer(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  Server *server = present_server(q);
  int64_t timeout = ctx->options.timeout_us;
  if (!q->attempt.over_tcp) {
    // By then another query's answer may have given the server an estimate.
    timeout = attempt_timeout_us(q);
    if (server->srtt_us == 0) timeout = std::min(timeout, kRearmUs);
    timeout = std::min(timeout, server->rto_us(0, timeout));
  }
  q->attempt.sent_us = ctx->now_us;
  server->sent.fetch_add(1, std::memory_order_relaxed);
  move_until(q, State::waiting, ctx->now_us + timeout);
}

bool rearm(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  if (q->attempt.over_tcp) return false;
  const int64_t left_us = q->attempt.sent_us + attempt_timeout_us(q) - ctx->now_us;
  if (left_us <= 0) return false;
  const Server *server = present_server(q);
  const bool known = server->srtt_us != 0;
  // A packet that is so late is on its way no more, whatever the attempt still waits for.
  if (known && ctx->now_us >= q->attempt.sent_us + server->rto_us(0, INT64_MAX)) give_up_place(q);
  move_until(q, State::waiting, ctx->now_us + (known ? left_us : std::min(left_us, kRearmUs)));
  return true;
}

uint32_t answering(const dns_query *q, const Address &peer) {
  const uint32_t set = places_of(q, peer);
  return set != 0 ? set : bit(q->attempt.server);
}

void measure(dns_query *q, const Arrival &arrival) {
  dns_ctx *ctx = q->ctx;
  const uint32_t places = places_of(q, *arrival.peer), present = bit(q->attempt.server);
  const bool from_present = places == 0 || (places & present) != 0;
  Server *server = from_present ? present_server(q) : servers_of(q)[static_cast<size_t>(std::countr_zero(places))];
  server->used.fetch_add(1, std::memory_order_relaxed);
  server->heard(ctx->now_us);
  if (q->attempt.under_way == server && arrival.by_udp()) note_answer(q);
  // Over TCP the time includes opening the connection, or waiting for other queries.
  if (!arrival.by_udp() || places == 0) return;
  // A server that is in the list twice may answer the packet sent to either place.
  const bool once = (places & q->attempt.asked & ~present) == 0;
  const bool sure = from_present && q->attempt.round == 0 && once;
  // After a retransmission the answer may belong to an earlier packet (Karn's rule), and only the time since the first
  // packet is sure to include its round trip. That time counts if it is above the estimate and no clear measurement has
  // come in since. Otherwise a server that has become slower than its RTO would never be measured again and always be
  // sent two packets; a server that merely loses packets is still measured by other queries.
  const int64_t rtt = ctx->now_us - (sure ? q->attempt.sent_us : q->attempt.first_sent_us);
  const bool slower = server->srtt_us != 0 && rtt > server->srtt_us && server->measured_us < q->attempt.first_sent_us;
  if (sure) server->measured_us = ctx->now_us;
  if (sure || slower) server->sample(rtt, wall(ctx));
}

}  // namespace dns
