// receive.cc - packets in: what each of them is, and which question it answers; see engine.h.
#include <string.h>

#include <algorithm>

#include "engine.h"

namespace dns {
namespace {

constexpr unsigned kReceiveTurns = 16;   // batches taken from one socket before the others get their turn
constexpr unsigned kReturnedMax = 1024;  // packets taken at a time that came back undeliverable

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
  return header.count[DNS_S_QD] == 1 && reader.bytes(q->ask_size, &name) &&
         memcmp(name.data(), q->ask, q->ask_size) == 0 && reader.u16(&typ) && reader.u16(&cls) && typ == q->typ &&
         cls == q->cls;
}

// find returns the question that a packet answers; `code` is what else the packet is.
dns_query *find(dns_ctx *ctx, const Arrival &arrival, Header *header, int *code) {
  *code = DNS_D_PKT_RPINV;
  if (!read_header(arrival.packet, header)) return nullptr;
  if (!header->qr) {
    *code = DNS_D_PKT_NOQR;
    return nullptr;
  }
  if (header->opcode != 0) return nullptr;
  *code = DNS_D_PKT_NOREQ;
  for (dns_query *q = index_first(ctx, header->id); q != nullptr; q = q->index_next) {
    if (q->id != header->id || q->slot != arrival.slot) continue;
    if (arrival.slot < kTcpSlot && !was_asked(q, *arrival.peer)) continue;
    if (same_question(q, arrival.packet, *header)) return q;
    *code = DNS_D_PKT_RPINV;
  }
  return nullptr;
}

// returned_to finds the question of a packet that came back: its try at the server that the packet was going to is the
// present one.
dns_query *returned_to(dns_ctx *ctx, int slot, std::span<const uint8_t> packet, const sockaddr_in &server) {
  Header header;
  if (!read_header(packet, &header)) return nullptr;
  for (dns_query *q = index_first(ctx, header.id); q != nullptr; q = q->index_next) {
    if (q->id != header.id || q->slot != slot || q->state != State::waiting) continue;
    if (same_address(servers_of(q)[q->server]->address, server) && same_question(q, packet, header)) return q;
  }
  return nullptr;
}

// has_fresh_server tells whether there is a server that was not asked yet.
bool has_fresh_server(const dns_query *q) {
  const uint32_t all = static_cast<uint32_t>((uint64_t{1} << servers_of(q).size()) - 1);
  return ((q->asked | q->refused) & all) != all;
}

}  // namespace

void take_packet(dns_ctx *ctx, const Arrival &arrival) {
  Header header;
  int code = DNS_D_PKT_RPINV;
  dns_query *q = find(ctx, arrival, &header, &code);
  if (q == nullptr) {
    tell_packet(ctx, nullptr, code, arrival, 0);
    return;
  }
  take_answer(q, arrival, header);
}

void receive(dns_ctx *ctx, int slot) {
  const int descriptor = ctx->sockets.descriptor(slot);
  for (unsigned turn = 0; turn < kReceiveTurns; ++turn) {
    for (unsigned i = 0; i < kBatch; ++i) {
      ctx->buffers->in[i].data = ctx->buffers->answers[i];
      ctx->buffers->in[i].capacity = kAnswerRoom;
    }
    const int count = ctx->io->udp_receive(ctx->io->self, descriptor, ctx->buffers->in, kBatch);
    for (int i = 0; i < count; ++i) {
      const Datagram &in = ctx->buffers->in[i];
      const Arrival arrival = {{in.data, std::min(in.size, in.capacity)}, &in.peer, slot};
      if (in.size <= in.capacity) {
        take_packet(ctx, arrival);
      } else {
        // Larger than was asked for, and cut by the kernel: it counts for no more than garbage.
        tell_packet(ctx, nullptr, DNS_D_PKT_RPINV, arrival, 0);
      }
      // An answer may have been the last that a worn socket waited for.
      if (ctx->sockets.descriptor(slot) != descriptor) return;
    }
    if (count <= 0 && take_returned(ctx, slot)) continue;
    if (count < static_cast<int>(kBatch)) return;  // a short batch emptied the socket
  }
}

bool take_returned(dns_ctx *ctx, int slot) {
  const int descriptor = ctx->sockets.descriptor(slot);
  uint8_t packet[kQueryRoom];
  bool any = false;
  for (unsigned i = 0; i < kReturnedMax && ctx->sockets.descriptor(slot) == descriptor; ++i) {
    Datagram datagram = {packet, sizeof packet, 0, {}};
    if (ctx->io->udp_returned(ctx->io->self, descriptor, &datagram) <= 0) break;
    any = true;
    dns_query *q = returned_to(ctx, slot, {packet, std::min<size_t>(datagram.size, sizeof packet)}, datagram.peer);
    // The last server's silence is waited for all the same: it may be starting up.
    if (q != nullptr && has_fresh_server(q)) ask_again(q);
  }
  return any;
}

void tell_packet(dns_ctx *ctx, dns_query *q, int code, const Arrival &arrival, int rtt_ms) {
  if (ctx->dbg == nullptr) return;
  dns_dpkt event = {arrival.packet.data(),
                    static_cast<unsigned>(arrival.packet.size()),
                    nullptr,
                    reinterpret_cast<const sockaddr *>(arrival.peer),
                    arrival.protocol(),
                    rtt_ms};
  ctx->dbg(ctx, q, code, &event, ctx->dbg_data);
}

}  // namespace dns
