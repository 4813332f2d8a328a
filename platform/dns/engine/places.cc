// places.cc - see places.h.
#include "places.h"

#include <algorithm>
#include <utility>

#include "context.h"
#include "move.h"

namespace dns {
namespace {

// leave_connection takes a query off its connection.
void leave_connection(dns_query *q) {
  Connection &connection = q->ctx->connections[q->attempt.slot - kTcpSlot];
  const Connection::Posted last = connection.under_way[--connection.count];
  connection.under_way[q->attempt.place] = last;
  last.query->attempt.place = q->attempt.place;
}

// occupy counts a query that may leave now among those under way to a server.
void occupy(dns_query *q, Server *server) {
  const dns_ctx *ctx = q->ctx;
  server->window.sent(server->under_way, server->round_trip(), ctx->options.limits(), ctx->now_us);
  ++server->under_way;
  q->attempt.under_way = server;
}

bool has_room(const dns_ctx *ctx, const Server *server) {
  return server->under_way < std::min(server->window.size(), ctx->options.window);
}

// release lets as many of a server's parked queries leave as may; later if only its pace keeps them.
void release(dns_ctx *ctx, Server *server) {
  while (server->has_parked() && has_room(ctx, server)) {
    if (server->window.due_us(ctx->now_us) != 0) {
      ctx->pacing.append(server);
      return;
    }
    const base::Link &list = server->parked_again.alone() ? server->parked : server->parked_again;
    auto *q = static_cast<dns_query *>(list.next);
    move(q, State::sending, &ctx->sending);
    occupy(q, server);
  }
}

}  // namespace

bool take_place(dns_query *q) {
  if (q->attempt.under_way != nullptr) return true;
  Server *server = present_server(q);
  if (server->has_parked()) return false;
  const dns_ctx *ctx = q->ctx;
  if (!has_room(ctx, server)) {
    server->window.full();
    return false;
  }
  if (server->window.due_us(ctx->now_us) != 0) return false;
  occupy(q, server);
  return true;
}

void park(dns_query *q) {
  Server *server = present_server(q);
  move(q, State::parked, was_sent(q) ? &server->parked_again : &server->parked);
  server->count_waiting(1);
  release_later(q->ctx, server);
}

void give_up_place(dns_query *q) {
  Server *server = std::exchange(q->attempt.under_way, nullptr);
  if (server == nullptr) return;
  --server->under_way;
  release_later(q->ctx, server);
}

void release_parked(dns_ctx *ctx) {
  base::Link servers;
  servers.take_all(&ctx->pacing);
  while (!servers.alone()) {
    auto *server = static_cast<Server *>(servers.next);
    server->unlink();
    release(ctx, server);
  }
}

int64_t next_pace_us(const dns_ctx *ctx) {
  int64_t next = base::TimerWheel::kNever;
  for (const base::Link *link = ctx->pacing.next; link != &ctx->pacing; link = link->next)
    next = std::min(next, static_cast<const Server *>(link)->window.due_us(ctx->now_us));
  return next;
}

void unpark(dns_ctx *ctx, Server *server) {
  for (base::Link *list : {&server->parked_again, &server->parked})
    while (!list->alone())
      move(static_cast<dns_query *>(list->next), State::sending, &ctx->sending);
}

void leave(dns_query *q) {
  take_out(q);
  give_up_place(q);
  give_up_slot(q);
}

void give_up_slot(dns_query *q) {
  if (!has_id(q)) return;
  Attempt &attempt = q->attempt;
  UdpPool &sockets = q->ctx->sockets;
  q->ctx->index.remove(q);
  if (attempt.slot >= kTcpSlot) {
    leave_connection(q);
  } else if (attempt.slot != UdpPool::kNone) {
    sockets.done(attempt.slot);
  }
  if (attempt.former_slot != UdpPool::kNone) sockets.done(attempt.former_slot);
  attempt.slot = attempt.former_slot = UdpPool::kNone;
}

void change_socket(dns_query *q) {
  Attempt &attempt = q->attempt;
  if (attempt.former_slot == UdpPool::kNone)
    attempt.former_slot = attempt.slot;
  else
    q->ctx->sockets.done(attempt.slot);
  attempt.slot = UdpPool::kNone;
}

bool new_id(dns_query *q) {
  Attempt &attempt = q->attempt;
  attempt.asked = attempt.lowered = attempt.with_opt = 0;
  return q->ctx->random.u16(&attempt.id) && q->ctx->random.u64(&attempt.case_bits);
}

}  // namespace dns
