// drive.cc - the engine's loop: what is due, the cache's turn, and what to wait for; see engine.h.
#include <algorithm>
#include <utility>

#include "engine.h"

namespace dns {
namespace {

constexpr int64_t kBlockedWaitUs = kUsPerSecond;  // how soon to look again when every question waits for a full socket

// Seconds are read without their sign, which carries moments past January 2038.
int64_t to_us(dns_timeval moment) {
  return int64_t{static_cast<uint32_t>(moment.dnstv_sec)} * kUsPerSecond + moment.dnstv_usec;
}

dns_timeval to_timeval(int64_t us) {
  return {static_cast<int32_t>(us / kUsPerSecond), static_cast<int32_t>(us % kUsPerSecond)};
}

void begin_turn(dns_ctx *ctx, dns_timeval now) {
  ctx->now_us = to_us(now);
  ctx->wall_read = false;
}

// tell_cache tells the debug function what the cache holds; false when that cancelled the question.
bool tell_cache(dns_query *q, int code, dns_dcache *data) {
  dns_ctx *ctx = q->ctx;
  if (!ctx->tells(DNS_DE_CACHE)) return true;
  const Hold hold(ctx);
  ctx->dbg(ctx, q, code, data, ctx->dbg_data);
  return q->state != State::cancelled;
}

// answer_from_cache consults the answer cache; true when the question is over.
bool answer_from_cache(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  if (ctx->answer_cache == nullptr || q->uncached) return false;
  set_key(q, 0);
  // Another cache hashes under another secret.
  const bool looked_ahead = q->looks_ahead && q->cache_number == ctx->cache_number;
  q->looks_ahead = false;
  ctx->entry->hash = looked_ahead ? q->hash : 0;
  const int result = dns_cacher_get(ctx->answer_cache, ctx->entry, wall(ctx));
  ctx->entry->hash = 0;
  if (result <= 0) {
    return !tell_cache(q, DNS_D_CU_NOAN, nullptr);
  }
  dns_dcache found = {ctx->answer_cache, ctx->entry, DNS_E_NOERROR};
  if (!tell_cache(q, DNS_D_CU_AN, &found)) return true;
  return dns_cdata_ttl(ctx->entry) >= 0 && take_cached(q);
}

// take_queued gives every question submitted since the last turn to the cache, and then to the servers. What callbacks
// submit meanwhile waits for the next turn.
void take_queued(dns_ctx *ctx) {
  base::Link turn;
  turn.take_all(&ctx->queued);
  while (!turn.alone()) {
    auto *q = static_cast<dns_query *>(turn.next);
    base::prefetch_after<dns_query>(q);
    if (answer_from_cache(q) || follow(q)) continue;
    begin_at_delegation(q);
    if (q->state != State::queued) continue;
    choose_first(q);
    if (!recall_failures(q)) continue;
    if (servers_of(q).empty()) {
      deliver(q, DNS_E_TEMPFAIL, nullptr, 0, 0);
      continue;
    }
    enqueue(q);
  }
}

// wait_on has a try waited for again whose server turned out to take longer than it was given, or has yet to be
// measured. False when its time is over.
bool wait_on(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  if (q->over_tcp) return false;
  const int64_t left_us = q->sent_us + try_patience_us(q) - ctx->now_us;
  if (left_us <= 0) return false;
  q->unlink();
  const bool known = servers_of(q)[q->server]->srtt_us != 0;
  ctx->waiting.add(q, ctx->now_us + (known ? left_us : std::min(left_us, kLookAgainUs)));
  return true;
}

// give_up_late ends the tries whose time is over. The loop may have been kept from running since it last looked at the
// sockets: what lies there is read first, so that no question is given up that was answered in time.
void give_up_late(dns_ctx *ctx) {
  const bool any = ctx->waiting.next_us() <= ctx->now_us;
  for (unsigned i = 0; any && i < ctx->sockets.extent(); ++i)
    if (ctx->sockets.awaits(static_cast<int>(i))) receive(ctx, static_cast<int>(i));
  if (any) tcp_receive(ctx);
  base::Link due;
  ctx->waiting.expire(ctx->now_us, &due);
  while (!due.alone()) {
    auto *q = static_cast<dns_query *>(due.next);
    if (q->pausing) {
      end_pause(q);
      continue;
    }
    if (wait_on(q)) continue;
    servers_of(q)[q->server]->timed_out.fetch_add(1, std::memory_order_relaxed);
    if (q->over_tcp) {
      tcp_timed_out(q);
    } else {
      ctx->sockets.missed(q->slot, q->sent_us);
      missed(q);
      q->unreached = 0;
      if (q->doubt == Doubt::none)
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
  begin_turn(ctx, now);
  if (ctx->open_questions() == 0) return dns_tv_infinite;
  give_up_late(ctx);
  take_queued(ctx);
  flush(ctx);
  tcp_tidy(ctx);
  if (ctx->open_questions() == 0) return dns_tv_infinite;
  if (!ctx->queued.alone()) return dns_tv_zero;
  const int64_t next = ctx->waiting.next_us();
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
  begin_turn(ctx, now);
  if (tcp_event(ctx, *socket)) return;
  const int slot = ctx->sockets.slot_of(socket->dnsio_sock);
  if (slot == UdpPool::kNone) return;
  if ((socket->dnsio_events & DNS_IO_OUT) != 0) ctx->sockets.set_blocked(slot, false);
  if ((socket->dnsio_events & DNS_IO_IN) != 0) receive(ctx, slot);
}

}  // extern "C"
