// attempt.cc - see attempt.h.
#include "attempt.h"

#include <algorithm>
#include <bit>
#include <utility>

#include "candidates.h"
#include "choice.h"
#include "context.h"
#include "delivery.h"
#include "direct_cache.h"
#include "move.h"
#include "places.h"
#include "resolution.h"
#include "resolving.h"
#include "route.h"
#include "trace.h"

namespace dns {
namespace {

// leave_server ends the present attempt. After an attempt by UDP the query keeps its socket and its id, as the answer
// to an earlier attempt still counts.
void leave_server(dns_query *q) {
  if (q->attempt.over_tcp) {
    leave(q);
  } else {
    take_out(q);
    give_up_place(q);
  }
}

// is_out_of_reach tells whether the host has no route to any server of the zone that a query may still go to. A
// context's own servers are waited for, as the host's network may be coming up.
bool is_out_of_reach(const dns_query *q) {
  const uint32_t open = candidates(q).open;
  return zone_of(q) != nullptr && open != 0 &&
         route_to(q->ctx, servers_of(q)[static_cast<size_t>(std::countr_zero(open))]) == Route::none;
}

bool is_direct(const dns_query *q) {
  return (q->question.flags & DNS_DCACHE) != 0;
}

// all_are_down tells whether all servers of a query are marked down.
bool all_are_down(const dns_query *q) {
  const auto servers = servers_of(q);
  return std::all_of(servers.begin(), servers.end(), [](const Server *server) { return server->marked_down(); });
}

// give_up_parked gives up, with a query whose attempts all met with silence, those that have been parked at the server
// since before its first attempt: nothing else would become of them. False when one of their callbacks has cancelled
// the query.
bool give_up_parked(const dns_query *q) {
  const int64_t since_us = q->attempt.first_sent_us;
  if (!was_sent(q) || !all_are_down(q) || present_server(q)->heard_us >= since_us) return true;
  const Hold hold(q->ctx);
  const base::Link &parked = present_server(q)->parked;
  while (!parked.alone() && q->state != State::cancelled) {
    auto *next = static_cast<dns_query *>(parked.next);
    if (next->attempt.sent_us > since_us || !all_are_down(next)) break;
    give_up(next);
  }
  return q->state != State::cancelled;
}

}  // namespace

void ask_again(dns_query *q) {
  const auto most = std::min<size_t>(q->ctx->options.ntries, is_direct(q) ? servers_of(q).size() : SIZE_MAX);
  if (q->progress.attempts >= most || !choose_next(q)) {
    give_up(q);
    return;
  }
  leave_server(q);
  prepare_for(q, q->attempt.server);
  enqueue(q);
}

void give_up(dns_query *q) {
  if (is_direct(q)) {
    end_direct(q);
    return;
  }
  if (begin_anew(q)) return;
  if (!give_up_parked(q)) return;
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
  // An attempt that came back at once took no time, so it does not count towards DNS_OPT_NTRIES while another server is
  // left.
  if (others && !is_direct(q) && !q->attempt.probes) --q->progress.attempts;
  if (others || is_direct(q) || q->progress.attempts >= ctx->options.ntries) {
    ask_again(q);
    return;
  }
  if (is_out_of_reach(q)) q->resolution->out_of_reach = true;
  const bool waits = zone_of(q) == nullptr || !q->resolution->out_of_reach ||
                     !(has_other_servers(q) || is_family_cut_off(ctx, present_server(q)->address.family));
  if (q->attempt.pauses == kPausesMax || !waits) {
    give_up(q);
    return;
  }
  leave_server(q);
  move_until(q, State::pausing, ctx->now_us + (kPauseUs << q->attempt.pauses));
  ++q->attempt.pauses;
}

void end_pause(dns_query *q) {
  const unsigned place = q->attempt.server;
  q->progress.unreached = 0;
  // A query over TCP stays with the server that asked for TCP. Another server is asked as if it were new.
  if (!q->attempt.over_tcp && choose_next(q) && q->attempt.server != place) prepare_for(q, q->attempt.server);
  enqueue(q);
}

}  // namespace dns
