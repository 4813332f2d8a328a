// journey.cc - questions that one answer does not end: an alias that leads out of the answer is asked on, a referral is
// followed to the servers of the zone below, and their addresses are looked up where nobody told them; see engine.h.
//
// Nothing that servers say of names outside their own zone is used: an alias is followed out of it without believing
// what stands there about its target, a referral must lead down towards the name, and only addresses of names inside
// the zone are taken with it (RFC 2181, 5.4.1; RFC 5452, 6).
#include <string.h>

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include <cdata.h>
#include "engine.h"

namespace dns {
namespace {

// Delegations lie in the referral cache under a class of their own (RFC 6895, 3.2: private use), so that none is ever
// taken for an answer about NS records, which the zone itself must give (RFC 2181, 5.4.1).
constexpr dns_class kDelegationClass = 0xFF01;

constexpr unsigned kDepthMax = 4;    // look-ups of servers for look-ups of servers
constexpr unsigned kLookupsMax = 8;  // look-ups of servers for one question, so that no zone makes work without bound

// Where an address leads that is none of the network's: nowhere but back to this host, or to its own link.
enum class Reach { network, host, link, nowhere };

Reach reach_of(in_addr address) {
  const in_addr_t bits = ntohl(address.s_addr);
  constexpr in_addr_t kLinkLocal = 0xA9FE;  // 169.254.0.0/16
  if (bits >> 24 == 127) return Reach::host;
  if (bits >> 16 == kLinkLocal) return Reach::link;
  return bits >> 24 == 0 || bits >> 28 >= 14 ? Reach::nowhere : Reach::network;  // 0.0.0.0/8; multicast and reserved
}

// may_lead_to tells whether a delegation to an address is followed. One to this host or its link would have the engine
// ask services there whatever strangers choose; it is followed only where the context's own servers are.
bool may_lead_to(const dns_ctx *ctx, in_addr address) {
  const Reach reach = reach_of(address);
  if (reach == Reach::network) return true;
  const std::span servers(ctx->servers, ctx->nserv);
  return reach != Reach::nowhere && std::ranges::any_of(servers, [reach](const Server *server) {
           return reach_of(server->address.sin_addr) == reach;
         });
}

// Delegation is what a referral says: the zone, its servers' names, and the addresses that came with them.
struct Delegation {
  uint8_t zone[DNS_MAXDN];
  int32_t ttl = INT32_MAX;
  unsigned ntargets = 0;
  unsigned naddresses = 0;
  uint8_t targets[kDelegatedMax][DNS_MAXDN];
  in_addr addresses[kDelegatedMax];
  uint8_t owners[kDelegatedMax];  // the target that each address belongs to

