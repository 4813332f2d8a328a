// direct_cache.cc - see direct_cache.h.
#include "direct_cache.h"

#include "context.h"
#include "delivery.h"
#include "places.h"
#include "resolution.h"
#include "trace.h"

namespace dns {

void end_direct(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  q->question.flags = (q->question.flags & ~unsigned{DNS_DCACHE}) | DNS_RCRS;
  if (ctx->dc != nullptr) {
    const Hold hold(ctx);
    ctx->dc(ctx, q, DNS_DC_CHFAIL, nullptr, q->question.data);
    if (q->state == State::cancelled) return;
  }
  leave(q);
  release_own_servers(q);
  start_over(q);
}

}  // namespace dns
