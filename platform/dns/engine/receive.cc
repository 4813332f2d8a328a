// receive.cc - packets in: what each of them is, and which query it answers; see receive.h.
#include "receive.h"

#include <string.h>

#include <algorithm>

#include <cursor.h>
#include <dns_wire.h>
#include <letter_case.h>
#include <message.h>
#include <prefetch.h>

#include "arrival.h"
#include "attempt.h"
#include "case_0x20.h"
#include "choice.h"
#include "context.h"
#include "cookie.h"
#include "edns.h"
#include "outcome.h"
#include "places.h"
#include "trace.h"

namespace dns {
namespace {

constexpr unsigned kReceiveTurns = 16;   // batches taken from one socket before the others get their turn
constexpr unsigned kReturnedMax = 1024;  // packets taken at a time that came back undeliverable

constexpr int kNotAsked = -1;

// asked_server is the place of the server that sent a packet among those that were asked: for an address of
// dns_add_expserv_s, the place of the present attempt's server. kNotAsked for any other sender.
int asked_server(const dns_query *q, const Address &peer) {
  const auto servers = servers_of(q);
  for (unsigned i = 0; i < servers.size(); ++i)
    if ((q->attempt.asked & bit(i)) != 0 && servers[i]->address == peer) return static_cast<int>(i);
  for (Address expected : std::span(q->ctx->expected, q->ctx->nexpected)) {
    if (expected.port == 0) expected.port = peer.port;
    if (expected == peer) return q->attempt.server;
  }
  return kNotAsked;
}

enum class Match { none, no_question, but_for_case, whole };

// match compares a packet's question with the one that `server` was sent, letter case included. A server that was sent
// lower case, because it does not keep the case, may answer in any.
Match match(const dns_query *q, unsigned server, std::span<const uint8_t> packet, const Header &header) {
  Reader reader(packet, DNS_HSIZE);
  std::span<const uint8_t> name;
  uint16_t typ = 0, cls = 0;
  if (header.count[DNS_S_QD] != 1) return lacks_question(packet, header) ? Match::no_question : Match::none;
  if (!reader.bytes(q->ask_size, &name) || !reader.u16(&typ) || !reader.u16(&cls) || typ != q->question.typ ||
      cls != q->question.cls)
    return Match::none;
  if (has_case(name, q->question.ask, q->attempt.case_bits)) return Match::whole;
  if (dns_dnequal(name.data(), q->question.ask) != q->ask_size) return Match::none;
  return was_lowered(q, server) ? Match::whole : Match::but_for_case;
}

// Found is the query that a packet answers, or what else the packet is.
struct Found {
  dns_query *q;
  int code;
  Match match;
  unsigned server;  // the place of the server that it comes from
};

Found find(dns_ctx *ctx, const Arrival &arrival, Header *header) {
  Found found = {nullptr, DNS_D_PKT_RPINV, Match::none, 0};
  if (!read_header(arrival.packet, header)) return found;
  if (!header->qr) {
    found.code = DNS_D_PKT_NOQR;
    return found;
  }
  if (header->opcode != 0) return found;
  found.code = DNS_D_PKT_NOREQ;
  for (dns_query *q = ctx->index.first(header->id); q != nullptr; q = q->index_next) {
    if (q->attempt.id != header->id || (q->attempt.slot != arrival.slot && q->attempt.former_slot != arrival.slot))
      continue;
    const int server = arrival.slot < kTcpSlot ? asked_server(q, *arrival.peer) : int{q->attempt.server};
    if (server == kNotAsked) continue;
    found.code = DNS_D_PKT_RPINV;
    const Match how = match(q, static_cast<unsigned>(server), arrival.packet, *header);
    if (how == Match::none) continue;
    found = {q, DNS_D_PKT_RPINV, how, static_cast<unsigned>(server)};
    if (how == Match::whole) break;
  }
  return found;
}

// returned_to finds the query of a packet that came back, if its present attempt is at the server that the packet was
// sent to.
dns_query *returned_to(dns_ctx *ctx, int slot, std::span<const uint8_t> packet, const Address &server) {
  Header header;
  if (!read_header(packet, &header)) return nullptr;
  for (dns_query *q = ctx->index.first(header.id); q != nullptr; q = q->index_next) {
    if (q->attempt.id != header.id || q->attempt.slot != slot || q->state != State::waiting) continue;
    if (present_server(q)->address == server && match(q, q->attempt.server, packet, header) == Match::whole) return q;
  }
  return nullptr;
}

// prefetch_queries prefetches the queries that a batch of packets may answer, and their buckets in the index, all in
// parallel.
void prefetch_queries(const dns_ctx *ctx, std::span<const Datagram> batch) {
  // A packet too short for an id leaves old bytes in its buffer, which do no harm here.
  const auto id_of = [&](size_t i) { return load_u16(batch[i].data); };
  const dns_query *first[kBatch];
  for (size_t i = 0; i < batch.size(); ++i)
    ctx->index.prefetch_bucket(id_of(i));
  for (size_t i = 0; i < batch.size(); ++i) {
    first[i] = ctx->index.first(id_of(i));
    prefetch_all<dns_query>(first[i]);
  }
  for (const dns_query *q : std::span(first).first(batch.size())) {
    if (q == nullptr) continue;
    ctx->leaders.prefetch_bucket(q->hash);
    prefetch(q->question.data);
  }
}

}  // namespace

bool take_packet(dns_ctx *ctx, std::span<uint8_t> packet, const Address &peer, int slot) {
  const Arrival arrival = {packet, &peer, slot};
  Header header;
  const Found found = find(ctx, arrival, &header);
  dns_query *q = found.q;
  if (q == nullptr || !check_cookie(q, found.server, arrival, header)) {
    if (q != nullptr && is_present(q, found.server)) q->attempt.doubt = Doubt::cookie;
    tell_packet(ctx, nullptr, found.code, arrival, 0);
    return false;
  }
  if (found.match != Match::whole) {
    const bool lacks = found.match == Match::no_question;
    const Hold hold(ctx);
    tell_packet(ctx, nullptr, lacks ? int{DNS_D_PKT_NEDNS0} : found.code, arrival, 0);
    if (q->state == State::cancelled) return false;
    if (lacks) take_lacking_question(q, found.server);
    if (lacks || !take_other_case(q, found.server, arrival)) return false;
  }
  note_case(q, found.server, arrival);
  // The letter case has been checked, so the host now gets the name as it gave it.
  memcpy(packet.data() + DNS_HSIZE, q->question.ask, q->ask_size);
  take_answer(q, arrival, header, found.server);
  return true;
}

void receive(dns_ctx *ctx, int slot) {
  const int descriptor = ctx->sockets.descriptor(slot);
  const bool connected = ctx->sockets.connected(slot);
  for (unsigned turn = 0; turn < kReceiveTurns; ++turn) {
    for (unsigned i = 0; i < kBatch; ++i) {
      ctx->buffers->in[i].data = ctx->buffers->answers[i];
      ctx->buffers->in[i].capacity = kAnswerRoom;
    }
    const int count = ctx->io->udp_receive(ctx->io->self, descriptor, ctx->buffers->in, kBatch, connected);
    if (count > 0) {
      ctx->sockets.heard(slot, ctx->now_us);
      prefetch_queries(ctx, {ctx->buffers->in, static_cast<size_t>(count)});
    }
    for (int i = 0; i < count; ++i) {
      const Datagram &in = ctx->buffers->in[i];
      // A copy, as an answer may have its socket closed.
      const Address peer = connected ? ctx->sockets.peer(slot) : in.peer;
      if (in.size <= in.capacity) {
        take_packet(ctx, {in.data, in.size}, peer, slot);
      } else {
        // Larger than the EDNS0 size, and cut by the kernel: it is treated as garbage.
        tell_packet(ctx, nullptr, DNS_D_PKT_RPINV, {{in.data, in.capacity}, &peer, slot}, 0);
      }
      // An answer may have been the last that a worn socket waited for.
      if (ctx->sockets.descriptor(slot) != descriptor) return;
    }
    // A packet that came back may have been the last that a worn socket waited for.
    if (count <= 0 && take_returned(ctx, slot) && ctx->sockets.descriptor(slot) == descriptor) continue;
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
    if (q == nullptr) continue;
    missed(q);
    turned_back(q);
  }
  return any;
}

}  // namespace dns
