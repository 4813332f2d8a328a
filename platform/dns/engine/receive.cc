// receive.cc - packets in: what each of them is, and which question it answers; see engine.h.
#include <string.h>

#include <algorithm>

#include "engine.h"
#include "prefetch.h"

namespace dns {
namespace {

constexpr unsigned kReceiveTurns = 16;   // batches taken from one socket before the others get their turn
constexpr size_t kServerCookieMin = 8;   // RFC 7873, section 4
constexpr unsigned kReturnedMax = 1024;  // packets taken at a time that came back undeliverable

constexpr int kNotAsked = -1;

// asked_server is the place of the server that sent a packet among those that were asked: for an expected stranger that
// of the present try. kNotAsked for anybody else.
int asked_server(const dns_query *q, const sockaddr_in &peer) {
  const auto servers = servers_of(q);
  for (unsigned i = 0; i < servers.size(); ++i)
    if ((q->asked & (1U << i)) != 0 && same_address(servers[i]->address, peer)) return static_cast<int>(i);
  for (const sockaddr_in &expected : std::span(q->ctx->expected, q->ctx->nexpected))
    if (expected.sin_addr.s_addr == peer.sin_addr.s_addr &&
        (expected.sin_port == 0 || expected.sin_port == peer.sin_port))
      return q->server;
  return kNotAsked;
}

enum class Match { none, but_for_case, whole };

// match compares a packet's question with the one that `server` was sent, letter case included.
Match match(const dns_query *q, int server, std::span<const uint8_t> packet, const Header &header) {
  Reader reader(packet, DNS_HSIZE);
  std::span<const uint8_t> name;
  uint16_t typ = 0, cls = 0;
  if (header.count[DNS_S_QD] != 1 || !reader.bytes(q->ask_size, &name) || !reader.u16(&typ) || !reader.u16(&cls) ||
      typ != q->typ || cls != q->cls)
    return Match::none;
  if (has_case(name, q->ask, (q->lowered & (1U << server)) != 0 ? kLowerCase : q->case_bits)) return Match::whole;
  return dns_dnequal(name.data(), q->ask) == q->ask_size ? Match::but_for_case : Match::none;
}

// Found is the question that a packet answers, or what else the packet is.
struct Found {
  dns_query *q;
  int code;
  Match match;
  int server;
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
    if (q->id != header->id || q->slot != arrival.slot) continue;
    const int server = arrival.slot < kTcpSlot ? asked_server(q, *arrival.peer) : int{q->server};
    if (server == kNotAsked) continue;
    found.code = DNS_D_PKT_RPINV;
    const Match how = match(q, server, arrival.packet, *header);
    if (how == Match::none) continue;
    found = {q, DNS_D_PKT_RPINV, how, server};
    if (how == Match::whole) break;
  }
  return found;
}

// take_other_case deals with an answer that is right but for the case of its question's letters. By UDP it may be a
// forger's good guess, and does not count: TCP, which no forger reaches, is to tell whether the server is like that.
// True when it counts.
bool take_other_case(const Found &found, int slot) {
  dns_query *q = found.q;
  dns_ctx *ctx = q->ctx;
  Server *server = servers_of(q)[static_cast<size_t>(found.server)];
  if (slot >= kTcpSlot) {
    server->lower_until_us = ctx->now_us + kLowerUs;
    return true;
  }
  if (q->state != State::waiting || found.server != q->server || (q->lowered & (1U << found.server)) != 0) return false;
  q->case_missed = q->over_tcp = true;
  ask_otherwise(q);
  return false;
}

// has_right_cookie checks the cookie of an answer and keeps the server's part of it (RFC 7873, section 5.3).
bool has_right_cookie(const Found &found, const Arrival &arrival, const Header &header) {
  const dns_query *q = found.q;
  const dns_ctx *ctx = q->ctx;
  Server *server = servers_of(q)[static_cast<size_t>(found.server)];
  if ((ctx->options.flags & DNS_COOKIES) == 0 || !q->with_opt) return true;
  Sections sections(arrival.packet, header);
  Opt opt;
  if (!read_opt(&sections, &opt)) return false;
  if (opt.cookie.empty()) return !server->gives_cookies || arrival.protocol() == IPPROTO_TCP;
  uint8_t own[kClientCookieSize];
  client_cookie(ctx, server, own);
  if (opt.cookie.size() < sizeof own || memcmp(opt.cookie.data(), own, sizeof own) != 0) return false;
  const std::span<const uint8_t> theirs = opt.cookie.subspan(sizeof own);
  if (theirs.size() < kServerCookieMin || theirs.size() > kServerCookieMax) return theirs.empty();
  memcpy(server->cookie, theirs.data(), theirs.size());
  server->cookie_size = static_cast<uint8_t>(theirs.size());
  server->gives_cookies = true;
  return true;
}

// returned_to finds the question of a packet that came back: its try at the server that the packet was going to is the
// present one.
dns_query *returned_to(dns_ctx *ctx, int slot, std::span<const uint8_t> packet, const sockaddr_in &server) {
  Header header;
  if (!read_header(packet, &header)) return nullptr;
  for (dns_query *q = ctx->index.first(header.id); q != nullptr; q = q->index_next) {
    if (q->id != header.id || q->slot != slot || q->state != State::waiting) continue;
    if (same_address(servers_of(q)[q->server]->address, server) && match(q, q->server, packet, header) == Match::whole)
      return q;
  }
  return nullptr;
}

// has_fresh_server tells whether there is a server that was not asked yet.
bool has_fresh_server(const dns_query *q) {
  const uint32_t all = static_cast<uint32_t>((uint64_t{1} << servers_of(q).size()) - 1);
  return ((q->asked | q->refused) & all) != all;
}

// prefetch_questions asks the processor for the questions that a batch of packets may answer, and for where they are
// filed: of all of them side by side, instead of one after the other.
void prefetch_questions(const dns_ctx *ctx, std::span<const Datagram> batch) {
  // Whatever a packet that is too short for an identifier left in its buffer will do.
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
    prefetch(q->data);
  }
}

}  // namespace

