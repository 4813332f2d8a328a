// congestion.cc - see congestion.h.
#include "congestion.h"

#include "places.h"

namespace dns {
namespace {

// forgive takes back the count of an attempt for whose loss neither the server nor the network is to blame. A query has
// a bounded number of them, so that it ends.
void forgive(dns_query *q) {
  if (q->attempt.probes || q->progress.attempts == 0 || q->progress.overloads == kOverloadsMax) return;
  ++q->progress.overloads;
  --q->progress.attempts;
}

}  // namespace

void note_answer(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  Server *server = q->attempt.under_way;
  const Answered answer = {q->attempt.sent_us, q->progress.attempts + q->progress.overloads == 1, server->has_parked(),
                           server->under_way};
  server->window.answered(answer, server->round_trip(), ctx->options.window, ctx->now_us);
  release_later(ctx, server);
}

bool note_loss(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  Server *server = present_server(q);
  if (ctx->sockets.dropped(q->attempt.slot, q->attempt.sent_us, ctx->now_us)) {
    forgive(q);
    return false;
  }
  ctx->sockets.missed(q->attempt.slot, q->attempt.sent_us);
  if (server->window.lost(q->attempt.sent_us, server->round_trip(), ctx->now_us)) {
    server->overloads.fetch_add(1, std::memory_order_relaxed);
    forgive(q);
  }
  return true;
}

}  // namespace dns
