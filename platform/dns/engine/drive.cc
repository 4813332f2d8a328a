// drive.cc - the engine's loop: what is due, the cache's turn, packets out and packets in; see engine.h.
#include <errno.h>
#include <string.h>

#include <algorithm>

#include "engine.h"

namespace dns {
namespace {

constexpr unsigned kReceiveTurns = 16;            // batches taken from one socket before the others get their turn
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
  if (ctx->dbg == nullptr) return true;
  const Hold hold(ctx);
  ctx->dbg(ctx, q, code, data, ctx->dbg_data);
  return q->state != State::cancelled;
}

// answer_from_cache consults the answer cache; true when the question is over.
bool answer_from_cache(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  if (ctx->answer_cache == nullptr || q->own != nullptr) return false;
  set_key(q, 0);
  if (dns_cacher_get(ctx->answer_cache, ctx->entry, wall(ctx)) <= 0) {
    return !tell_cache(q, DNS_D_CU_NOAN, nullptr);
  }
  dns_dcache found = {ctx->answer_cache, ctx->entry, DNS_E_NOERROR};
  if (!tell_cache(q, DNS_D_CU_AN, &found)) return true;
  return dns_cdata_ttl(ctx->entry) >= 0 && take_cached(q);
}

// take_queued gives every question submitted since the last turn to the cache, and then to the servers. What callbacks
// submit meanwhile waits for the next turn.
void take_queued(dns_ctx *ctx) {
  Link turn;
  turn.take_all(&ctx->queued);
  while (!turn.alone()) {
    auto *q = static_cast<dns_query *>(turn.next);
    if (answer_from_cache(q)) continue;
    if (servers_of(q).empty()) {
      deliver(q, DNS_E_TEMPFAIL, nullptr, 0, 0);
      continue;
    }
    q->state = State::sending;
    q->sent_us = ctx->now_us;
    ctx->sending.append(q);
  }
}

void give_up_late(dns_ctx *ctx) {
  Link due;
  ctx->waiting.expire(ctx->now_us, &due);
  while (!due.alone()) {
    auto *q = static_cast<dns_query *>(due.next);
    servers_of(q)[q->server]->timed_out.fetch_add(1, std::memory_order_relaxed);
    ask_again(q);
  }
}

// ---- packets out

// collect builds the packets of the questions that can leave from `slot` in one batch: those at the head of the list
// that left from it before, or that are new where the first one is. They stay in the list until they are sent.
unsigned collect(dns_ctx *ctx, int slot, unsigned room) {
  const bool fresh = static_cast<const dns_query *>(ctx->sending.next)->slot == UdpPool::kNone;
  dns_ctx::Buffers *buffers = ctx->buffers;
  unsigned count = 0;
  for (Link *link = ctx->sending.next; link != &ctx->sending && count < std::min(room, kBatch); link = link->next) {
    auto *q = static_cast<dns_query *>(link);
    const bool is_new = q->slot == UdpPool::kNone;
    if (is_new != fresh || (!is_new && q->slot != slot)) break;
    if (is_new && !ctx->random.u16(&q->id)) break;
    Datagram &datagram = buffers->out[count];
    datagram.data = buffers->queries[count];
    datagram.size = static_cast<uint32_t>(
        write_query(buffers->queries[count], q->id, (q->flags & DNS_RCRS) != 0, q->dn, q->typ, q->cls));
    datagram.peer = servers_of(q)[q->server]->address;
    buffers->leaving[count++] = q;
  }
  return count;
}

// sent notes that a try of a question is on its way.
void sent(dns_query *q, int slot) {
  dns_ctx *ctx = q->ctx;
  if (q->slot == UdpPool::kNone) {
    q->slot = static_cast<int16_t>(slot);
    ctx->sockets.used(slot);
    index_add(q);
    q->first_sent_us = ctx->now_us;
  }
  const auto servers = servers_of(q);
  Server *server = servers[q->server];
  const unsigned round = q->tries / static_cast<unsigned>(servers.size());
  ++q->tries;
  q->asked |= 1U << q->server;
  q->sent_us = ctx->now_us;
  server->sent.fetch_add(1, std::memory_order_relaxed);
  // Nothing is sent after the last try, so it may as well wait its whole time: an answer to any try still counts.
  const bool last = q->tries >= ctx->options.ntries;
  const int64_t patience = last ? ctx->options.timeout_us : server->patience_us(round, ctx->options.timeout_us);
  q->unlink();
  q->state = State::waiting;
  ctx->waiting.add(q, ctx->now_us + patience);
}

void not_sent(dns_query *q) {
  ++q->tries;
  ask_again(q);
}

// tell_sent tells the debug function of the packets that have left; it may cancel what it is still to be told of.
void tell_sent(dns_ctx *ctx, int count) {
  if (ctx->dbg == nullptr) return;
  const dns_ctx::Buffers *buffers = ctx->buffers;
  const Hold hold(ctx);
  for (int i = 0; i < count; ++i)
    if (buffers->leaving[i]->state != State::cancelled)
      tell_packet(ctx, buffers->leaving[i], DNS_D_PKT_REQ, {buffers->out[i].data, buffers->out[i].size},
                  &buffers->out[i].peer, 0);
}

// send_batch sends what `collect` gathered; false when the socket's buffer is full.
bool send_batch(dns_ctx *ctx, int slot, unsigned count) {
  dns_ctx::Buffers *buffers = ctx->buffers;
  const int result = ctx->io->udp_send(ctx->io->self, ctx->sockets.descriptor(slot), buffers->out, count);
  if (result == -EAGAIN || result == -EWOULDBLOCK || result == -ENOBUFS) return false;
  if (result == -EINTR) return true;
  for (int i = 0; i < result; ++i)
    sent(buffers->leaving[i], slot);
  tell_sent(ctx, std::max(result, 0));
  // The network refused the first of them (no route, say): that try has failed.
  if (result <= 0) not_sent(buffers->leaving[0]);
  return true;
}

// flush sends every question that is due. Questions whose socket is full stay until it drains.
void flush(dns_ctx *ctx) {
  Link held;
  while (!ctx->sending.alone()) {
    auto *q = static_cast<dns_query *>(ctx->sending.next);
    unsigned room = kBatch;
    const int slot = q->slot != UdpPool::kNone ? q->slot : ctx->sockets.pick(&room);
    if (slot != UdpPool::kNone && ctx->sockets.blocked(slot)) {
      // A try that cannot leave is over when its longest wait would be, so that every question ends.
      if (ctx->now_us - q->sent_us >= ctx->options.timeout_us) {
        not_sent(q);
      } else {
        held.append(q);
      }
      continue;
    }
    const unsigned count = slot == UdpPool::kNone ? 0 : collect(ctx, slot, room);
    if (count == 0) {
      not_sent(q);
    } else if (!send_batch(ctx, slot, count)) {
      ctx->sockets.set_blocked(slot, true);
    }
  }
  ctx->sending.take_all(&held);
}

// ---- packets in

bool was_asked(const dns_query *q, const sockaddr_in &peer) {
  const auto servers = servers_of(q);
  for (unsigned i = 0; i < servers.size(); ++i)
    if ((q->asked & (1U << i)) != 0 && same_address(servers[i]->address, peer)) return true;
  for (const sockaddr_in &expected : std::span(q->ctx->expected, q->ctx->nexpected))
    if (expected.sin_addr.s_addr == peer.sin_addr.s_addr &&
        (expected.sin_port == 0 || expected.sin_port == peer.sin_port))
      return true;
  return false;
}

// same_question compares the packet's question with the one that was sent, letter case included.
bool same_question(const dns_query *q, std::span<const uint8_t> packet, const Header &header) {
  Reader reader(packet, DNS_HSIZE);
  std::span<const uint8_t> name;
  uint16_t typ = 0, cls = 0;
  return header.count[DNS_S_QD] == 1 && reader.bytes(q->dn_size, &name) &&
         memcmp(name.data(), q->dn, q->dn_size) == 0 && reader.u16(&typ) && reader.u16(&cls) && typ == q->typ &&
         cls == q->cls;
}

// find returns the question that a packet answers; `code` is what else the packet is.
dns_query *find(dns_ctx *ctx, int slot, std::span<const uint8_t> packet, const sockaddr_in &peer, Header *header,
                int *code) {
  *code = DNS_D_PKT_RPINV;
  if (!read_header(packet, header)) return nullptr;
  if (!header->qr) {
    *code = DNS_D_PKT_NOQR;
    return nullptr;
  }
  if (header->opcode != 0) return nullptr;
  *code = DNS_D_PKT_NOREQ;
  for (dns_query *q = index_first(ctx, header->id); q != nullptr; q = q->index_next) {
    if (q->id != header->id || q->slot != slot || !was_asked(q, peer)) continue;
    if (same_question(q, packet, *header)) return q;
    *code = DNS_D_PKT_RPINV;
  }
  return nullptr;
}

void take_packet(dns_ctx *ctx, int slot, const Datagram &datagram) {
  // A packet larger than was asked for was cut by the kernel, and counts for no more than garbage.
  const std::span<const uint8_t> packet(datagram.data, std::min(datagram.size, datagram.capacity));
  Header header;
  int code = DNS_D_PKT_RPINV;
  dns_query *q = datagram.size > datagram.capacity ? nullptr : find(ctx, slot, packet, datagram.peer, &header, &code);
  if (q == nullptr) {
    tell_packet(ctx, nullptr, code, packet, &datagram.peer, 0);
    return;
  }
  take_answer(q, packet, header, datagram.peer);
}

void receive(dns_ctx *ctx, int slot) {
  const int descriptor = ctx->sockets.descriptor(slot);
  for (unsigned turn = 0; turn < kReceiveTurns; ++turn) {
    for (unsigned i = 0; i < kBatch; ++i) {
      ctx->buffers->in[i].data = ctx->buffers->answers[i];
      ctx->buffers->in[i].capacity = kAnswerRoom;
    }
    const int count = ctx->io->udp_receive(ctx->io->self, descriptor, ctx->buffers->in, kBatch);
    for (int i = 0; i < count; ++i)
      take_packet(ctx, slot, ctx->buffers->in[i]);
    // A short batch emptied the socket. An answer may have been the last that a worn socket waited for.
    if (count < static_cast<int>(kBatch) || ctx->sockets.descriptor(slot) != descriptor) return;
  }
}

}  // namespace