  [[nodiscard]] int target(const uint8_t *dn) const {
    for (unsigned i = 0; i < ntargets; ++i)
      if (dns_dnequal(targets[i], dn) != 0) return static_cast<int>(i);
    return -1;
  }
  void add_target(const uint8_t *dn) {
    if (ntargets < kDelegatedMax && target(dn) < 0 && dns_dntodn(dn, targets[ntargets], DNS_MAXDN) != 0) ++ntargets;
  }
  bool add_address(const dns_ctx *ctx, const uint8_t *owner, const uint8_t *bytes) {
    const int place = target(owner);
    in_addr address;
    memcpy(&address, bytes, sizeof address);
    if (place < 0 || naddresses == kDelegatedMax || !may_lead_to(ctx, address)) return false;
    addresses[naddresses] = address;
    owners[naddresses++] = static_cast<uint8_t>(place);
    return true;
  }
  [[nodiscard]] bool has_address(unsigned place) const {
    return std::find(owners, owners + naddresses, place) != owners + naddresses;
  }
};

struct Freed {
  void operator()(dns_cdata *entry) const { dns_cdata_free(entry); }
};
using Entry = std::unique_ptr<dns_cdata, Freed>;

constexpr uint8_t kRoot[] = {0};

// journey returns the question's journey, which begins where it has none; null without memory.
Journey *journey(dns_query *q) {
  if (q->journey != nullptr) return q->journey;
  void *block = q->ctx->journeys.get();
  if (block != nullptr) q->journey = new (block) Journey;
  return q->journey;
}

// top is the journey of the question for whose sake all look-ups above this one are made.
Journey *top(Journey *journey) {
  return journey->top != nullptr ? journey->top : journey;
}

// start_over asks a question, which has left everything, of its present servers as if it were new.
void start_over(dns_query *q) {
  q->refused = q->unreached = 0;
  q->tries = q->pauses = 0;
  q->error = 0;
  q->over_tcp = q->turned_back = false;
  forget_manner(q);
  choose_first(q);
  enqueue(q);
  if (servers_of(q).empty())
    deliver(q, DNS_E_TEMPFAIL, nullptr, 0, 0);
  else
    (void)recall_failures(q);
}

void release_servers(dns_query *q) {
  for (unsigned i = 0; i < q->journey->nserv; ++i)
    q->ctx->server_table.release(q->journey->servers[i]);
  q->journey->nserv = 0;
}

// ---- delegations in packets and in the cache

// read_section calls `use` with each record of a section. False for a malformed one.
template <typename Use>
[[nodiscard]] bool read_section(std::span<const uint8_t> packet, int section, Use use) {
  size_t at = 0;
  Header header;
  if (!read_header(packet, &header) || !section_at(packet, section, &at)) return false;
  Reader reader(packet, at);
  Record record;
  for (unsigned left = header.count[section]; left > 0; --left) {
    if (!read_record(&reader, &record)) return false;
    if (record.cls == DNS_C_IN) use(record);
  }
  return true;
}

// read_delegation reads the referral to `zone` that servers of the zone `from` gave.
[[nodiscard]] bool read_delegation(const dns_ctx *ctx, std::span<const uint8_t> packet, const uint8_t *zone,
                                   const uint8_t *from, Delegation *delegation) {
  if (dns_dntodn(zone, delegation->zone, DNS_MAXDN) == 0) return false;
  const bool named = read_section(packet, DNS_S_NS, [&](const Record &record) {
    uint8_t dn[DNS_MAXDN];
    if (record.typ != DNS_T_NS || dns_dnequal(record.owner, zone) == 0) return;
    Reader data(packet, record.data_at);
    if (!data.name(dn)) return;
    delegation->add_target(dn);
    delegation->ttl = std::min(delegation->ttl, record.ttl);
  });
  return named && delegation->ntargets > 0 && read_section(packet, DNS_S_AR, [&](const Record &record) {
           if (record.typ == DNS_T_A && record.data.size() == sizeof(in_addr) && covers(from, record.owner) &&
               delegation->add_address(ctx, record.owner, record.data.data()))
             delegation->ttl = std::min(delegation->ttl, record.ttl);
         });
}

void set_delegation_key(dns_cdata *entry, const uint8_t *zone) {
  (void)dns_cdata_setdn(entry, zone);
  (void)dns_cdata_setcls(entry, kDelegationClass);
  (void)dns_cdata_settyp(entry, DNS_T_NS);
  (void)dns_cdata_setflags(entry, 0);
}

[[nodiscard]] Entry key_of_delegation(const uint8_t *zone) {
  Entry entry(dns_cdata_init(kMediumName));
  if (entry != nullptr) set_delegation_key(entry.get(), zone);
  return entry;
}

[[nodiscard]] bool add_record(dns_cdata *entry, const uint8_t *owner, dns_type typ, int32_t ttl, const void *data,
                              unsigned size) {
  dns_rr rr = {};
  uint8_t bytes[DNS_MAXDN];
  memcpy(bytes, data, size);
  (void)dns_dntodn(owner, rr.dnsrr_dn, DNS_MAXDN);
  rr.dnsrr_cls = kDelegationClass;
  rr.dnsrr_typ = typ;
  rr.dnsrr_ttl = ttl;
  rr.dnsrr_dsz = size;
  rr.dnsrr_dptr = bytes;
  rr.dnsrr_dend = bytes + size;
  return dns_cdata_addrr(entry, &rr, nullptr) == 0;
}

// keep_delegation puts a delegation into the referral cache. Without memory it is not kept.
void keep_delegation(dns_ctx *ctx, const Delegation &delegation) {
  if (ctx->referral_cache == nullptr || delegation.ttl <= 0) return;
  const Entry entry = key_of_delegation(delegation.zone);
  if (entry == nullptr) return;
  (void)dns_cdata_setttl(entry.get(), delegation.ttl);
  bool whole = true;
  for (unsigned i = 0; i < delegation.ntargets; ++i) {
    const uint8_t *target = delegation.targets[i];
    whole = whole && add_record(entry.get(), delegation.zone, DNS_T_NS, delegation.ttl, target, dns_dnlen(target));
  }
  for (unsigned i = 0; i < delegation.naddresses; ++i)
    whole = whole && add_record(entry.get(), delegation.targets[delegation.owners[i]], DNS_T_A, delegation.ttl,
                                &delegation.addresses[i], sizeof(in_addr));
  if (whole) (void)dns_cacher_put(ctx->referral_cache, entry.get(), wall(ctx));
}

// known_delegation finds the delegation of exactly this zone in the cache, if it is alive.
[[nodiscard]] bool known_delegation(dns_ctx *ctx, const uint8_t *zone, Delegation *delegation) {
  dns_cdata *entry = ctx->entry;
  set_delegation_key(entry, zone);
  if (dns_cacher_get(ctx->referral_cache, entry, wall(ctx)) <= 0) return false;
  if (dns_cdata_ttl(entry) < 0 || dns_dntodn(zone, delegation->zone, DNS_MAXDN) == 0) return false;
  delegation->ttl = dns_cdata_ttl(entry);
  uint8_t data[DNS_MAXDN];
  dns_rr rr = {};
  for (;;) {
    rr.dnsrr_dptr = data;
    rr.dnsrr_dsz = sizeof data;
    if (dns_cdata_nextrr(entry, &rr) <= 0) break;
    if (rr.dnsrr_typ == DNS_T_NS) delegation->add_target(data);
    if (rr.dnsrr_typ == DNS_T_A && rr.dnsrr_dsz == sizeof(in_addr)) delegation->add_address(ctx, rr.dnsrr_dn, data);
  }
  return delegation->ntargets > 0;
}

// ---- going on with a delegation

// take_servers makes the servers of a delegation those of a question that has left everything. False when none of them
// can be had.
[[nodiscard]] bool take_servers(dns_query *q, const Delegation &delegation) {
  Journey *journey = q->journey;
  dns_ctx *ctx = q->ctx;
  release_servers(q);
  for (unsigned i = 0; i < delegation.naddresses; ++i) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(ctx->options.port));
    address.sin_addr = delegation.addresses[i];
    Server *server = ctx->server_table.hold(address);
    if (server == nullptr) break;
    journey->servers[journey->nserv++] = server;
  }
  if (journey->nserv == 0) return false;
  memcpy(journey->zone, delegation.zone, sizeof journey->zone);
  q->server = 0;
  return true;
}

