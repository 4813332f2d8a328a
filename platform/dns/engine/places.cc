// places.cc - see places.h.
#include "places.h"

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

}  // namespace

void give_up_place(dns_query *q) {
  Server *server = std::exchange(q->attempt.under_way, nullptr);
  if (server == nullptr) return;
  if (server->parked.alone()) {
    --server->under_way;
    return;
  }
  auto *next = static_cast<dns_query *>(server->parked.next);
  next->attempt.under_way = server;
  move(next, State::sending, &q->ctx->sending);
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
