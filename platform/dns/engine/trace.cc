// trace.cc - see trace.h.
#include "trace.h"

#include <stdlib.h>

#include <utility>

#include <socket_address.h>

#include "arrival.h"
#include "context.h"
#include "delivery.h"

namespace dns {

Hold::Hold(dns_ctx *ctx)
    : ctx_(ctx), result_(std::exchange(ctx->result, nullptr)), result_size_(std::exchange(ctx->result_size, 0)) {
  ++ctx->holds;
}

Hold::~Hold() {
  free(std::exchange(ctx_->result, result_));
  ctx_->result_size = result_size_;
  if (--ctx_->holds > 0) return;
  while (!ctx_->cancelled.alone()) {
    auto *q = static_cast<dns_query *>(ctx_->cancelled.next);
    q->unlink();
    release(q);
  }
}

void tell_packet(dns_ctx *ctx, dns_query *q, int code, const Arrival &arrival, int rtt_ms) {
  if (!ctx->tells(DNS_DE_PKT)) return;
  const bool by_udp = arrival.by_udp();
  Address own;  // the port is what tells queries apart; the address is the system's to choose
  if (by_udp) {
    own.family = ctx->sockets.family(arrival.slot);
    own.port = ctx->sockets.port(arrival.slot);
  }
  const SocketAddress local(own);
  const SocketAddress remote(*arrival.peer);
  dns_dpkt event = {
      arrival.packet.data(), static_cast<unsigned>(arrival.packet.size()), by_udp ? local.generic() : nullptr,
      remote.generic(),      by_udp ? IPPROTO_UDP : IPPROTO_TCP,           rtt_ms};
  ctx->dbg(ctx, q, code, &event, ctx->dbg_data);
}

bool tell_any_answer(dns_query *q, int code, const Arrival &arrival) {
  dns_ctx *ctx = q->ctx;
  const Hold hold(ctx);
  tell_packet(ctx, q, code, arrival, static_cast<int>((ctx->now_us - q->attempt.sent_us) / kUsPerMs));
  return q->state != State::cancelled;
}

bool tell_cache(dns_query *q, int code, dns_dcache *data) {
  dns_ctx *ctx = q->ctx;
  if (!ctx->tells(DNS_DE_CACHE)) return true;
  const Hold hold(ctx);
  ctx->dbg(ctx, q, code, data, ctx->dbg_data);
  return q->state != State::cancelled;
}

}  // namespace dns