// install asks the question of the servers of a delegation, which may end it. False when none of them can be had.
[[nodiscard]] bool install(dns_query *q, const Delegation &delegation) {
  leave(q);
  q->state = State::resting;
  if (!take_servers(q, delegation)) return false;
  start_over(q);
  return true;
}

void look_up_next(dns_query *q);

// looked_up is the callback of a look-up: `data` is the question that waits for it.
void looked_up(dns_ctx *ctx, dns_query *lookup, void *result, unsigned, void *data) {
  auto *q = static_cast<dns_query *>(data);
  q->journey->lookup = nullptr;
  const auto *block = static_cast<const dns_rr_a4 *>(result);
  Delegation delegation;
  memcpy(delegation.zone, q->journey->coming, sizeof delegation.zone);
  if (dns_get_status(ctx) == DNS_E_NOERROR && block != nullptr) {
    delegation.ttl = std::min(q->journey->coming_ttl, block->dnsa4_ttl);
    delegation.add_target(dns_qdn(lookup));
    for (int i = 0; i < block->dnsa4_nrr; ++i)
      delegation.add_address(ctx, dns_qdn(lookup), reinterpret_cast<const uint8_t *>(&block->dnsa4_addr[i]));
  }
  if (delegation.naddresses > 0) keep_delegation(ctx, delegation);
  if (delegation.naddresses == 0 || !install(q, delegation)) look_up_next(q);
}

