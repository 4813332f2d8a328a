// invariants.cc - see invariants.h.
#include "invariants.h"

#include <stdio.h>
#include <stdlib.h>

#include "context.h"

namespace dns {
namespace {

void require(bool holds, const dns_query *q, const char *what) {
  if (holds) return;
  fprintf(stderr, "dns engine: %s (query in state %s)\n", what, q != nullptr ? name_of(q->state) : "none");
  abort();
}

// Census counts the records of a context as they are found, to be compared with what the context has counted.
struct Census {
  const dns_ctx *ctx;
  unsigned queries = 0;
  unsigned indexed = 0;
  unsigned leaders = 0;
  unsigned under_way = 0;
  unsigned on_connections = 0;
  unsigned on_sockets = 0;

  void take(const dns_query *q, State expected) {
    require(q->ctx == ctx, q, "a query is in a list of another context");
    require(q->state == expected, q, "a query is in the list of another state");
    ++queries;
    if (q->leads) ++leaders;
    if (q->attempt.under_way != nullptr) ++under_way;
    for (const int slot : {q->attempt.slot, q->attempt.former_slot})
      if (slot != UdpPool::kNone) ++(slot >= kTcpSlot ? on_connections : on_sockets);
    if (q->attempt.slot != UdpPool::kNone || q->attempt.former_slot != UdpPool::kNone) ++indexed;
    for (const base::Link *link = q->coalesced.next; link != &q->coalesced; link = link->next)
      take(static_cast<const dns_query *>(link), State::coalesced);
  }
  void take_list(const base::Link &list, State expected) {
    for (const base::Link *link = list.next; link != &list; link = link->next)
      take(static_cast<const dns_query *>(link), expected);
  }
};

void check_connections(const dns_ctx *ctx, Census *census) {
  unsigned open = 0, posted = 0;
  for (const Connection &connection : ctx->connections) {
    if (connection.link.is_open()) ++open;
    posted += connection.count;
    for (unsigned i = 0; i < connection.count; ++i) {
      const dns_query *q = connection.under_way[i].query;
      require(q->state == State::waiting && q->attempt.place == i, q, "a connection has a query that is not under way");
    }
  }
  require(open == ctx->connections_open, nullptr, "the count of connections is wrong");
  require(posted == census->on_connections, nullptr, "a query is on no connection, or on two");
}

}  // namespace

void check_all(dns_ctx *ctx) {
  Census census{ctx};
  census.take_list(ctx->queued, State::queued);
  census.take_list(ctx->sending, State::sending);
  census.take_list(ctx->tcp_waiting, State::sending);
  census.take_list(ctx->resolving, State::resolving);
  unsigned under_way = 0;
  ctx->server_table.each([&](const Server *server) {
    const unsigned before = census.queries;
    census.take_list(server->parked_again, State::parked);
    census.take_list(server->parked, State::parked);
    require(census.queries - before == server->waiting, nullptr, "a server's count of parked queries is wrong");
    under_way += server->under_way;
  });
  ctx->timers.each([&](const base::Timer *timer) {
    const auto *q = static_cast<const dns_query *>(timer);
    require(has_timer(q->state), q, "a timer belongs to a query that waits for nothing");
    census.take(q, q->state);
  });
  require(census.queries == ctx->active, nullptr, "a query is in no list, or in two");
  require(census.indexed == ctx->index.count(), nullptr, "the index has other queries than those that were sent");
  require(census.leaders == ctx->leaders.count(), nullptr, "the table of leaders has others than those that lead");
  require(census.under_way == under_way, nullptr, "a server's count of queries under way is wrong");
  require(census.on_sockets == ctx->sockets.in_flight(), nullptr, "a socket's count of queries is wrong");
  check_connections(ctx, &census);
}

#ifndef NDEBUG
void check_turn(dns_ctx *ctx) {
  constexpr unsigned kPerTurn = 64;  // records that a turn pays for
  if (++ctx->turns_unchecked * kPerTurn < ctx->active) return;
  ctx->turns_unchecked = 0;
  check_all(ctx);
}
#endif

}  // namespace dns