void tell_packet(dns_ctx *ctx, dns_query *q, int code, std::span<const uint8_t> packet, const sockaddr_in *peer,
                 int rtt_ms) {
  if (ctx->dbg == nullptr) return;
  dns_dpkt event = {packet.data(), static_cast<unsigned>(packet.size()),
                    nullptr,       reinterpret_cast<const sockaddr *>(peer),
                    IPPROTO_UDP,   rtt_ms};
  ctx->dbg(ctx, q, code, &event, ctx->dbg_data);
}

}  // namespace dns

using namespace dns;

extern "C" {

dns_timeval dns_timeouts(dns_ctx *ctx, dns_timeval longest, dns_timeval now) {
  begin_turn(ctx, now);
  if (ctx->active == 0) return dns_tv_infinite;
  give_up_late(ctx);
  take_queued(ctx);
  flush(ctx);
  if (ctx->active == 0) return dns_tv_infinite;
  if (!ctx->queued.alone()) return dns_tv_zero;
  const int64_t next = ctx->waiting.next_us();
  int64_t wait = next == TimerWheel::kNever ? kBlockedWaitUs : std::max<int64_t>(next - ctx->now_us, 0);
  if (!ctx->sending.alone()) wait = std::min(wait, kBlockedWaitUs);
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
  return static_cast<int>(count);
}

void dns_ioevent(dns_ctx *ctx, const dns_ios *socket, dns_timeval now) {
  begin_turn(ctx, now);
  const int slot = ctx->sockets.slot_of(socket->dnsio_sock);
  if (slot == UdpPool::kNone) return;
  if ((socket->dnsio_events & DNS_IO_OUT) != 0) ctx->sockets.set_blocked(slot, false);
  if ((socket->dnsio_events & DNS_IO_IN) != 0) receive(ctx, slot);
}

}  // extern "C"