// look_up_next looks up the address of the next server of the delegation that is coming, or ends the question.
void look_up_next(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  Journey *journey = q->journey;
  leave(q);
  q->state = State::resting;
  ctx->resting.append(q);
  while (journey->ntargets > 0 && journey->depth < kDepthMax && top(journey)->lookups < kLookupsMax) {
    ++top(journey)->lookups;
    const uint8_t *target = journey->targets[--journey->ntargets];
    dns_query *lookup = dns_submit_dn_serv(ctx, target, DNS_C_IN, DNS_T_A, 0, nullptr, 0, dns_parse_a4, looked_up, q);
    if (lookup == nullptr) continue;
    Journey *own = dns::journey(lookup);
    if (own == nullptr) {
      drop(lookup);
      continue;
    }
    own->top = top(journey);
    own->depth = journey->depth + 1;
    journey->lookup = lookup;
    return;
  }
  deliver(q, q->error != 0 ? dns_status{q->error} : dns_status{DNS_E_TEMPFAIL}, nullptr, 0, 0);
}

// adopt goes on with a delegation: asks its servers, or looks up where they are. Servers without an address are looked
// up when those with one were of no use.
void adopt(dns_query *q, const Delegation &delegation) {
  Journey *journey = q->journey;
  memcpy(journey->coming, delegation.zone, sizeof journey->coming);
  journey->coming_ttl = delegation.ttl;
  journey->ntargets = 0;
  // A server inside the zone itself cannot be found by asking that zone.
  for (unsigned i = 0; i < delegation.ntargets && journey->ntargets < kTargetsMax; ++i)
    if (!delegation.has_address(i) && !covers(delegation.zone, delegation.targets[i]))
      memcpy(journey->targets[journey->ntargets++], delegation.targets[i], DNS_MAXDN);
  if (delegation.naddresses == 0 || !install(q, delegation)) look_up_next(q);
}

}  // namespace

const uint8_t *zone_of(const dns_query *q) {
  return q->journey != nullptr && q->journey->nserv > 0 ? q->journey->zone : nullptr;
}

unsigned aliases_left(const dns_query *q) {
  const unsigned passed = q->journey != nullptr ? q->journey->aliases : 0;
  return q->ctx->options.maxalias - std::min(q->ctx->options.maxalias, passed);
}

void begin_at_delegation(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  if (ctx->referral_cache == nullptr || !iterates(q)) return;
  for (const uint8_t *zone = q->ask; *zone != 0; zone += 1 + *zone) {
    Delegation delegation;
    if (!known_delegation(ctx, zone, &delegation) || delegation.naddresses == 0) continue;
    if (journey(q) == nullptr) return;
    q->journey->remembered = take_servers(q, delegation);
    q->journey->names_others = false;
    for (unsigned i = 0; i < delegation.ntargets; ++i)
      if (!delegation.has_address(i)) q->journey->names_others = true;
    return;
  }
}

bool begin_anew(dns_query *q) {
  Journey *journey = q->journey;
  if (journey == nullptr) return false;
  if (!std::exchange(journey->remembered, false)) {
    if (journey->ntargets == 0) return false;
    look_up_next(q);
    return true;
  }
  const Entry entry = key_of_delegation(journey->zone);
  if (entry != nullptr) (void)dns_cacher_delete(q->ctx->referral_cache, entry.get(), wall(q->ctx));
  leave(q);
  release_servers(q);
  start_over(q);
  return true;
}

