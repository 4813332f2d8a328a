// receive.cc - packets in: what each of them is, and which question it answers; see engine.h.
#include <string.h>

#include <algorithm>

#include <prefetch.h>
#include "engine.h"

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

// bit is the set that holds one server, by its place.
constexpr uint32_t bit(int place) {
  return 1U << place;
}

// lacks_question tells whether a packet is what servers send that cannot read a query at all: an error and a header.
bool lacks_question(std::span<const uint8_t> packet, const Header &header) {
  return (header.rcode == DNS_R_FORMERR || header.rcode == DNS_R_NOTIMPL) && packet.size() == DNS_HSIZE &&
         header.count[DNS_S_QD] == 0;
}

enum class Match { none, no_question, but_for_case, whole };

// match compares a packet's question with the one that `server` was sent, letter case included. A server that was asked
// in lower case, because it does not keep the case, is free to answer in one of its own.
Match match(const dns_query *q, int server, std::span<const uint8_t> packet, const Header &header) {
  Reader reader(packet, DNS_HSIZE);
  std::span<const uint8_t> name;
  uint16_t typ = 0, cls = 0;
  if (header.count[DNS_S_QD] != 1) return lacks_question(packet, header) ? Match::no_question : Match::none;
  if (!reader.bytes(q->ask_size, &name) || !reader.u16(&typ) || !reader.u16(&cls) || typ != q->typ || cls != q->cls)
    return Match::none;
  if (has_case(name, q->ask, q->case_bits)) return Match::whole;
  if (dns_dnequal(name.data(), q->ask) != q->ask_size) return Match::none;
  return (q->lowered & bit(server)) != 0 ? Match::whole : Match::but_for_case;
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
    if (q->id != header->id || (q->slot != arrival.slot && q->former_slot != arrival.slot)) continue;
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

// is_present tells whether a packet is of the present attempt's server, while that is waited for.
bool is_present(const Found &found) {
  return found.q->state == State::waiting && !found.q->pausing && found.server == found.q->server;
}

// take_other_case deals with an answer that is right but for the case of its question's letters. Over TCP that is the
// server's own word, and it counts. By UDP it may be a forger's good guess, and does not: from a server that is known
// to keep the case it is one, and the true answer is waited for; else TCP, which no forger reaches, is to tell. True
// when it counts.
bool take_other_case(const Found &found, int slot) {
  dns_query *q = found.q;
  Server *server = servers_of(q)[static_cast<size_t>(found.server)];
  if (slot >= kTcpSlot) {
    server->letters_kept = 0;
    server->lower_until_us = q->ctx->now_us + kLowerUs;
    return true;
  }
  if (!is_present(found)) return false;
  q->doubt = Doubt::letter_case;
  const int64_t now_us = q->ctx->now_us;
  if (server->other_case_us == 0) server->other_case_us = now_us;
  // After minutes of nothing else another machine may have taken its place.
  if (now_us - server->other_case_us >= kOtherCaseUs) server->letters_kept = 0;
  if (!server->keeps_case()) ask_over_tcp(q);
  return false;
}

// note_case counts the letters that have come back as they were sent. Over TCP they may come back where they do not by
// UDP.
void note_case(const Found &found, int slot) {
  const dns_query *q = found.q;
  Server *server = servers_of(q)[static_cast<size_t>(found.server)];
  if (slot >= kTcpSlot || (q->lowered & bit(found.server)) != 0) return;
  server->other_case_us = 0;
  if (server->keeps_case()) return;
  const auto is_letter = [](uint8_t byte) {
    const unsigned lower = byte | 0x20U;
    return lower >= 'a' && lower <= 'z';
  };
  const auto letters = static_cast<unsigned>(std::count_if(q->ask, q->ask + q->ask_size, is_letter));
  server->letters_kept = static_cast<uint8_t>(std::min(server->letters_kept + letters, kLettersKnown));
}

enum class Cookie { right, doubtful };

// check_cookie checks the cookie of an answer and keeps the server's part of it (RFC 7873, section 5.3). A server that
// has given one does so always; when it no longer does, it says so over TCP.
Cookie check_cookie(const Found &found, const Arrival &arrival, const Header &header) {
  const dns_query *q = found.q;
  const dns_ctx *ctx = q->ctx;
  if ((ctx->options.flags & DNS_COOKIES) == 0) return Cookie::right;
  Server *server = servers_of(q)[static_cast<size_t>(found.server)];
  const bool expected = server->gives_cookies(ctx->now_us);
  const bool said_opt = (q->with_opt & bit(found.server)) != 0;
  if (!expected && !said_opt) return Cookie::right;
  // Over TCP no off-path forger answers, and a cookie is not needed.
  const Cookie doubtful = arrival.protocol() == IPPROTO_UDP ? Cookie::doubtful : Cookie::right;
  Sections sections(arrival.packet, header);
  Opt opt;
  if (!read_opt(&sections, &opt)) return doubtful;
  if (opt.cookie.empty()) {
    if (expected && doubtful != Cookie::right) return doubtful;
    if (said_opt) server->cookie_until_us = server->cookie_size = 0;
    return Cookie::right;
  }
  uint8_t own[kClientCookieSize];
  client_cookie(ctx, server, own);
  if (opt.cookie.size() < sizeof own || memcmp(opt.cookie.data(), own, sizeof own) != 0) return doubtful;
  const std::span<const uint8_t> theirs = opt.cookie.subspan(sizeof own);
  if (theirs.empty()) return Cookie::right;
  if (theirs.size() < kServerCookieMin || theirs.size() > kServerCookieMax) return doubtful;
  memcpy(server->cookie, theirs.data(), theirs.size());
  server->cookie_size = static_cast<uint8_t>(theirs.size());
  server->cookie_until_us = ctx->now_us + kCookieUs;
  return Cookie::right;
}

// take_lacking_question has a server asked again without EDNS0 that could not read the query. A forger needs no name
// for such a packet; it ends nothing, and counts once.
void take_lacking_question(const Found &found) {
  dns_query *q = found.q;
  if (!is_present(found) || q->plain || (q->with_opt & bit(found.server)) == 0) return;
  q->plain = true;
  ask_otherwise(q);
}

// returned_to finds the question of a packet that came back: its try at the server that the packet was going to is the
// present one.
dns_query *returned_to(dns_ctx *ctx, int slot, std::span<const uint8_t> packet, const sockaddr_in &server) {
  Header header;
  if (!read_header(packet, &header)) return nullptr;
  for (dns_query *q = ctx->index.first(header.id); q != nullptr; q = q->index_next) {
    if (q->id != header.id || q->slot != slot || q->state != State::waiting || q->pausing) continue;
    if (same_address(servers_of(q)[q->server]->address, server) && match(q, q->server, packet, header) == Match::whole)
      return q;
  }
  return nullptr;
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

bool take_packet(dns_ctx *ctx, std::span<uint8_t> packet, const sockaddr_in &peer, int slot) {
  const Arrival arrival = {packet, &peer, slot};
  Header header;
  const Found found = find(ctx, arrival, &header);
  if (found.q == nullptr || check_cookie(found, arrival, header) != Cookie::right) {
    if (found.q != nullptr && is_present(found)) found.q->doubt = Doubt::cookie;
    tell_packet(ctx, nullptr, found.code, arrival, 0);
    return false;
  }
  if (found.match != Match::whole) {
    const bool lacks = found.match == Match::no_question;
    const Hold hold(ctx);
    tell_packet(ctx, nullptr, lacks ? int{DNS_D_PKT_NEDNS0} : found.code, arrival, 0);
    if (found.q->state == State::cancelled) return false;
    if (lacks) take_lacking_question(found);
    if (lacks || !take_other_case(found, slot)) return false;
  }
  note_case(found, slot);
  // What the case of the letters was good for is done: the host sees the name as it gave it.
  memcpy(packet.data() + DNS_HSIZE, found.q->ask, found.q->ask_size);
  take_answer(found.q, arrival, header, static_cast<unsigned>(found.server));
  return true;
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
    if (q == nullptr) continue;
    missed(q);
    turned_back(q);
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
