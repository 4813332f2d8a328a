// delegation.h - the servers of a zone: read from a referral, and kept in the referral cache.
//
// Of the glue in a referral only in-bailiwick addresses are used (RFC 5452, section 6).
#ifndef DNS_ENGINE_DELEGATION_H
#define DNS_ENGINE_DELEGATION_H

#include <stdint.h>

#include <span>

#include <address.h>

#include "bounds.h"

namespace dns {

// Delegation is what a referral says: the zone, its servers' names, and their glue.
struct Delegation {
  uint8_t zone[DNS_MAXDN];
  int32_t ttl = INT32_MAX;
  unsigned ntargets = 0;
  unsigned naddresses = 0;
  uint8_t targets[kDelegatedMax][DNS_MAXDN];
  Address addresses[kGlueMax];  // without a port
  uint8_t owners[kGlueMax];     // the target that each address belongs to

  // target returns the place of a server's name, below 0 for a name that is none.
  [[nodiscard]] int target(const uint8_t *dn) const;
  void add_target(const uint8_t *dn);
  // add_address takes an address of `owner` from the data of an A or AAAA record; false for one that is not taken.
  bool add_address(const dns_ctx *ctx, const uint8_t *owner, dns_type typ, std::span<const uint8_t> data);
  [[nodiscard]] bool has_address(unsigned place, Family family) const;
};

// read_delegation reads the referral to `zone` that servers of the zone `from` gave.
[[nodiscard]] bool read_delegation(const dns_ctx *ctx, std::span<const uint8_t> packet, const uint8_t *zone,
                                   const uint8_t *from, Delegation *delegation);

// keep_delegation puts a delegation into the referral cache, unless memory is short. known_delegation finds the one of
// exactly this zone, if it has not expired. forget_delegation deletes it.
void keep_delegation(dns_ctx *ctx, const Delegation &delegation);
[[nodiscard]] bool known_delegation(dns_ctx *ctx, const uint8_t *zone, Delegation *delegation);
void forget_delegation(dns_ctx *ctx, const uint8_t *zone);

}  // namespace dns

#endif  // DNS_ENGINE_DELEGATION_H
