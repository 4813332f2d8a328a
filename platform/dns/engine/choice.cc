// choice.cc - which server a question goes to, first and then: by the order of the list, in turn or by cost; which
// servers are set aside because they do not answer, and how they come back. See engine.h.
//
// Nothing here has a timer. Figures are brought up to date in passing, for the servers of the question at hand; so the
// work is bounded by the servers of one question, and an idle context does none.
//
// The cost zone's look-ups are questions of the engine's own. The loop rests though some are open: their answers are
// taken where somebody still reads the sockets, else they wait until the next question wakes the engine.
#include <algorithm>
#include <bit>
#include <utility>

#include "engine.h"

namespace dns {
namespace {

constexpr int64_t kProbeMinUs = kUsPerSecond;  // between questions that go first to a server nothing is heard of
constexpr int64_t kProbeMaxUs = 60 * kUsPerSecond;
constexpr int64_t kStaleMinUs = 10 * kUsPerSecond;  // before a server that others are preferred to is measured again
constexpr unsigned kStaleEvery = 16;                // of so many questions at most one goes to measure such a server
constexpr int64_t kLossHalfLifeUs = kUsPerSecond * 10;
constexpr int64_t kUnknownUs = INT64_MAX / 4;  // the cost of a server that has not been measured
constexpr int64_t kCostMinUs = kUsPerSecond;   // for which a cost is kept whatever its TTL
constexpr int64_t kUsPerMs = 1000;

constexpr bool has(uint32_t set, unsigned place) {
  return (set & (1U << place)) != 0;
}

bool rates(const dns_query *q) {
  return q->ctx->options.bsc_size > 0;
}

// Servers of a delegation come in no order of anybody's choosing.
bool by_cost(const dns_query *q) {
  return rates(q) || zone_of(q) != nullptr;
}

// Candidates are the servers, by their places, that have not refused the question: those that it may go to, and those
// that are set aside as long as there are others.
struct Candidates {
  uint32_t open = 0;
  uint32_t aside = 0;
};

Candidates candidates(const dns_query *q) {
  Candidates found;
  const auto servers = servers_of(q);
  for (unsigned i = 0; i < servers.size(); ++i)
    if (!has(q->refused, i)) (servers[i]->set_aside() ? found.aside : found.open) |= 1U << i;
  return found.open != 0 ? found : Candidates{found.aside, 0};
}

// following returns the next place after `place` in a set that is not empty.
unsigned following(uint32_t set, unsigned place, unsigned count) {
  do
    place = (place + 1) % count;
  while (!has(set, place));
  return place;
}

// ---- cost

void look_up_cost(const dns_query *q, Server *server);

// rate brings a server's cost up to date: the time that a question takes there, counting what its time-outs cost.
void rate(const dns_query *q, Server *server) {
  const dns_ctx *ctx = q->ctx;
  const bool known = server->srtt_us != 0;
  const bool fresh = server->rated_us != 0 && ctx->now_us - server->rated_us < ctx->options.bsc_update_s * kUsPerSecond;
  if (fresh && known == (server->cost_us < kUnknownUs)) return;
  look_up_cost(q, server);
  server->forget_losses(ctx->now_us, kLossHalfLifeUs);
  const int64_t wasted = server->loss * server->patience_us(0, ctx->options.timeout_us) / kLossWhole;
  server->cost_us =
      (known ? server->srtt_us + wasted : kUnknownUs) + (ctx->cost_zone[0] != 0 ? server->zone_cost_us : 0);
  server->rated_us = ctx->now_us;
}

int64_t cost_of(const dns_query *q, const Server *server) {
  if (rates(q)) return server->cost_us;
  return server->srtt_us != 0 ? server->srtt_us : kUnknownUs;
}

// start_of is where a search through the servers starts, so that equals among those of a delegation share the work.
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

// ---- servers that are tried though others are better

// probe sends a question to a server that is set aside, when it is time.
bool probe(dns_query *q, unsigned place) {
  const dns_ctx *ctx = q->ctx;
  Server *server = servers_of(q)[place];
  if (ctx->now_us < server->try_at_us || server->under_way >= kPerServer) return false;
  q->server = static_cast<uint8_t>(place);
  q->probes = true;
  server->try_wait_us = std::min(2 * server->try_wait_us, kProbeMaxUs);
  // Not before this one has been waited for: one question at a time.
  server->try_at_us = ctx->now_us + std::max(server->try_wait_us, try_patience_us(q));
  return true;
}

// measure sends a question, when it is time, to the server of a set that was measured longest ago, or never.
bool measure(dns_query *q, uint32_t set) {
  const dns_ctx *ctx = q->ctx;
  const auto servers = servers_of(q);
  const int64_t stale_us = std::max(kStaleMinUs, ctx->options.bsc_update_s * kUsPerSecond);
  unsigned oldest = static_cast<unsigned>(servers.size());
  for (unsigned i = 0; i < servers.size(); ++i) {
    const Server *server = servers[i];
    const bool due =
        server->srtt_us == 0 || (ctx->now_us - server->heard_us >= stale_us && ctx->next_first % kStaleEvery == 0);
    if (!due || !has(set, i) || ctx->now_us < server->try_at_us) continue;
    if (oldest == servers.size() || server->heard_us < servers[oldest]->heard_us) oldest = i;
  }
  if (oldest == servers.size()) return false;
  q->server = static_cast<uint8_t>(oldest);
  servers[oldest]->try_at_us = ctx->now_us + (servers[oldest]->srtt_us != 0 ? stale_us : kProbeMinUs);
  return true;
}

// ---- the first server

void first_in_turn(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  const auto servers = servers_of(q);
  const auto count = static_cast<unsigned>(servers.size());
  const bool turns = (ctx->options.flags & DNS_SERVRRB) != 0 && q->own == nullptr;
  unsigned place = turns ? (ctx->next_first + 1) % count : 0;
  if (servers[place]->set_aside()) {
    const Candidates found = candidates(q);
    while (!has(found.open, place) && !probe(q, place))
      place = (place + 1) % count;
  }
  if (turns) ctx->next_first = place;
  q->server = static_cast<uint8_t>(place);
}

void first_by_cost(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  const auto servers = servers_of(q);
  const Candidates found = candidates(q);
  for (unsigned i = 0; i < servers.size(); ++i)
    if (has(found.aside, i) && probe(q, i)) return;
  unsigned rank = 0;
  if (rates(q)) {
    ++ctx->next_first;
    for (Server *server : servers)
      rate(q, server);
    if (measure(q, found.open)) return;
    rank = ctx->next_first % std::min(ctx->options.bsc_nbest, static_cast<uint32_t>(std::popcount(found.open)));
  }
  const unsigned start = start_of(q);
  uint32_t left = found.open;
  for (; rank > 0; --rank)
    left &= ~(1U << cheapest(q, left, start));
  q->server = static_cast<uint8_t>(cheapest(q, left, start));
}

// ---- the cost zone

// costed is the callback of a cost's look-up. No answer is no cost.
void costed(dns_ctx *ctx, dns_query *lookup, void *result, unsigned, void *) {
  constexpr in_addr_t kNet = 127U << 8;  // 127.0
  Server *server = ctx->ratings[lookup->rating - 1].server;
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

// cost_name writes the name under which the cost zone tells a server's cost; false when it would be too long.
bool cost_name(const dns_ctx *ctx, const Server *server, uint8_t *dn) {
  const uint8_t *end = dn + DNS_MAXDN;
  uint8_t *at = dns_a4todn_(&server->address.sin_addr, dn, end);
  return at != nullptr && dns_dntodn(ctx->cost_zone, at, static_cast<unsigned>(end - at)) != 0;
}

// look_up_cost asks the cost zone for a server's cost once the one that is known has expired. A question of the
// engine's own does not have further ones asked.
void look_up_cost(const dns_query *q, Server *server) {
  dns_ctx *ctx = q->ctx;
  const bool own = q->rating != 0 || (q->journey != nullptr && q->journey->top != nullptr);
  uint8_t dn[DNS_MAXDN];
  if (ctx->cost_zone[0] == 0 || own || ctx->now_us < server->zone_until_us) return;
  dns_ctx::Rating *free_one = nullptr;
  for (dns_ctx::Rating &rating : ctx->ratings) {
    if (rating.server == server) return;
    if (rating.server == nullptr) free_one = &rating;
  }
  if (free_one == nullptr || !cost_name(ctx, server, dn)) return;
  free_one->lookup =
      dns_submit_dn_serv(ctx, dn, DNS_C_IN, DNS_T_A, DNS_RCRS, nullptr, 0, dns_parse_a4, costed, nullptr);
  if (free_one->lookup == nullptr) return;
  free_one->lookup->rating = static_cast<uint8_t>(free_one - ctx->ratings + 1);
  free_one->server = server;
  ctx->server_table.hold_again(server);
  ++ctx->ratings_open;
}

}  // namespace

void choose_first(dns_query *q) {
  q->server = q->round = 0;
  q->tried = 0;
  q->probes = false;
  if (servers_of(q).size() < 2) return;
  if (by_cost(q)) {
    first_by_cost(q);
  } else {
    first_in_turn(q);
  }
}

bool choose_next(dns_query *q) {
  const uint32_t left = candidates(q).open;
  q->probes = false;
  if (left == 0) return false;
  const uint32_t open = (left & ~q->unreached) != 0 ? left & ~q->unreached : left;
  q->tried |= 1U << q->server;
  if ((open & ~q->tried) == 0) {
    q->tried = 0;
    ++q->round;
  }
  const uint32_t set = open & ~q->tried;
  const unsigned place = by_cost(q) ? cheapest(q, set, start_of(q))
                                    : following(set, q->server, static_cast<unsigned>(servers_of(q).size()));
  q->server = static_cast<uint8_t>(place);
  return true;
}

bool is_unreached(const dns_query *q) {
  const uint32_t open = candidates(q).open;
  return open != 0 && (open & ~q->unreached) == 0;
}

void turn_away(dns_query *q) {
  if (q->probes || !has(candidates(q).aside, q->server)) return;
  // Those that were waiting for room at the server would wait in vain.
  q->ctx->sending.take_all(&servers_of(q)[q->server]->parked);
  give_up_place(q);
  forget_manner(q);
  (void)choose_next(q);
}

int64_t try_patience_us(const dns_query *q) {
  const dns_ctx *ctx = q->ctx;
  const auto servers = servers_of(q);
  const Server *server = servers[q->server];
  const int64_t longest = ctx->options.timeout_us;
  // Nothing is sent after the last try, so it may as well wait its whole time: an answer to any try still counts.
  if (q->tries >= ctx->options.ntries && recursive(q)) return longest;
  if (server->srtt_us != 0 && !q->probes) return server->patience_us(q->round, longest);
  // A second server can still answer within the time that a first one without an estimate would be given.
  const uint32_t others = candidates(q).open & ~q->tried & ~(1U << q->server);
  int64_t patience = others == 0 ? longest : longest / 2;
  for (unsigned i = 0; q->probes && i < servers.size(); ++i)
    if (has(others, i)) patience = std::min(patience, servers[i]->patience_us(0, longest));
  return patience;
}

void missed(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  Server *server = servers_of(q)[q->server];
  // A look-up that nobody has read the answer to says nothing of the server.
  if (q->rating != 0 || !server->missed(q->sent_us, ctx->now_us)) return;
  server->try_wait_us = kProbeMinUs;
  server->try_at_us = ctx->now_us + kProbeMinUs;
}

void end_rating(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  dns_ctx::Rating &rating = ctx->ratings[std::exchange(q->rating, uint8_t{0}) - 1];
  ctx->server_table.release(std::exchange(rating.server, nullptr));
  --ctx->ratings_open;
}

void drop_ratings(dns_ctx *ctx) {
  for (const dns_ctx::Rating &rating : ctx->ratings)
    if (rating.server != nullptr) dns_cancel(ctx, rating.lookup);
}

}  // namespace dns
