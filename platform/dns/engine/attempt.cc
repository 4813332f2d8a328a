// attempt.cc - see attempt.h.
#include "attempt.h"

#include <algorithm>
#include <utility>

#include "choice.h"
#include "context.h"
#include "delivery.h"
#include "direct_cache.h"
#include "resolution.h"
#include "tcp.h"

namespace dns {
namespace {

// leave_server takes a query off what its present attempt was made by. After one by UDP the query keeps its socket and
// its id: the answer to an earlier attempt still counts.
void leave_server(dns_query *q) {
  if (q->attempt.over_tcp) {
    leave(q);
  } else {
    take_out(q);
    give_up_place(q);
  }
}

bool is_direct(const dns_query *q) {
  return (q->question.flags & DNS_DCACHE) != 0;
}

}  // namespace

void enqueue(dns_query *q) {
  q->attempt.sent_us = q->ctx->now_us;
  move(q, State::sending, &q->ctx->sending);
}

void ask_again(dns_query *q) {
  const auto most = std::min<size_t>(q->ctx->options.ntries, is_direct(q) ? servers_of(q).size() : SIZE_MAX);
  const bool over_tcp = q->attempt.over_tcp;
  if (q->progress.attempts >= most || !choose_next(q)) {
    give_up(q);
    return;
  }
  q->attempt.over_tcp = over_tcp;
  leave_server(q);
  q->attempt.over_tcp = false;
  enqueue(q);
}

void give_up(dns_query *q) {
  if (is_direct(q)) {
    end_direct(q);
    return;
  }
  if (begin_anew(q)) return;
  const dns_status silence = q->attempt.turned_back && is_unreached(q) ? DNS_E_REFUSED : DNS_E_TEMPFAIL;
  deliver(q, q->progress.error != 0 ? dns_status{q->progress.error} : silence, nullptr, 0, 0);
}

void ask_otherwise(dns_query *q) {
  leave(q);
  enqueue(q);
}

void not_reached(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  q->progress.unreached |= bit(q->attempt.server);
  const bool others = !is_unreached(q);
  // An attempt that came back at once took no time: it costs none of DNS_OPT_NTRIES where another server is left.
  if (others && !is_direct(q) && !q->attempt.probes) --q->progress.attempts;
  if (others || is_direct(q) || q->progress.attempts >= ctx->options.ntries) {
    ask_again(q);
    return;
  }
  if (q->attempt.pauses == kPausesMax) {
    give_up(q);
    return;
  }
  leave_server(q);
  move_until(q, State::pausing, ctx->now_us + (kPauseUs << q->attempt.pauses));
  ++q->attempt.pauses;
}

void end_pause(dns_query *q) {
  q->progress.unreached = 0;
  // What is asked over TCP stays with the server that has said so.
  if (!q->attempt.over_tcp) (void)choose_next(q);
  enqueue(q);
}

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
    tcp_forget(q);
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