void take_packet(dns_ctx *ctx, std::span<uint8_t> packet, const sockaddr_in &peer, int slot) {
  const Arrival arrival = {packet, &peer, slot};
  Header header;
  const Found found = find(ctx, arrival, &header);
  if (found.q == nullptr || !has_right_cookie(found, arrival, header)) {
    tell_packet(ctx, nullptr, found.code, arrival, 0);
    return;
  }
  if (found.match == Match::but_for_case) {
    const Hold hold(ctx);
    tell_packet(ctx, nullptr, found.code, arrival, 0);
    if (found.q->state == State::cancelled || !take_other_case(found, slot)) return;
  }
  // What the case of the letters was good for is done: the host sees the name as it gave it.
  memcpy(packet.data() + DNS_HSIZE, found.q->ask, found.q->ask_size);
  take_answer(found.q, arrival, header);
}

void receive(dns_ctx *ctx, int slot) {
  const int descriptor = ctx->sockets.descriptor(slot);
  for (unsigned turn = 0; turn < kReceiveTurns; ++turn) {
    for (unsigned i = 0; i < kBatch; ++i) {
      ctx->buffers->in[i].data = ctx->buffers->answers[i];
      ctx->buffers->in[i].capacity = kAnswerRoom;
    }
    const int count = ctx->io->udp_receive(ctx->io->self, descriptor, ctx->buffers->in, kBatch);
    if (count > 0) {
      ctx->sockets.heard(slot, ctx->now_us);
      prefetch_questions(ctx, {ctx->buffers->in, static_cast<size_t>(count)});
    }
    for (int i = 0; i < count; ++i) {
      const Datagram &in = ctx->buffers->in[i];
      if (in.size <= in.capacity) {
        take_packet(ctx, {in.data, in.size}, in.peer, slot);
      } else {
        // Larger than was asked for, and cut by the kernel: it counts for no more than garbage.
        tell_packet(ctx, nullptr, DNS_D_PKT_RPINV, {{in.data, in.capacity}, &in.peer, slot}, 0);
      }
      // An answer may have been the last that a worn socket waited for.
      if (ctx->sockets.descriptor(slot) != descriptor) return;
    }
    // What came back may have been the last that a worn socket waited for, too.
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
    // The last server's silence is waited for all the same: it may be starting up.
    if (q == nullptr || !has_fresh_server(q)) continue;
    missed(q);
    ask_again(q);
  }
  return any;
}

void tell_packet(dns_ctx *ctx, dns_query *q, int code, const Arrival &arrival, int rtt_ms) {
  if (!ctx->tells(DNS_DE_PKT)) return;
  const bool by_udp = arrival.protocol() == IPPROTO_UDP;
  sockaddr_in local{};  // the port is what tells questions apart; the address is the system's to choose
  local.sin_family = AF_INET;
  local.sin_port = htons(by_udp ? ctx->sockets.port(arrival.slot) : uint16_t{0});
  dns_dpkt event = {arrival.packet.data(),
                    static_cast<unsigned>(arrival.packet.size()),
                    by_udp ? reinterpret_cast<const sockaddr *>(&local) : nullptr,
                    reinterpret_cast<const sockaddr *>(arrival.peer),
                    arrival.protocol(),
                    rtt_ms};
  ctx->dbg(ctx, q, code, &event, ctx->dbg_data);
}

}  // namespace dns
