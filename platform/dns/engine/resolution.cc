// resolution.cc - see resolution.h.
//
// Servers are not believed about names outside their own zone. The target of a CNAME that leaves the zone is queried
// anew, a referral must lead down towards the name, and only its in-bailiwick glue is used (RFC 2181, 5.4.1; RFC 5452,
// 6).
#include "resolution.h"

#include <string.h>

#include <algorithm>
#include <new>
#include <utility>

#include <chain.h>
#include <dns_wire.h>
#include <name.h>

#include "choice.h"
#include "context.h"
#include "delegation.h"
#include "delivery.h"
#include "move.h"
#include "places.h"
#include "resolving.h"
#include "route.h"

namespace dns {
namespace {

constexpr uint8_t kRoot[] = {0};

// resolution returns the query's resolution, a new one where it has none; null without memory.
Resolution *resolution(dns_query *q) {
  if (q->resolution != nullptr) return q->resolution;
  void *block = q->ctx->resolutions.get();
  if (block != nullptr) q->resolution = new (block) Resolution;
  return q->resolution;
}

// top returns the resolution of the host's query that this lookup serves, directly or through other lookups.
Resolution *top(Resolution *resolution) {
  return resolution->top != nullptr ? resolution->top : resolution;
}

// take_servers gives the servers of a delegation to a query that has left everything. False when it gets none of them.
[[nodiscard]] bool take_servers(dns_query *q, const Delegation &delegation) {
  Resolution *resolution = q->resolution;
  dns_ctx *ctx = q->ctx;
  release_servers(q);
  resolution->out_of_reach = false;
  for (unsigned i = 0; i < delegation.naddresses; ++i) {
    Address address = delegation.addresses[i];
    address.port = static_cast<uint16_t>(ctx->options.port);
    Server *server = ctx->server_table.hold(address);
    if (server == nullptr) break;
    resolution->servers[resolution->nserv++] = server;
  }
  if (resolution->nserv == 0) return false;
  memcpy(resolution->zone, delegation.zone, sizeof resolution->zone);
  q->attempt.server = 0;
  return true;
}

// install sends the query to the servers of a delegation, which may end it. False when it gets none of them.
[[nodiscard]] bool install(dns_query *q, const Delegation &delegation, dns_status error = DNS_E_NOERROR) {
  leave(q);
  if (!take_servers(q, delegation)) return false;
  start_over(q, error);
  return true;
}

void lookup_next(dns_query *q);

// add_addresses adds the addresses in a lookup's block to a delegation.
void add_addresses(const dns_ctx *ctx, const dns_query *lookup, const void *block, Delegation *delegation) {
  const auto add = [=](const auto *addresses, int count, int32_t ttl) {
    delegation->ttl = std::min(delegation->ttl, ttl);
    for (const auto &address : std::span(addresses, static_cast<size_t>(count)))
      delegation->add_address(ctx, dns_qdn(lookup), dns_qtyp(lookup),
                              {reinterpret_cast<const uint8_t *>(&address), sizeof address});
  };
  if (dns_qtyp(lookup) == DNS_T_AAAA) {
    const auto *ip6 = static_cast<const dns_rr_a6 *>(block);
    add(ip6->dnsa6_addr, ip6->dnsa6_nrr, ip6->dnsa6_ttl);
  } else {
    const auto *ip4 = static_cast<const dns_rr_a4 *>(block);
    add(ip4->dnsa4_addr, ip4->dnsa4_nrr, ip4->dnsa4_ttl);
  }
}

// looked_up is the callback of a lookup: `data` is the query that waits for it.
void looked_up(dns_ctx *ctx, dns_query *lookup, void *result, unsigned, void *data) {
  auto *q = static_cast<dns_query *>(data);
  Resolution *resolution = q->resolution;
  resolution->lookup = nullptr;
  const dns_status status = dns_get_status(ctx);
  Delegation delegation;
  memcpy(delegation.zone, resolution->coming, sizeof delegation.zone);
  delegation.ttl = resolution->coming_ttl;
  delegation.add_target(dns_qdn(lookup));
  if (status == DNS_E_NOERROR && result != nullptr) add_addresses(ctx, lookup, result, &delegation);
  // A name that exists may have addresses of the other family.
  resolution->same_target = delegation.naddresses == 0 && (status == DNS_E_NOERROR || status == DNS_E_NODATA);
  if (delegation.naddresses > 0) keep_delegation(ctx, delegation);
  // What the zone's other servers have said still counts if this one says nothing.
  if (delegation.naddresses == 0 || !install(q, delegation, q->progress.error)) lookup_next(q);
}

// next_family returns the family in which a target is to be looked up. IPv4 comes first, unless the host has no route
// to it.
Family next_family(const dns_ctx *ctx, const Target &target) {
  if (!target.ipv4 || !target.ipv6) return target.ipv4 ? Family::ipv4 : Family::ipv6;
  return is_family_cut_off(ctx, Family::ipv4) ? Family::ipv6 : Family::ipv4;
}

// next_target returns the target that is looked up next: the last one in its other family, if it has no address in the
// first, else the next of which no address is known, else, if those that are known are out of reach, one in its other
// family. Null when there is none.
Target *next_target(const dns_ctx *ctx, Resolution *resolution) {
  const auto lacks_other = [ctx](const Target &target) {
    return target.ipv4 != target.ipv6 && !is_family_cut_off(ctx, target.ipv4 ? Family::ipv4 : Family::ipv6);
  };
  const auto targets = std::span(resolution->targets).first(resolution->ntargets);
  if (targets.empty()) return nullptr;
  if (resolution->same_target && lacks_other(targets.back())) return &targets.back();
  const auto fresh = std::ranges::find(targets.rbegin(), targets.rend(), false, &Target::known);
  if (fresh != targets.rend()) return &*fresh;
  if (!resolution->out_of_reach) return nullptr;
  const auto other = std::ranges::find_if(targets.rbegin(), targets.rend(), lacks_other);
  return other != targets.rend() ? &*other : nullptr;
}

// lookup_next looks up addresses of the next server of the delegation, or ends the query.
void lookup_next(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  Resolution *resolution = q->resolution;
  leave(q);
  move(q, State::resolving, &ctx->resolving);
  for (;;) {
    Target *target = next_target(ctx, resolution);
    if (target == nullptr || resolution->depth >= kDepthMax || top(resolution)->lookups >= kLookupsMax) break;
    ++top(resolution)->lookups;
    std::swap(*target, resolution->targets[resolution->ntargets - 1]);
    target = &resolution->targets[resolution->ntargets - 1];
    const bool six = next_family(ctx, *target) == Family::ipv6;
    (six ? target->ipv6 : target->ipv4) = false;
    target->known = true;
    resolution->same_target = false;
    dns_query *lookup = dns_submit_dn_serv(ctx, target->dn, DNS_C_IN, six ? DNS_T_AAAA : DNS_T_A, 0, nullptr, 0,
                                           six ? dns_parse_a6 : dns_parse_a4, looked_up, q);
    if (lookup == nullptr) continue;
    Resolution *own = dns::resolution(lookup);
    if (own == nullptr) {
      drop(lookup);
      continue;
    }
    own->top = top(resolution);
    own->depth = resolution->depth + 1;
    resolution->lookup = lookup;
    return;
  }
  deliver(q, q->progress.error != 0 ? dns_status{q->progress.error} : dns_status{DNS_E_TEMPFAIL}, nullptr, 0, 0);
}

// add_target adds a server whose addresses may be looked up in the families that are given.
void add_target(Resolution *resolution, const uint8_t *dn, bool ipv4, bool ipv6) {
  auto *target = new (&resolution->targets[resolution->ntargets++]) Target;
  memcpy(target->dn, dn, sizeof target->dn);
  target->ipv4 = ipv4;
  target->ipv6 = ipv6;
  target->known = !ipv4;
}

// adopt continues the query at a delegation's servers. Those without glue are looked up only when the others were of no
// use.
void adopt(dns_query *q, const Delegation &delegation) {
  Resolution *resolution = q->resolution;
  memcpy(resolution->coming, delegation.zone, sizeof resolution->coming);
  resolution->coming_ttl = delegation.ttl;
  resolution->ntargets = 0;
  resolution->same_target = resolution->out_of_reach = false;
  // Those without IPv4 glue come first. An in-bailiwick server without glue cannot be found, as only the zone itself
  // could tell its address.
  for (const bool ipv4 : {false, true})
    for (unsigned i = 0; i < delegation.ntargets && resolution->ntargets < kTargetsMax; ++i) {
      const bool ipv6 = delegation.has_address(i, Family::ipv6);
      if (delegation.has_address(i, Family::ipv4) != ipv4 || (ipv4 && ipv6)) continue;
      if (!covers(delegation.zone, delegation.targets[i])) add_target(resolution, delegation.targets[i], !ipv4, !ipv6);
    }
  if (delegation.naddresses == 0 || !install(q, delegation)) lookup_next(q);
}

}  // namespace

void start_over(dns_query *q, dns_status error) {
  q->progress = Progress{};
  q->progress.error = static_cast<int16_t>(error);
  q->attempt.pauses = 0;
  q->attempt.turned_back = false;
  choose_first(q);
  enqueue(q);
  if (servers_of(q).empty())
    deliver(q, DNS_E_TEMPFAIL, nullptr, 0, 0);
  else if (!recall_failures(q))
    no_server_left(q);
}

void no_server_left(dns_query *q) {
  if (!has_other_servers(q) || !begin_anew(q)) deliver(q, q->progress.error, nullptr, 0, 0);
}

void begin_at_delegation(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  if (ctx->referral_cache == nullptr || !iterates(q)) return;
  Delegation delegation;
  for (const uint8_t *zone = q->question.ask; *zone != 0; zone += 1 + *zone) {
    delegation.ntargets = delegation.naddresses = 0;
    if (!known_delegation(ctx, zone, &delegation) || delegation.naddresses == 0) continue;
    if (resolution(q) == nullptr) return;
    q->resolution->remembered = take_servers(q, delegation);
    q->resolution->names_others = false;
    for (unsigned i = 0; i < delegation.ntargets; ++i)
      if (!delegation.has_address(i, Family::ipv4)) q->resolution->names_others = true;
    return;
  }
}

bool begin_anew(dns_query *q) {
  Resolution *resolution = q->resolution;
  if (resolution == nullptr) return false;
  if (!std::exchange(resolution->remembered, false)) {
    if (next_target(q->ctx, resolution) == nullptr) return false;
    lookup_next(q);
    return true;
  }
  forget_delegation(q->ctx, resolution->zone);
  leave(q);
  release_servers(q);
  start_over(q);
  return true;
}

bool has_other_servers(const dns_query *q) {
  Resolution *resolution = q->resolution;
  if (resolution == nullptr) return false;
  return resolution->remembered ? resolution->names_others : next_target(q->ctx, resolution) != nullptr;
}

bool ask_on(dns_query *q, std::span<const uint8_t> packet, size_t answers_at, const Chain &chain) {
  Resolution *resolution = dns::resolution(q);
  if (resolution == nullptr) return false;
  if (resolution->passed == nullptr) {
    resolution->passed = dns_cdata_init(kMediumName);
    if (resolution->passed == nullptr || dns_cdata_setdn(resolution->passed, q->question.dn) != 0) return false;
    (void)dns_cdata_setcls(resolution->passed, q->question.cls);
    (void)dns_cdata_settyp(resolution->passed, q->question.typ);
  }
  cdata_cut(resolution->passed, resolution->passed_end);
  if (cdata_append_chain(resolution->passed, packet, answers_at, q->question.ask, chain, false) != DNS_E_NOERROR)
    return false;
  resolution->passed_end = cdata_end(resolution->passed);
  resolution->cnames += chain.cnames;
  resolution->ttl = std::min(resolution->ttl, chain.ttl);
  leave(q);
  memcpy(resolution->ask, chain.end, sizeof resolution->ask);
  q->question.ask = resolution->ask;
  q->ask_size = static_cast<uint8_t>(dns_dnlen(q->question.ask));
  release_servers(q);
  resolution->ntargets = 0;
  resolution->remembered = false;
  begin_at_delegation(q);
  start_over(q);
  return true;
}

bool follow_referral(dns_query *q, std::span<const uint8_t> packet, const uint8_t *zone) {
  const uint8_t *from = zone_of(q) != nullptr ? zone_of(q) : kRoot;
  const bool down = covers(zone, q->question.ask) && covers(from, zone) && dns_dnequal(from, zone) == 0;
  Delegation delegation;
  if (!iterates(q) || !down || resolution(q) == nullptr || !read_delegation(q->ctx, packet, zone, from, &delegation))
    return false;
  if (++top(q->resolution)->steps > q->ctx->options.maxloop) return false;
  q->resolution->remembered = false;
  keep_delegation(q->ctx, delegation);
  adopt(q, delegation);
  return true;
}

dns_status complete(dns_query *q, std::span<const uint8_t> packet, size_t answers_at, const Chain &chain, int rcode,
                    int32_t ttl, std::span<const uint8_t> *whole) {
  dns_ctx *ctx = q->ctx;
  dns_cdata *entry = q->resolution->passed;
  cdata_cut(entry, q->resolution->passed_end);  // drops what an unusable answer has left there
  const dns_status status = cdata_append_chain(entry, packet, answers_at, q->question.ask, chain, true);
  if (status != DNS_E_NOERROR) return status;
  (void)dns_cdata_setrcode(entry, rcode);
  (void)dns_cdata_setttl(entry, std::min(ttl, q->resolution->ttl));
  const int size = cdata_to_packet(entry, ctx->buffers->rebuilt, sizeof ctx->buffers->rebuilt);
  if (size < 0) return size;
  *whole = {ctx->buffers->rebuilt, static_cast<size_t>(size)};
  return DNS_E_NOERROR;
}

}  // namespace dns
