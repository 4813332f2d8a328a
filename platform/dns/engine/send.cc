// send.cc - packets out: what is due to be sent, in batches; see send.h.
#include "send.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <span>
#include <utility>

#include "attempt.h"
#include "choice.h"
#include "context.h"
#include "places.h"
#include "query_packet.h"
#include "route.h"
#include "rto.h"
#include "tcp.h"
#include "trace.h"

namespace dns {
namespace {

// only_server returns the one server that can answer a query; null where there are several, or where other addresses
// may answer (dns_add_expserv_s).
const Server *only_server(const dns_query *q) {
  const auto servers = servers_of(q);
  return servers.size() == 1 && q->ctx->nexpected == 0 ? servers[0] : nullptr;
}

// collect builds the packets of the queries that can leave from `slot` in one batch: those at the head of the list that
// left from it before, or that are new where the first one is, and that `only` can answer. They stay in the list until
// they are sent.
unsigned collect(dns_ctx *ctx, int slot, unsigned room, const Server *only) {
  const bool fresh = static_cast<const dns_query *>(ctx->sending.next)->attempt.slot == UdpPool::kNone;
  Buffers *buffers = ctx->buffers;
  unsigned count = 0;
  for (base::Link *link = ctx->sending.next; link != &ctx->sending && count < std::min(room, kBatch);
       link = link->next) {
    auto *q = static_cast<dns_query *>(link);
    base::prefetch_after<dns_query>(q);
    const bool is_new = q->attempt.slot == UdpPool::kNone;
    if (q->attempt.over_tcp || is_new != fresh || (!is_new && q->attempt.slot != slot)) break;
    const Server *server = present_server(q);
    if (server->marked_down()) {
      turn_away(q);
      server = present_server(q);
    }
    if (is_new && only_server(q) != only) break;
    if (!take_place(q)) break;
    // A slot for `only` was picked for its address.
    if ((!is_new || only == nullptr) && !ctx->sockets.reaches(slot, server->address)) break;
    if (is_new && q->attempt.former_slot == UdpPool::kNone && !new_id(q)) break;
    Datagram &datagram = buffers->out[count];
    datagram.data = buffers->queries[count];
    datagram.size = static_cast<uint32_t>(build(q, buffers->queries[count]));
    datagram.peer = server->address;
    buffers->leaving[count++] = q;
  }
  return count;
}

// order_by_size sorts a batch to one server so that packets of one size are next to each other.
void order_by_size(dns_ctx *ctx, unsigned count) {
  if (count < 3) return;
  struct Leaving {
    uint8_t *packet;
    uint32_t size;
    dns_query *q;
  };
  Buffers *buffers = ctx->buffers;
  Leaving leaving[kBatch];
  // Sizes that share a bucket merely mix.
  uint8_t place[kBatch] = {};
  for (unsigned i = 0; i < count; ++i) {
    leaving[i] = {buffers->out[i].data, buffers->out[i].size, buffers->leaving[i]};
    ++place[leaving[i].size % kBatch];
  }
  std::exclusive_scan(std::begin(place), std::end(place), std::begin(place), uint8_t{0});
  for (const Leaving &one : std::span(leaving).first(count)) {
    const unsigned to = place[one.size % kBatch]++;
    buffers->out[to].data = one.packet;
    buffers->out[to].size = one.size;
    buffers->leaving[to] = one.q;
  }
}

// sent_by_udp notes that an attempt of a query has left from a slot.
void sent_by_udp(dns_query *q, int slot) {
  dns_ctx *ctx = q->ctx;
  if (q->attempt.slot == UdpPool::kNone) {
    q->attempt.slot = static_cast<int16_t>(slot);
    ctx->sockets.used(slot);
    if (q->attempt.former_slot == UdpPool::kNone) {
      ctx->index.add(q);
      q->attempt.first_sent_us = ctx->now_us;
    }
  }
  // A probe of a server that is marked down costs no attempt.
  if (!q->attempt.probes) ++q->progress.attempts;
  q->attempt.asked |= bit(q->attempt.server);
  wait_for_answer(q);
}

// not_sent ends an attempt that the system did not send, because of `error`, a negated errno.
void not_sent(dns_query *q, int error) {
  note_refusal(q->ctx, present_server(q), error);
  ++q->progress.attempts;
  not_reached(q);
}

// tell_sent tells the debug function of the packets that have left, in the letter case that the host has given; it may
// cancel what it is still to be told of.
void tell_sent(dns_ctx *ctx, int slot, int count) {
  if (!ctx->tells(DNS_DE_PKT)) return;
  const Buffers *buffers = ctx->buffers;
  const Hold hold(ctx);
  for (int i = 0; i < count; ++i) {
    const Datagram &out = buffers->out[i];
    dns_query *q = buffers->leaving[i];
    if (q->state == State::cancelled) continue;
    memcpy(out.data + DNS_HSIZE, q->question.ask, q->ask_size);
    tell_packet(ctx, q, DNS_D_PKT_REQ, {{out.data, out.size}, &out.peer, slot}, 0);
  }
}

// try_send sends a batch. A socket may report the error of an earlier packet at the next send, which is then repeated;
// another such error may come meanwhile. A packet that the system's own queue drops counts as sent, like one that the
// network loses.
int try_send(dns_ctx *ctx, int slot, unsigned count) {
  constexpr int kRepeats = 2;
  for (int repeat = 0;; ++repeat) {
    const int left = ctx->io->udp_send(ctx->io->self, ctx->sockets.descriptor(slot), ctx->buffers->out, count,
                                       ctx->sockets.connected(slot));
    if (left == -ENOBUFS) return 1;
    const bool settled = left > 0 || left == -EAGAIN || left == -EWOULDBLOCK || left == -EINTR;
    if (settled || repeat == kRepeats) return left;
  }
}

// send_batch sends what `collect` gathered; false when the socket's buffer is full.
bool send_batch(dns_ctx *ctx, int slot, unsigned count) {
  const Buffers *buffers = ctx->buffers;
  if (ctx->sockets.connected(slot)) order_by_size(ctx, count);
  const int result = try_send(ctx, slot, count);
  if (result == -EAGAIN || result == -EWOULDBLOCK) return false;
  if (result == -EINTR) return true;
  for (int i = 0; i < result; ++i)
    sent_by_udp(buffers->leaving[i], slot);
  tell_sent(ctx, slot, std::max(result, 0));
  // The network refused the first of them (no route, say): that attempt has failed.
  if (result <= 0) not_sent(buffers->leaving[0], result);
  return true;
}

// choose_socket moves a query off a socket that cannot help it: one that does not reach its next server, or on which
// two attempts got no answer. An earlier server may only be slow, so the query still takes answers on the first such
// socket, and goes back to it with a server that it reaches.
void choose_socket(dns_query *q) {
  constexpr unsigned kSilentAttempts = 2;
  const UdpPool &sockets = q->ctx->sockets;
  const Address &server = present_server(q)->address;
  const int16_t former = q->attempt.former_slot;
  const bool goes_back = former != UdpPool::kNone && !sockets.connected(former) && sockets.reaches(former, server);
  if (q->attempt.slot == UdpPool::kNone) {
    if (goes_back) std::swap(q->attempt.slot, q->attempt.former_slot);
  } else if (!sockets.reaches(q->attempt.slot, server)) {
    if (goes_back)
      std::swap(q->attempt.slot, q->attempt.former_slot);
    else if (sockets.connected(q->attempt.slot))
      give_up_slot(q);
    else
      change_socket(q);
  } else if (q->progress.attempts % kSilentAttempts == 0 && sockets.silent(q->attempt.slot, q->attempt.first_sent_us)) {
    change_socket(q);
  }
}

// send_next sends the query at the head of the list, together with those that can leave in the same batch.
void send_next(dns_ctx *ctx, base::Link *held) {
  auto *q = static_cast<dns_query *>(ctx->sending.next);
  // A coalesced query whose leader used a cached delegation; the context has no servers.
  if (servers_of(q).empty()) {
    ask_again(q);
    return;
  }
  if (present_server(q)->marked_down()) turn_away(q);
  if (!take_place(q)) {
    park(q);
    return;
  }
  choose_socket(q);
  unsigned room = kBatch;
  const Server *only = only_server(q);
  const int slot = q->attempt.slot != UdpPool::kNone
                       ? q->attempt.slot
                       : ctx->sockets.pick(ctx->now_us, present_server(q)->address, only != nullptr, &room);
  if (slot != UdpPool::kNone && ctx->sockets.blocked(slot)) {
    // An attempt that cannot leave ends after the longest timeout, so that every query ends.
    if (ctx->now_us - q->attempt.sent_us >= ctx->options.timeout_us) {
      ++q->progress.attempts;
      ask_again(q);
    } else {
      held->append(q);
    }
    return;
  }
  const unsigned count = slot == UdpPool::kNone ? 0 : collect(ctx, slot, room, only);
  if (count == 0) {
    not_sent(q, ctx->sockets.refusal());
  } else if (!send_batch(ctx, slot, count)) {
    ctx->sockets.set_blocked(slot, true);
  }
}

}  // namespace

void flush(dns_ctx *ctx) {
  base::Link held;
  // Queries that waited go before new ones, which would otherwise take all the room.
  ctx->tcp_waiting.take_all(&ctx->sending);
  ctx->sending.take_all(&ctx->tcp_waiting);
  do {
    while (!ctx->sending.alone()) {
      auto *q = static_cast<dns_query *>(ctx->sending.next);
      if (q->attempt.over_tcp) {
        send_over_tcp(q);
      } else {
        send_next(ctx, &held);
      }
    }
    release_parked(ctx);
  } while (!ctx->sending.alone() || tcp_flush(ctx));
  ctx->sending.take_all(&held);
}

}  // namespace dns