bool has_other_servers(const dns_query *q) {
  const Journey *journey = q->journey;
  return journey != nullptr && (journey->remembered ? journey->names_others : journey->ntargets > 0);
}

bool ask_on(dns_query *q, std::span<const uint8_t> packet, size_t answers_at, const Chain &chain) {
  Journey *journey = dns::journey(q);
  if (journey == nullptr) return false;
  if (journey->passed == nullptr) {
    journey->passed = dns_cdata_init(kMediumName);
    if (journey->passed == nullptr || dns_cdata_setdn(journey->passed, q->dn) != 0) return false;
    (void)dns_cdata_setcls(journey->passed, q->cls);
    (void)dns_cdata_settyp(journey->passed, q->typ);
  }
  cdata_cut(journey->passed, journey->passed_end);
  if (cdata_append_chain(journey->passed, packet, answers_at, q->ask, chain, false) != DNS_E_NOERROR) return false;
  journey->passed_end = cdata_end(journey->passed);
  journey->aliases += chain.aliases;
  journey->ttl = std::min(journey->ttl, chain.ttl);
  leave(q);
  memcpy(journey->ask, chain.end, sizeof journey->ask);
  q->ask = journey->ask;
  q->ask_size = static_cast<uint8_t>(dns_dnlen(q->ask));
  release_servers(q);
  journey->ntargets = 0;
  journey->remembered = false;
  begin_at_delegation(q);
  start_over(q);
  return true;
}

bool follow_referral(dns_query *q, std::span<const uint8_t> packet, const uint8_t *zone) {
  const uint8_t *from = zone_of(q) != nullptr ? zone_of(q) : kRoot;
  const bool down = covers(zone, q->ask) && covers(from, zone) && dns_dnequal(from, zone) == 0;
  Delegation delegation;
  if (!iterates(q) || !down || journey(q) == nullptr || !read_delegation(q->ctx, packet, zone, from, &delegation))
    return false;
  if (++top(q->journey)->steps > q->ctx->options.maxloop) return false;
  q->journey->remembered = false;
  keep_delegation(q->ctx, delegation);
  adopt(q, delegation);
  return true;
}

dns_status complete(dns_query *q, std::span<const uint8_t> packet, size_t answers_at, const Chain &chain, int rcode,
                    int32_t ttl, std::span<const uint8_t> *whole) {
  dns_ctx *ctx = q->ctx;
  dns_cdata *entry = q->journey->passed;
  cdata_cut(entry, q->journey->passed_end);  // an answer that turned out to be of no use may stand there
  const dns_status status = cdata_append_chain(entry, packet, answers_at, q->ask, chain, true);
  if (status != DNS_E_NOERROR) return status;
  (void)dns_cdata_setrcode(entry, rcode);
  (void)dns_cdata_setttl(entry, std::min(ttl, q->journey->ttl));
  const int size = cdata_to_packet(entry, ctx->buffers->rebuilt, sizeof ctx->buffers->rebuilt);
  if (size < 0) return size;
  *whole = {ctx->buffers->rebuilt, static_cast<size_t>(size)};
  return DNS_E_NOERROR;
}

void abandon_lookup(dns_query *q) {
  if (q->journey == nullptr || q->journey->lookup == nullptr) return;
  drop(std::exchange(q->journey->lookup, nullptr));
}

void end_journey(dns_query *q) {
  if (q->journey == nullptr) return;
  abandon_lookup(q);
  release_servers(q);
  dns_cdata_free(q->journey->passed);
  q->ctx->journeys.put(std::exchange(q->journey, nullptr));
}

void end_direct(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  q->flags = (q->flags & ~unsigned{DNS_DCACHE}) | DNS_RCRS;
  if (ctx->dc != nullptr) {
    const Hold hold(ctx);
    ctx->dc(ctx, q, DNS_DC_CHFAIL, nullptr, q->data);
    if (q->state == State::cancelled) return;
  }
  leave(q);
  release_own_servers(q);
  start_over(q);
}

}  // namespace dns
