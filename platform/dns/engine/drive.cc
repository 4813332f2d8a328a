// drive.cc - the engine's loop: what is due, the cache, and what to wait for.
#include <algorithm>

#include "answer_cache.h"
#include "attempt.h"
#include "choice.h"
#include "coalesce.h"
#include "congestion.h"
#include "context.h"
#include "delivery.h"
#include "invariants.h"
#include "places.h"
#include "receive.h"
#include "resolution.h"
#include "rto.h"
#include "send.h"
#include "tcp.h"

namespace dns {
namespace {

constexpr int64_t kBlockedWaitUs = kUsPerSecond;  // how soon to look again when every query waits for a full socket

// Seconds are read without their sign, which carries moments past January 2038.
int64_t to_us(dns_timeval moment) {
  return int64_t{static_cast<uint32_t>(moment.dnstv_sec)} * kUsPerSecond + moment.dnstv_usec;
}

dns_timeval to_timeval(int64_t us) {
  return {static_cast<int32_t>(us / kUsPerSecond), static_cast<int32_t>(us % kUsPerSecond)};
}

// Turn is one turn of the loop. A callback may drive the context too, by a synchronous lookup; only when the outermost
// turn is over is every query where it belongs.
class Turn {
 public:
  Turn(dns_ctx *ctx, dns_timeval now) : ctx_(ctx) {
    ctx->now_us = to_us(now);
    ctx->wall_read = false;
    ++ctx->turns_open;
  }
  ~Turn() {
    if (--ctx_->turns_open == 0) check_turn(ctx_);
  }
  Turn(const Turn &) = delete;
  Turn &operator=(const Turn &) = delete;

 private:
  dns_ctx *ctx_;
};

// take_queued gives every query submitted since the last turn to the cache, and then to the servers. What callbacks
// submit meanwhile waits for the next turn.
void take_queued(dns_ctx *ctx) {
  base::Link turn;
  turn.take_all(&ctx->queued);
  while (!turn.alone()) {
    auto *q = static_cast<dns_query *>(turn.next);
    base::prefetch_after<dns_query>(q);
    if (answer_from_cache(q) || coalesce(q)) continue;
    begin_at_delegation(q);
    if (q->state != State::queued) continue;
    choose_first(q);
    if (!recall_failures(q)) {
      no_server_left(q);
      continue;
    }
    if (servers_of(q).empty()) {
      deliver(q, DNS_E_TEMPFAIL, nullptr, 0, 0);
      continue;
    }
    enqueue(q);
  }
}

// give_up_late ends the attempts that timed out. The loop may have been late, so it first reads the sockets: no query
// that was answered in time is given up.
void give_up_late(dns_ctx *ctx) {
  const bool any = ctx->timers.next_us() <= ctx->now_us;
  for (unsigned i = 0; any && i < ctx->sockets.extent(); ++i)
    if (ctx->sockets.awaits(static_cast<int>(i))) receive(ctx, static_cast<int>(i));
  if (any) tcp_receive(ctx);
  base::Link due;
  ctx->timers.expire(ctx->now_us, &due);
  while (!due.alone()) {
    auto *q = static_cast<dns_query *>(due.next);
    if (q->state == State::pausing) {
      end_pause(q);
      continue;
    }
    if (rearm(q)) continue;
    present_server(q)->timed_out.fetch_add(1, std::memory_order_relaxed);
    if (q->attempt.over_tcp) {
      tcp_timed_out(q);
    } else {
      if (note_loss(q)) missed(q);
      q->progress.unreached = 0;
      if (q->attempt.doubt == Doubt::none)
        ask_again(q);
      else
        ask_over_tcp(q);
    }
  }
}

}  // namespace
}  // namespace dns

using namespace dns;

extern "C" {

dns_timeval dns_timeouts(dns_ctx *ctx, dns_timeval longest, dns_timeval now) {
  const Turn turn(ctx, now);
  if (ctx->open_queries() == 0) return dns_tv_infinite;
  give_up_late(ctx);
  take_queued(ctx);
  flush(ctx);
  tcp_tidy(ctx);
  if (ctx->open_queries() == 0) return dns_tv_infinite;
  if (!ctx->queued.alone()) return dns_tv_zero;
  const int64_t next = std::min(ctx->timers.next_us(), next_pace_us(ctx));
  int64_t wait = next == base::TimerWheel::kNever ? kBlockedWaitUs : std::max<int64_t>(next - ctx->now_us, 0);
  if (!ctx->sending.alone() || !ctx->tcp_waiting.alone()) wait = std::min(wait, kBlockedWaitUs);
  return to_timeval(std::min(wait, to_us(longest)));
}

int dns_sockio(dns_ctx *ctx, dns_ios *sockets, unsigned capacity) {
  unsigned count = 0;
  for (unsigned i = 0; i < ctx->sockets.extent(); ++i) {
    const int slot = static_cast<int>(i);
    if (!ctx->sockets.is_open(slot)) continue;
    if (count < capacity)
      sockets[count] = {ctx->sockets.descriptor(slot),
                        ctx->sockets.blocked(slot) ? uint32_t{DNS_IO_IN | DNS_IO_OUT} : uint32_t{DNS_IO_IN}};
    ++count;
  }
  for (const Connection &connection : ctx->connections) {
    if (!connection.link.is_open()) continue;
    const bool writes = connection.link.wants_to_write();
    if (count < capacity)
      sockets[count] = {connection.link.descriptor(), writes ? uint32_t{DNS_IO_IN | DNS_IO_OUT} : uint32_t{DNS_IO_IN}};
    ++count;
  }
  return static_cast<int>(count);
}

void dns_ioevent(dns_ctx *ctx, const dns_ios *socket, dns_timeval now) {
  const Turn turn(ctx, now);
  if (tcp_event(ctx, *socket)) return;
  const int slot = ctx->sockets.slot_of(socket->dnsio_sock);
  if (slot == UdpPool::kNone) return;
  if ((socket->dnsio_events & DNS_IO_OUT) != 0) ctx->sockets.set_blocked(slot, false);
  if ((socket->dnsio_events & DNS_IO_IN) != 0) receive(ctx, slot);
}

}  // extern "C"
