// send.cc - packets out: what is due to be sent, in batches; see engine.h.
#include <errno.h>
#include <siphash.h>
#include <string.h>

#include <algorithm>
#include <iterator>
#include <numeric>

#include "engine.h"

namespace dns {
namespace {

// only_server returns the one server that can answer a question, null where there are several or strangers are expected
// to answer for them.
const Server *only_server(const dns_query *q) {
  const auto servers = servers_of(q);
  return servers.size() == 1 && q->ctx->nexpected == 0 ? servers[0] : nullptr;
}

// collect builds the packets of the questions that can leave from `slot` in one batch: those at the head of the list
// that left from it before, or that are new where the first one is, and that `only` can answer. They stay in the list
// until they are sent.
unsigned collect(dns_ctx *ctx, int slot, unsigned room, const Server *only) {
  const bool fresh = static_cast<const dns_query *>(ctx->sending.next)->slot == UdpPool::kNone;
  dns_ctx::Buffers *buffers = ctx->buffers;
  unsigned count = 0;
  for (base::Link *link = ctx->sending.next; link != &ctx->sending && count < std::min(room, kBatch);
       link = link->next) {
    auto *q = static_cast<dns_query *>(link);
    base::prefetch_after<dns_query>(q);
    const bool is_new = q->slot == UdpPool::kNone;
    if (q->over_tcp || is_new != fresh || (!is_new && q->slot != slot)) break;
    const Server *server = servers_of(q)[q->server];
    if (is_new ? only_server(q) != only : !ctx->sockets.reaches(slot, server->address)) break;
    if (is_new && q->former_slot == UdpPool::kNone && !new_id(q)) break;
    if (server->set_aside()) {
      turn_away(q);
      server = servers_of(q)[q->server];
    }
    Datagram &datagram = buffers->out[count];
    datagram.data = buffers->queries[count];
    datagram.size = static_cast<uint32_t>(build(q, buffers->queries[count]));
    datagram.peer = server->address;
    buffers->leaving[count++] = q;
  }
  return count;
}

// order_by_size brings the packets of a batch that are of one size side by side.
void order_by_size(dns_ctx *ctx, unsigned count) {
  dns_ctx::Buffers *buffers = ctx->buffers;
  Datagram out[kBatch];
  dns_query *leaving[kBatch];
  std::copy_n(buffers->out, count, out);
  std::copy_n(buffers->leaving, count, leaving);
  // Sizes that share a place would merely mix.
  uint8_t place[kBatch] = {};
  const auto place_of = [&](const Datagram &datagram) -> uint8_t & { return place[datagram.size % kBatch]; };
  for (unsigned i = 0; i < count; ++i)
    ++place_of(out[i]);
  std::exclusive_scan(std::begin(place), std::end(place), std::begin(place), uint8_t{0});
  for (unsigned i = 0; i < count; ++i) {
    const unsigned to = place_of(out[i])++;
    buffers->out[to] = out[i];
    buffers->leaving[to] = leaving[i];
  }
}

// sent_by_udp notes that a try of a question has left from a slot.
void sent_by_udp(dns_query *q, int slot) {
  dns_ctx *ctx = q->ctx;
  if (q->slot == UdpPool::kNone) {
    q->slot = static_cast<int16_t>(slot);
    ctx->sockets.used(slot);
    if (q->former_slot == UdpPool::kNone) {
      ctx->index.add(q);
      q->first_sent_us = ctx->now_us;
    }
  }
  Server *server = servers_of(q)[q->server];
  // A server that is away must not cost a question one of its tries.
  if (!q->probes) ++q->tries;
  q->asked |= 1U << q->server;
  if (q->under_way == nullptr) {
    q->under_way = server;
    ++q->under_way->under_way;
  }
  // A server's first answer says how long the others are worth waiting for.
  const int64_t patience = try_patience_us(q);
  sent(q, server->srtt_us == 0 ? std::min(patience, kLookAgainUs) : patience);
}

void not_sent(dns_query *q) {
  ++q->tries;
  not_reached(q);
}

// tell_sent tells the debug function of the packets that have left, in the letter case that the host has given; it may
// cancel what it is still to be told of.
void tell_sent(dns_ctx *ctx, int slot, int count) {
  if (!ctx->tells(DNS_DE_PKT)) return;
  const dns_ctx::Buffers *buffers = ctx->buffers;
  const Hold hold(ctx);
  for (int i = 0; i < count; ++i) {
    const Datagram &out = buffers->out[i];
    dns_query *q = buffers->leaving[i];
    if (q->state == State::cancelled) continue;
    memcpy(out.data + DNS_HSIZE, q->ask, q->ask_size);
    tell_packet(ctx, q, DNS_D_PKT_REQ, {{out.data, out.size}, &out.peer, slot}, 0);
  }
}

// try_send sends a batch. A socket reports what became of an earlier packet in the place of the next send, which is
// then made again. A packet that the system's own queue drops has left like one that the network loses.
int try_send(dns_ctx *ctx, int slot, unsigned count) {
  const auto attempt = [&] {
    const int left = ctx->io->udp_send(ctx->io->self, ctx->sockets.descriptor(slot), ctx->buffers->out, count,
                                       ctx->sockets.connected(slot));
    return left == -ENOBUFS ? 1 : left;
  };
  const int result = attempt();
  const bool settled = result > 0 || result == -EAGAIN || result == -EWOULDBLOCK || result == -EINTR;
  return settled ? result : attempt();
}

// send_batch sends what `collect` gathered; false when the socket's buffer is full.
bool send_batch(dns_ctx *ctx, int slot, unsigned count) {
  const dns_ctx::Buffers *buffers = ctx->buffers;
  if (ctx->sockets.connected(slot)) order_by_size(ctx, count);
  const int result = try_send(ctx, slot, count);
  if (result == -EAGAIN || result == -EWOULDBLOCK) return false;
  if (result == -EINTR) return true;
  for (int i = 0; i < result; ++i)
    sent_by_udp(buffers->leaving[i], slot);
  tell_sent(ctx, slot, std::max(result, 0));
  // The network refused the first of them (no route, say): that try has failed.
  if (result <= 0) not_sent(buffers->leaving[0]);
  return true;
}

// room_at tells how many questions more a server may have under way.
unsigned room_at(const Server *server) {
  return kPerServer - std::min(kPerServer, server->under_way);
}

// choose_socket takes a query off a socket on which it hears nothing: one that is connected to another server than the
// next, or on which two attempts have met with silence. The server may only be slow, so the query
// still takes answers on the first such socket.
void choose_socket(dns_query *q) {
  constexpr unsigned kSilentTries = 2;
  const UdpPool &sockets = q->ctx->sockets;
  if (q->slot == UdpPool::kNone) return;
  if (!sockets.reaches(q->slot, servers_of(q)[q->server]->address))
    give_up_slot(q);
  else if (q->tries % kSilentTries == 0 && sockets.silent(q->slot, q->first_sent_us))
    change_socket(q);
}

// send_next sends the question at the head of the list, and with it what can leave in the same call.
void send_next(dns_ctx *ctx, base::Link *held) {
  auto *q = static_cast<dns_query *>(ctx->sending.next);
  // One that followed a question which began at a zone's servers, in a context that has none.
  if (servers_of(q).empty()) {
    ask_again(q);
    return;
  }
  if (servers_of(q)[q->server]->set_aside()) turn_away(q);
  Server *server = servers_of(q)[q->server];
  if (q->under_way == nullptr && room_at(server) == 0) {
    server->parked.append(q);
    return;
  }
  choose_socket(q);
  unsigned room = kBatch;
  const Server *only = only_server(q);
  const int slot = q->slot != UdpPool::kNone
                       ? q->slot
                       : ctx->sockets.pick(ctx->now_us, only != nullptr ? &only->address : nullptr, &room);
  if (slot != UdpPool::kNone && ctx->sockets.blocked(slot)) {
    // A try that cannot leave is over when its longest wait would be, so that every question ends.
    if (ctx->now_us - q->sent_us >= ctx->options.timeout_us) {
      ++q->tries;
      ask_again(q);
    } else {
      held->append(q);
    }
    return;
  }
  const unsigned count = slot == UdpPool::kNone ? 0 : collect(ctx, slot, room, only);
  if (count == 0) {
    not_sent(q);
  } else if (!send_batch(ctx, slot, count)) {
    ctx->sockets.set_blocked(slot, true);
  }
}

}  // namespace

void client_cookie(const dns_ctx *ctx, const Server *server, uint8_t *cookie) {
  const uint64_t hash = siphash(ctx->cookie_secret, &server->address, sizeof server->address);
  static_assert(sizeof hash == kClientCookieSize);
  memcpy(cookie, &hash, sizeof hash);
}

size_t build(dns_query *q, std::span<uint8_t> packet) {
  const dns_ctx *ctx = q->ctx;
  const Server *server = servers_of(q)[q->server];
  const uint32_t place = 1U << q->server;
  const bool lower = server->lower_until_us > ctx->now_us;
  const size_t size = write_query(packet, q->id, recursive(q), {q->ask, q->ask_size}, q->typ, q->cls);
  apply_case(packet.subspan(DNS_HSIZE, q->ask_size), lower ? kLowerCase : q->case_bits);
  q->lowered = lower ? q->lowered | place : q->lowered & ~place;
  const bool cookies = (ctx->options.flags & DNS_COOKIES) != 0;
  // From a server that gives cookies no answer counts without one, so that it is always told who asks.
  const bool with_opt =
      (!q->plain && server->plain_until_us <= ctx->now_us) || (cookies && server->gives_cookies(ctx->now_us));
  q->with_opt = with_opt ? q->with_opt | place : q->with_opt & ~place;
  if (!with_opt) return size;
  uint8_t cookie[kClientCookieSize + kServerCookieMax];
  size_t cookie_size = 0;
  if (cookies) {
    client_cookie(ctx, server, cookie);
    memcpy(cookie + kClientCookieSize, server->cookie, server->cookie_size);
    cookie_size = kClientCookieSize + server->cookie_size;
  }
  return write_opt(packet, size, static_cast<uint16_t>(ctx->options.udp_size), {cookie, cookie_size});
}

void sent(dns_query *q, int64_t patience_us) {
  dns_ctx *ctx = q->ctx;
  q->sent_us = ctx->now_us;
  servers_of(q)[q->server]->sent.fetch_add(1, std::memory_order_relaxed);
  q->unlink();
  q->state = State::waiting;
  ctx->waiting.add(q, ctx->now_us + patience_us);
}

void flush(dns_ctx *ctx) {
  base::Link held;
  // Those that waited come before those that are new, or the new ones would take every room there is.
  ctx->tcp_waiting.take_all(&ctx->sending);
  ctx->sending.take_all(&ctx->tcp_waiting);
  do {
    while (!ctx->sending.alone()) {
      auto *q = static_cast<dns_query *>(ctx->sending.next);
      if (q->over_tcp) {
        send_over_tcp(q);
      } else {
        send_next(ctx, &held);
      }
    }
  } while (tcp_flush(ctx));
  ctx->sending.take_all(&held);
}

}  // namespace dns
