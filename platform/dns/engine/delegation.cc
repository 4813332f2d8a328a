// delegation.cc - see delegation.h.
#include "delegation.h"

#include <string.h>

#include <algorithm>
#include <memory>

#include <cacher.h>
#include <cdata.h>
#include <cursor.h>
#include <dns_wire.h>
#include <message.h>
#include <name.h>
#include <record.h>

#include "context.h"

namespace dns {
namespace {

// Delegations are in the referral cache under a class of their own (RFC 6895, 3.2: private use), so that none is ever
// taken for an answer to an NS query, which only the zone itself may give (RFC 2181, 5.4.1).
constexpr dns_class kDelegationClass = 0xFF01;

// may_lead_to tells whether a delegation to an address is followed. One to this host or its link would let untrusted
// peers direct queries at services there; it is followed only if the context's own servers are in the same place: on
// this host, or on an IPv4 link. No record says on which link a link-local IPv6 address is.
bool may_lead_to(const dns_ctx *ctx, const Address &address) {
  const Reach reach = reach_of(address);
  if (reach == Reach::network) return true;
  if (reach == Reach::nowhere || (reach == Reach::link && address.family == Family::ipv6)) return false;
  return std::ranges::any_of(std::span(ctx->servers, ctx->nserv), [&](const Server *server) {
    return reach_of(server->address) == reach && (reach == Reach::host || server->address.family == address.family);
  });
}

// address_in returns the address in a record's data, one of no family for another record.
Address address_in(dns_type typ, std::span<const uint8_t> data) {
  if (typ == DNS_T_A && data.size() == kIpv4Size) return ipv4(data.first<kIpv4Size>(), 0);
  if (typ == DNS_T_AAAA && data.size() == kIpv6Size) return ipv6(data.first<kIpv6Size>(), 0);
  return {};
}

struct Freed {
  void operator()(dns_cdata *entry) const { dns_cdata_free(entry); }
};
using Entry = std::unique_ptr<dns_cdata, Freed>;

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

}  // namespace

int Delegation::target(const uint8_t *dn) const {
  for (unsigned i = 0; i < ntargets; ++i)
    if (dns_dnequal(targets[i], dn) != 0) return static_cast<int>(i);
  return -1;
}

void Delegation::add_target(const uint8_t *dn) {
  if (ntargets < kDelegatedMax && target(dn) < 0 && dns_dntodn(dn, targets[ntargets], DNS_MAXDN) != 0) ++ntargets;
}

bool Delegation::add_address(const dns_ctx *ctx, const uint8_t *owner, dns_type typ, std::span<const uint8_t> data) {
  const Address address = address_in(typ, data);
  const int place = target(owner);
  const auto known = std::span(addresses).first(naddresses);
  const auto of_family = std::ranges::count(known, address.family, &Address::family);
  if (place < 0 || of_family == kDelegatedMax || !may_lead_to(ctx, address)) return false;
  addresses[naddresses] = address;
  owners[naddresses++] = static_cast<uint8_t>(place);
  return true;
}

bool Delegation::has_address(unsigned place, Family family) const {
  for (unsigned i = 0; i < naddresses; ++i)
    if (owners[i] == place && addresses[i].family == family) return true;
  return false;
}

bool read_delegation(const dns_ctx *ctx, std::span<const uint8_t> packet, const uint8_t *zone, const uint8_t *from,
                     Delegation *delegation) {
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
           if (covers(from, record.owner) && delegation->add_address(ctx, record.owner, record.typ, record.data))
             delegation->ttl = std::min(delegation->ttl, record.ttl);
         });
}

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
  for (unsigned i = 0; i < delegation.naddresses; ++i) {
    const Address &address = delegation.addresses[i];
    const dns_type typ = address.family == Family::ipv6 ? DNS_T_AAAA : DNS_T_A;
    whole = whole && add_record(entry.get(), delegation.targets[delegation.owners[i]], typ, delegation.ttl,
                                address.octets, static_cast<unsigned>(address.ip().size()));
  }
  if (whole) (void)dns_cacher_put(ctx->referral_cache, entry.get(), wall(ctx));
}

bool known_delegation(dns_ctx *ctx, const uint8_t *zone, Delegation *delegation) {
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
    if (rr.dnsrr_typ != DNS_T_NS) delegation->add_address(ctx, rr.dnsrr_dn, rr.dnsrr_typ, {data, rr.dnsrr_dsz});
  }
  return delegation->ntargets > 0;
}

void forget_delegation(dns_ctx *ctx, const uint8_t *zone) {
  const Entry entry = key_of_delegation(zone);
  if (entry != nullptr) (void)dns_cacher_delete(ctx->referral_cache, entry.get(), wall(ctx));
}

}  // namespace dns
