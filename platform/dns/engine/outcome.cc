// outcome.cc - what an answer means for its query: an answer, a negative answer, an error, or nothing that can be used;
// see outcome.h.
#include "outcome.h"

#include <algorithm>
#include <utility>

#include <chain.h>
#include <message.h>
#include <negative.h>
#include <opt.h>

#include "answer_cache.h"
#include "arrival.h"
#include "attempt.h"
#include "choice.h"
#include "coalesce.h"
#include "context.h"
#include "cookie.h"
#include "delivery.h"
#include "edns.h"
#include "places.h"
#include "resolution.h"
#include "resolving.h"
#include "result.h"
#include "rto.h"
#include "trace.h"

namespace dns {
namespace {

// Verdict is what an answer packet means for its query.
struct Verdict {
  dns_status
      status;    // NOERROR, NXDOMAIN, NODATA, CNLOOP and NOMEM end the query; any other sends it to the next server
  int code;      // the event it is reported as
  int32_t ttl;   // seconds that the cache may keep it
  bool has_ttl;  // false for a negative answer without a SOA record
};

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

// Reading is what has been read from a packet so far.
struct Reading {
  size_t answers_at = 0;
  Chain chain;
  NegativeAnswer negative;
};

// judge_negative reads an answer without records of the type.
Verdict judge_negative(const dns_query *q, Sections *sections, Reading *reading) {
  const std::span<const uint8_t> packet = sections->packet();
  const Header &header = sections->header();
  size_t authority = 0;
  const Chain &chain = reading->chain;
  NegativeAnswer &negative = reading->negative;
  if (!sections->find(DNS_S_NS, &authority) ||
      read_negative(packet, authority, {chain.end, chain.end_size}, &negative) != DNS_E_NOERROR)
    return broken(DNS_D_PKT_RPINV);
  const int32_t ttl = std::min(negative.ttl, chain.ttl);
  // A negative answer with the SOA of another zone ends the query, but is not kept.
  if (negative.stray_soa && !negative.soa && (header.rcode == DNS_R_NXDOMAIN || chain.cnames == 0))
    return {header.rcode == DNS_R_NXDOMAIN ? DNS_E_NXDOMAIN : DNS_E_NODATA, DNS_D_PKT_INVSOA, 0, true};
  if (header.rcode == DNS_R_NXDOMAIN) return {DNS_E_NXDOMAIN, DNS_D_PKT_RPAN, ttl, negative.soa};
  if (negative.soa) return {DNS_E_NODATA, DNS_D_PKT_RPAN, ttl, true};
  // A server that is asked for its cache alone just has nothing cached, unless it has authority.
  if ((q->question.flags & DNS_DCACHE) != 0 && !header.aa) return broken(DNS_D_PKT_RPNS);
  // The answer says nothing about the chain's end.
  if (chain.cnames > 0) return broken(DNS_D_PKT_RPCNAME);
  // A referral: the server does not know the answer.
  if (negative.ns && !header.aa) return broken(iterates(q) ? DNS_D_PKT_RPNS : DNS_D_PKT_LAME);
  return {DNS_E_NODATA, DNS_D_PKT_RPAN, 0, false};
}

Verdict judge(const dns_query *q, std::span<const uint8_t> packet, const Header &header, Reading *reading) {
  if (header.rcode != DNS_R_NOERROR && header.rcode != DNS_R_NXDOMAIN)
    return {error_of(header.rcode), DNS_D_PKT_SERVERR, 0, false};
  // An answer that is truncated over TCP too cannot be had at all.
  if (header.tc) return broken(q->attempt.over_tcp ? DNS_D_PKT_RPINV : DNS_D_PKT_TC);
  Chain &chain = reading->chain;
  reading->answers_at = answers_after(q->ask_size);
  Sections sections(packet, header, reading->answers_at);
  Opt opt;
  if (!read_opt(&sections, &opt)) return broken(DNS_D_PKT_RPINV);
  if (opt.rcode_high != 0) return {DNS_E_FAIL, DNS_D_PKT_SERVERR, 0, false};
  const dns_status status = follow_chain(packet, reading->answers_at, {q->question.ask, q->ask_size}, q->question.typ,
                                         q->question.cls, cnames_left(q), &chain, zone_of(q));
  if (status == DNS_E_CNLOOP) return {status, DNS_D_PKT_RPAN, 0, false};
  if (status != DNS_E_NOERROR) return broken(DNS_D_PKT_RPINV);
  if (chain.left) return broken(DNS_D_PKT_RPCNAME);
  if (chain.records == 0) return judge_negative(q, &sections, reading);
  // Records of a name that does not exist: the server contradicts itself.
  if (header.rcode == DNS_R_NXDOMAIN) return broken(DNS_D_PKT_RPINV);
  return {DNS_E_NOERROR, DNS_D_PKT_RPAN, chain.ttl, true};
}

bool is_final(dns_status status) {
  return is_answer(status) || status == DNS_E_CNLOOP || status == DNS_E_NOMEM;
}

// go_back_to makes the server at `place`, which may be that of an earlier attempt, the present one again.
void go_back_to(dns_query *q, unsigned place) {
  if (place == q->attempt.server) return;
  prepare_for(q, place);
  q->attempt.probes = false;
}

// asked_otherwise sends the query to the server at `place` again without EDNS0 or over TCP, where its answer calls for
// that. False otherwise, or when another address has answered for the server.
bool asked_otherwise(dns_query *q, unsigned place, int code, const Arrival &arrival, const Header &header) {
  if (!(servers_of(q)[place]->address == *arrival.peer)) return false;
  const bool error = code == DNS_D_PKT_SERVERR;
  if (error && wants_cookie(q, place, arrival.packet, header)) {
    go_back_to(q, place);
    q->attempt.over_tcp = q->attempt.fresh_cookie;
    q->attempt.fresh_cookie = true;
    ask_otherwise(q);
    return true;
  }
  const bool plain = q->attempt.plain && place == q->attempt.server;
  const bool without_opt = error && !plain && wants_no_opt(q, place, arrival.packet, header);
  if (!without_opt && code != DNS_D_PKT_TC) return false;
  go_back_to(q, place);
  if (without_opt) q->attempt.plain = true;
  if (code == DNS_D_PKT_TC) q->attempt.over_tcp = true;
  if (without_opt && !tell_answer(q, DNS_D_PKT_NEDNS0, arrival)) return true;
  ask_otherwise(q);
  return true;
}

// deliver_all ends a query, and those coalesced with it, each with what its own parser makes of the packet.
void deliver_all(dns_query *q, dns_status status, std::span<const uint8_t> packet, size_t answers_at, void *result,
                 unsigned size) {
  base::Link coalesced;
  stop_leading(q, &coalesced);
  deliver(q, status, result, size, 0);
  while (!coalesced.alone()) {
    auto *next = static_cast<dns_query *>(coalesced.next);
    const int parsed_size = result_of(next, status, packet, answers_at, &result);
    const dns_status outcome = parsed_size < 0 ? parsed_size : status;
    deliver(next, outcome, result, static_cast<unsigned>(std::max(parsed_size, 0)), 0);
  }
}

// carry_on continues a query after an answer that neither ends it nor fails: the same server in another way, a CNAME or
// a referral. False for any other answer.
bool carry_on(dns_query *q, const Arrival &arrival, const Header &header, unsigned place, const Verdict &verdict,
              const Reading &reading) {
  if (asked_otherwise(q, place, verdict.code, arrival, header)) return true;
  if ((q->question.flags & DNS_DCACHE) != 0) return false;
  if (verdict.code == DNS_D_PKT_RPCNAME) return ask_on(q, arrival.packet, reading.answers_at, reading.chain);
  return verdict.code == DNS_D_PKT_RPNS && follow_referral(q, arrival.packet, reading.negative.zone);
}

}  // namespace

void take_answer(dns_query *q, const Arrival &arrival, const Header &header, unsigned place) {
  measure(q, arrival);
  Reading reading;
  std::span<const uint8_t> packet = arrival.packet;
  Verdict verdict = judge(q, packet, header, &reading);
  size_t answers_at = reading.answers_at;
  void *result = nullptr;
  int size = 0;
  if (is_answer(verdict.status) && passed_cnames(q)) {
    const dns_status status =
        complete(q, packet, reading.answers_at, reading.chain, header.rcode, verdict.ttl, &packet);
    // Without a whole answer `packet` is the one that came.
    if (status == DNS_E_NOERROR)
      answers_at = answers_after(q->dn_size);
    else
      verdict = {status == DNS_E_NOMEM ? status : DNS_E_PROTOCOL, DNS_D_PKT_RPINV, 0, false};
  }
  if (is_final(verdict.status)) {
    size = result_of(q, verdict.status, packet, answers_at, &result);
    if (size < 0) verdict = size == DNS_E_NOMEM ? Verdict{size, DNS_D_PKT_RPAN, 0, false} : broken(DNS_D_PKT_RPINV);
  }
  if (!tell_answer(q, verdict.code, arrival)) return;
  if (is_final(verdict.status)) {
    note_plain_answer(q, place);
    if (is_answer(verdict.status)) keep_answer(q, {packet, answers_at, header.rcode, verdict.ttl, verdict.has_ttl});
    deliver_all(q, verdict.status, packet, answers_at, result, static_cast<unsigned>(std::max(size, 0)));
    return;
  }
  q->progress.error = static_cast<int16_t>(verdict.status);
  if (carry_on(q, arrival, header, place, verdict, reading)) return;
  const uint32_t failed = answering(q, *arrival.peer);
  q->progress.refused |= failed;
  for (unsigned i = 0; i < servers_of(q).size(); ++i)
    if ((failed & bit(i)) != 0 && (q->question.flags & DNS_DCACHE) == 0) remember_failure(q, i, verdict.status);
  // An error from an earlier attempt's server changes nothing about the present attempt.
  if ((q->progress.refused & bit(q->attempt.server)) == 0) return;
  ask_again(q);
}

}  // namespace dns
