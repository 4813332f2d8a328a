// outcome.cc - what an answer means for its question: an answer, a denial, an error, or nothing that can be used; and
// what of it the cache keeps. See engine.h.
#include <algorithm>
#include <utility>

#include <cdata.h>
#include "engine.h"

namespace dns {
namespace {

// Verdict is what became of an answer packet.
struct Verdict {
  dns_status status;  // NOERROR, NXDOMAIN, NODATA, CNLOOP and NOMEM end the question; with any other the next is asked
  int code;           // the event it is reported as
  int32_t ttl;        // seconds that the cache may keep it
  bool has_ttl;       // false for a denial without a SOA record
};

// answers_behind is where the answers begin in a packet with one question, whose name has `size` bytes.
constexpr size_t answers_behind(size_t size) {
  constexpr size_t kTypeAndClass = 4;
  return DNS_HSIZE + size + kTypeAndClass;
}

constexpr Verdict broken(int code) {
  return {DNS_E_PROTOCOL, code, 0, false};
}

dns_status error_of(uint8_t rcode) {
  switch (rcode) {
    case DNS_R_FORMERR:
      return DNS_E_FORMERR;
    case DNS_R_SERVFAIL:
      return DNS_E_SERVFAIL;
    case DNS_R_NOTIMPL:
      return DNS_E_NOTIMPL;
    case DNS_R_REFUSED:
      return DNS_E_REFUSED;
    default:
      return DNS_E_FAIL;
  }
}

// Reading is what a packet says, as far as it was read.
struct Reading {
  size_t answers_at = 0;
  Chain chain;
  Denial denial;
};

// judge_denial reads an answer without records of the type.
Verdict judge_denial(const dns_query *q, Sections *sections, Reading *reading) {
  const std::span<const uint8_t> packet = sections->packet();
  const Header &header = sections->header();
  size_t authority = 0;
  const Chain &chain = reading->chain;
  Denial &denial = reading->denial;
  if (!sections->find(DNS_S_NS, &authority) ||
      read_denial(packet, authority, {chain.end, chain.end_size}, &denial) != DNS_E_NOERROR)
    return broken(DNS_D_PKT_RPINV);
  const int32_t ttl = std::min(denial.ttl, chain.ttl);
  // A denial by another zone than the name's ends the question and is not kept.
  if (denial.stray_soa && !denial.soa && (header.rcode == DNS_R_NXDOMAIN || chain.aliases == 0))
    return {header.rcode == DNS_R_NXDOMAIN ? DNS_E_NXDOMAIN : DNS_E_NODATA, DNS_D_PKT_INVSOA, 0, true};
  if (header.rcode == DNS_R_NXDOMAIN) return {DNS_E_NXDOMAIN, DNS_D_PKT_RPAN, ttl, denial.soa};
  if (denial.soa) return {DNS_E_NODATA, DNS_D_PKT_RPAN, ttl, true};
  // What a server that is asked for its cache alone does not deny with authority, it does not know.
  if ((q->flags & DNS_DCACHE) != 0 && !header.aa) return broken(DNS_D_PKT_RPNS);
  // The chain's end was not answered for, so nothing is known about it.
  if (chain.aliases > 0) return broken(DNS_D_PKT_RPCNAME);
  // A referral: the server does not know, whoever it points to.
  if (denial.ns && !header.aa) return broken(iterates(q) ? DNS_D_PKT_RPNS : DNS_D_PKT_LAME);
  return {DNS_E_NODATA, DNS_D_PKT_RPAN, 0, false};
}

Verdict judge(const dns_query *q, std::span<const uint8_t> packet, const Header &header, Reading *reading) {
  if (header.rcode != DNS_R_NOERROR && header.rcode != DNS_R_NXDOMAIN)
    return {error_of(header.rcode), DNS_D_PKT_SERVERR, 0, false};
  // What is cut off over TCP as well cannot be had at all.
  if (header.tc) return broken(q->over_tcp ? DNS_D_PKT_RPINV : DNS_D_PKT_TC);
  Chain &chain = reading->chain;
  // The question has been compared with the one that was sent.
  reading->answers_at = answers_behind(q->ask_size);
  Sections sections(packet, header, reading->answers_at);
  Opt opt;
  if (!read_opt(&sections, &opt)) return broken(DNS_D_PKT_RPINV);
  if (opt.rcode_high != 0) return {DNS_E_FAIL, DNS_D_PKT_SERVERR, 0, false};
  const dns_status status = follow_chain(packet, reading->answers_at, {q->ask, q->ask_size}, q->typ, q->cls,
                                         aliases_left(q), &chain, zone_of(q));
  if (status == DNS_E_CNLOOP) return {status, DNS_D_PKT_RPAN, 0, false};
  if (status != DNS_E_NOERROR) return broken(DNS_D_PKT_RPINV);
  if (chain.left) return broken(DNS_D_PKT_RPCNAME);
  if (chain.records == 0) return judge_denial(q, &sections, reading);
  // Records of a name that does not exist: the server contradicts itself.
  if (header.rcode == DNS_R_NXDOMAIN) return broken(DNS_D_PKT_RPINV);
  return {DNS_E_NOERROR, DNS_D_PKT_RPAN, chain.ttl, true};
}

bool is_denial(dns_status status) {
  return status == DNS_E_NXDOMAIN || status == DNS_E_NODATA;
}

bool is_answer(dns_status status) {
  return status == DNS_E_NOERROR || is_denial(status);
}

bool is_final(dns_status status) {
  return is_answer(status) || status == DNS_E_CNLOOP || status == DNS_E_NOMEM;
}

// keeps_all tells whether a cache keeps every answer for a time, also one whose TTL of 0 makes it good for the question
// at hand alone (RFC 1035, 3.2.1).
bool keeps_all(dns_cacher *cacher) {
  uint32_t least = 0;
  return dns_cacher_getopt(cacher, DNS_CROPT_MINTTL, &least, sizeof least) == 0 && least > 0;
}

// passed_aliases tells whether the answer at hand is only the last part of what the question is answered with.
bool passed_aliases(const dns_query *q) {
  return q->journey != nullptr && q->journey->passed != nullptr;
}

void keep(dns_query *q, std::span<const uint8_t> packet, const Header &header, const Verdict &verdict,
          size_t answers_at) {
  dns_ctx *ctx = q->ctx;
  if (ctx->answer_cache == nullptr || q->uncached || verdict.status == DNS_E_CNLOOP || verdict.status == DNS_E_NOMEM)
    return;
  set_key(q, verdict.has_ttl ? 0 : kNoSoa);
  dns_cdata *entry = passed_aliases(q) ? q->journey->passed : ctx->entry;
  (void)dns_cdata_setflags(entry, verdict.has_ttl ? 0 : kNoSoa);
  const int32_t ttl = passed_aliases(q) ? std::min(verdict.ttl, q->journey->ttl) : verdict.ttl;
  if (verdict.has_ttl && ttl == 0 && !keeps_all(ctx->answer_cache)) {
    (void)dns_cacher_delete(ctx->answer_cache, ctx->entry, wall(ctx));
    return;
  }
  if (passed_aliases(q) ||
      cdata_from_answer(entry, packet, answers_at, ctx->options.maxalias, header.rcode, ttl) == DNS_E_NOERROR)
    (void)dns_cacher_put(ctx->answer_cache, entry, wall(ctx));
}

// answering returns the set of the question's servers that have the answer's address: the one that was asked, or none
// for an expected stranger, whose answer then stands for the server of the present try.
uint32_t answering(const dns_query *q, const sockaddr_in &peer) {
  const auto servers = servers_of(q);
  uint32_t set = 0;
  for (unsigned i = 0; i < servers.size(); ++i)
    if (same_address(servers[i]->address, peer)) set |= 1U << i;
  return set != 0 ? set : 1U << q->server;
}

// measure takes the round trip of an answer into the estimate of the server that sent it. Once a question was sent
// again the answer may belong to an earlier packet (Karn's rule), and only the time since the first is sure to hold its
// round trip. It counts where it is above the estimate and nothing surer has come in since: a server that has become
// slower than the wait for it would otherwise never be measured again, and be asked twice for ever; while one that
// merely loses packets goes on answering others at its own pace.
void measure(dns_query *q, const Arrival &arrival) {
  dns_ctx *ctx = q->ctx;
  const sockaddr_in &peer = *arrival.peer;
  const auto servers = servers_of(q);
  Server *present = servers[q->server];
  const auto found = std::ranges::find_if(servers, [&peer](const Server *s) { return same_address(s->address, peer); });
  Server *server = same_address(present->address, peer) || found == servers.end() ? present : *found;
  server->used.fetch_add(1, std::memory_order_relaxed);
  server->heard(ctx->now_us);
  // Over TCP the time holds a connection's making, or its waiting for others.
  if (arrival.protocol() == IPPROTO_TCP || !same_address(server->address, peer)) return;
  // Nor is it clear which packet is answered by a server that stands in the list twice and was asked at both places.
  const bool once = (answering(q, peer) & q->asked & ~(1U << q->server)) == 0;
  const bool sure = server == present && q->round == 0 && once;
  const int64_t rtt = ctx->now_us - (sure ? q->sent_us : q->first_sent_us);
  const bool slower = server->srtt_us != 0 && rtt > server->srtt_us && server->measured_us < q->first_sent_us;
  if (sure) server->measured_us = ctx->now_us;
  if (sure || slower) server->sample(rtt, wall(ctx));
}

// result_of parses what the callback is given. A denial's records say nothing, so only a raw packet is handed out for
// it.
int result_of(dns_query *q, dns_status status, std::span<const uint8_t> packet, size_t answers_at, void **result) {
  *result = nullptr;
  if (is_denial(status) && q->parse != dns_parse_pkt) return 0;
  return status == DNS_E_CNLOOP ? 0 : parsed(q, packet, answers_at, result);
}

// tell_answer tells the debug function of an answer; false when that cancelled the question.
bool tell_answer(dns_query *q, int code, const Arrival &arrival) {
  constexpr int64_t kUsPerMs = 1000;
  dns_ctx *ctx = q->ctx;
  if (!ctx->tells(DNS_DE_PKT)) return true;
  const Hold hold(ctx);
  tell_packet(ctx, q, code, arrival, static_cast<int>((ctx->now_us - q->sent_us) / kUsPerMs));
  return q->state != State::cancelled;
}

// said_opt tells whether the server at `place` was sent an OPT record.
bool said_opt(const dns_query *q, unsigned place) {
  return (q->with_opt & (1U << place)) != 0;
}

// wants_no_opt tells whether a server stumbled over the OPT record that it was sent: it says that it does not
// understand the query, in an answer without an OPT record, or that it knows no version of EDNS0 (RFC 6891, 6.1.3 and
// 7).
bool wants_no_opt(const dns_query *q, unsigned place, std::span<const uint8_t> packet, const Header &header) {
  constexpr uint8_t kBadVersionHigh = 1;
  Sections sections(packet, header);
  Opt opt;
  if (!said_opt(q, place) || !read_opt(&sections, &opt)) return false;
  if (header.rcode == DNS_R_FORMERR || header.rcode == DNS_R_NOTIMPL) return !opt.present;
  return header.rcode == DNS_R_NOERROR && opt.rcode_high == kBadVersionHigh;
}

// wants_cookie tells whether a server refuses the cookie that it was sent (BADCOOKIE, RFC 7873, 5.3): it has given a
// new one, and after that there is TCP.
bool wants_cookie(const dns_query *q, unsigned place, std::span<const uint8_t> packet, const Header &header) {
  constexpr unsigned kBadCookie = 23;
  Sections sections(packet, header);
  Opt opt;
  if ((q->ctx->options.flags & DNS_COOKIES) == 0 || !said_opt(q, place) || q->over_tcp || !read_opt(&sections, &opt))
    return false;
  return opt.present && (unsigned{opt.rcode_high} << 4 | header.rcode) == kBadCookie;
}

// go_back_to makes the server at `place` the present one again.
void go_back_to(dns_query *q, unsigned place) {
  if (place == q->server) return;
  forget_manner(q);
  q->probes = false;
  q->server = static_cast<uint8_t>(place);
}

// asked_otherwise asks the server at `place`, which may be that of an earlier attempt, again without EDNS0 or over TCP,
// where its answer calls for that. False when it does not, or when a stranger has answered for it.
bool asked_otherwise(dns_query *q, unsigned place, int code, const Arrival &arrival, const Header &header) {
  if (!same_address(servers_of(q)[place]->address, *arrival.peer)) return false;
  const bool error = code == DNS_D_PKT_SERVERR;
  if (error && wants_cookie(q, place, arrival.packet, header)) {
    go_back_to(q, place);
    q->over_tcp = q->fresh_cookie;
    q->fresh_cookie = true;
    ask_otherwise(q);
    return true;
  }
  const bool plain = q->plain && place == q->server;
  const bool without_opt = error && !plain && wants_no_opt(q, place, arrival.packet, header);
  if (!without_opt && code != DNS_D_PKT_TC) return false;
  go_back_to(q, place);
  if (without_opt) q->plain = true;
  if (code == DNS_D_PKT_TC) q->over_tcp = true;
  if (without_opt && !tell_answer(q, DNS_D_PKT_NEDNS0, arrival)) return true;
  ask_otherwise(q);
  return true;
}

// deliver_all ends a question, and those that follow it, each with what its own parser makes of the packet.
void deliver_all(dns_query *q, dns_status status, std::span<const uint8_t> packet, size_t answers_at, void *result,
                 unsigned size) {
  base::Link followers;
  stop_leading(q, &followers);
  deliver(q, status, result, size, 0);
  while (!followers.alone()) {
    auto *next = static_cast<dns_query *>(followers.next);
    const int parsed_size = result_of(next, status, packet, answers_at, &result);
    const dns_status outcome = parsed_size < 0 ? parsed_size : status;
    deliver(next, outcome, result, static_cast<unsigned>(std::max(parsed_size, 0)), 0);
  }
}

// goes_on sends a question on that its server's answer neither ends nor fails. False when it does.
bool goes_on(dns_query *q, const Arrival &arrival, const Header &header, unsigned place, const Verdict &verdict,
             const Reading &reading) {
  if (asked_otherwise(q, place, verdict.code, arrival, header)) return true;
  if ((q->flags & DNS_DCACHE) != 0) return false;
  if (verdict.code == DNS_D_PKT_RPCNAME) return ask_on(q, arrival.packet, reading.answers_at, reading.chain);
  return verdict.code == DNS_D_PKT_RPNS && follow_referral(q, arrival.packet, reading.denial.zone);
}

}  // namespace

void set_key(dns_query *q, unsigned flags) {
  dns_cdata *entry = q->ctx->entry;
  (void)dns_cdata_setdn(entry, q->dn);
  (void)dns_cdata_setcls(entry, q->cls);
  (void)dns_cdata_settyp(entry, q->typ);
  (void)dns_cdata_setflags(entry, flags);
}

int parsed(dns_query *q, std::span<const uint8_t> packet, size_t answers, void **result) {
  *result = nullptr;
  if (q->parse == nullptr) return 0;
  const uint8_t *start = packet.data();
  const int size = q->parse(q->ctx, q, q->dn, start, start + answers, start + packet.size(), result, 0);
  if (size < 0 || q->parse == dns_parse_pkt || *result == nullptr) return size;
  auto *head = static_cast<dns_rr_null *>(*result);
  head->dnsn_ttl = std::max(head->dnsn_ttl, static_cast<int32_t>(q->ctx->options.minttl));
  return size;
}

void take_answer(dns_query *q, const Arrival &arrival, const Header &header, unsigned place) {
  measure(q, arrival);
  Reading reading;
  std::span<const uint8_t> packet = arrival.packet;
  Verdict verdict = judge(q, packet, header, &reading);
  size_t answers_at = reading.answers_at;
  void *result = nullptr;
  int size = 0;
  if (is_answer(verdict.status) && passed_aliases(q)) {
    const dns_status status =
        complete(q, packet, reading.answers_at, reading.chain, header.rcode, verdict.ttl, &packet);
    // Without a whole answer `packet` still is the one that came.
    if (status == DNS_E_NOERROR)
      answers_at = answers_behind(q->dn_size);
    else
      verdict = {status == DNS_E_NOMEM ? status : DNS_E_PROTOCOL, DNS_D_PKT_RPINV, 0, false};
  }
  if (is_final(verdict.status)) {
    size = result_of(q, verdict.status, packet, answers_at, &result);
    if (size < 0) verdict = size == DNS_E_NOMEM ? Verdict{size, DNS_D_PKT_RPAN, 0, false} : broken(DNS_D_PKT_RPINV);
  }
  if (!tell_answer(q, verdict.code, arrival)) return;
  if (is_final(verdict.status)) {
    if (q->plain && place == q->server) servers_of(q)[place]->plain_until_us = q->ctx->now_us + kNoEdnsUs;
    keep(q, packet, header, verdict, answers_at);
    deliver_all(q, verdict.status, packet, answers_at, result, static_cast<unsigned>(std::max(size, 0)));
    return;
  }
  q->error = static_cast<int16_t>(verdict.status);
  if (goes_on(q, arrival, header, place, verdict, reading)) return;
  const uint32_t failed = answering(q, *arrival.peer);
  q->refused |= failed;
  const auto servers = servers_of(q);
  for (unsigned i = 0; i < servers.size(); ++i)
    if ((failed & (1U << i)) != 0 && (q->flags & DNS_DCACHE) == 0)
      q->ctx->failures.remember(q, servers[i], verdict.status);
  // An error from a server that was asked before the present one changes nothing about the try that is under way, or
  // about to be.
  if ((q->refused & (1U << q->server)) == 0) return;
  ask_again(q);
}

bool take_cached(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  const dns_cdata *entry = ctx->entry;
  dns_status status = DNS_E_NOERROR;
  if (dns_cdata_rcode(entry) == DNS_R_NXDOMAIN) {
    status = DNS_E_NXDOMAIN;
  } else if (dns_cdata_rcode(entry) != DNS_R_NOERROR) {
    return false;
  } else if (cdata_is_denial(entry)) {
    status = DNS_E_NODATA;
  }
  void *result = nullptr;
  int size = 0;
  if (q->parse != nullptr && (!is_denial(status) || q->parse == dns_parse_pkt)) {
    const int length = cdata_to_packet(entry, ctx->buffers->rebuilt, sizeof ctx->buffers->rebuilt);
    if (length < 0) return false;
    size =
        result_of(q, status, {ctx->buffers->rebuilt, static_cast<size_t>(length)}, answers_behind(q->dn_size), &result);
    if (size < 0) return false;
  }
  deliver(q, status, result, static_cast<unsigned>(size), DNS_SF_CACHED);
  return true;
}

}  // namespace dns
