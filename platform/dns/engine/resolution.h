// resolution.h - queries that one answer does not end: a CNAME chain that leaves the answer is asked on, a referral is
// followed to the servers of the zone below, and their addresses are looked up where they came without glue.
#ifndef DNS_ENGINE_RESOLUTION_H
#define DNS_ENGINE_RESOLUTION_H

#include <cdata.h>
#include <dns_wire.h>
#include <stdint.h>

#include <span>

#include "bounds.h"

namespace dns {

struct Server;

// Resolution is what a query remembers once an answer has sent it on.
struct Resolution {
  uint8_t ask[DNS_MAXDN];
  uint8_t zone[DNS_MAXDN];    // which `servers` answer for
  uint8_t coming[DNS_MAXDN];  // the zone that was last referred to
  int32_t coming_ttl = 0;
  uint8_t targets[kTargetsMax][DNS_MAXDN];  // its servers whose addresses may still be looked up
  unsigned ntargets = 0;
  unsigned nserv = 0;  // 0: the context's servers, or the query's own
  Server *servers[kDelegatedMax];
  bool remembered = false;      // the servers are those of a cached delegation
  bool names_others = false;    // which names servers without an address too
  dns_cdata *passed = nullptr;  // the CNAMEs that were passed, under the query's own key
  CdataEnd passed_end;          // where they end in it
  int32_t ttl = INT32_MAX;      // the least of theirs
  unsigned cnames = 0;
  unsigned steps = 0;           // referrals followed, by lookups too
  unsigned lookups = 0;         // made for its sake
  unsigned depth = 0;           // of a lookup: how many queries wait for it, one for the other
  Resolution *top = nullptr;    // of a lookup: the resolution of the first of them
  dns_query *lookup = nullptr;  // that it waits for
};

// zone_of returns the zone that the query's present servers speak for; null for the root. cnames_left returns how many
// CNAMEs may yet be passed; passed_cnames tells whether the answer at hand is only the last part of the whole answer.
// is_lookup tells whether a query is the engine's own, which looks for the address of a server.
[[nodiscard]] const uint8_t *zone_of(const dns_query *q);
[[nodiscard]] unsigned cnames_left(const dns_query *q);
[[nodiscard]] bool passed_cnames(const dns_query *q);
[[nodiscard]] bool is_lookup(const dns_query *q);

// begin_at_delegation makes the servers of the nearest zone above its name that is remembered those of a query that is
// in no list but `queued`.
void begin_at_delegation(dns_query *q);

// begin_anew goes on when a query's servers were of no use: forgets remembered ones and asks the context's servers, or
// looks up those of the zone's servers that came without an address. False when there is nothing of either.
// has_other_servers tells whether the zone of the query's servers has further ones, whose addresses are not known.
// start_over has a query, which has left everything, ask its present servers as if it were new.
[[nodiscard]] bool begin_anew(dns_query *q);
[[nodiscard]] bool has_other_servers(const dns_query *q);
void start_over(dns_query *q);

// ask_on asks for the name that a CNAME chain led to. follow_referral asks the servers of `zone`, which the packet
// refers to. False when the query cannot go on so: then nothing has changed.
[[nodiscard]] bool ask_on(dns_query *q, std::span<const uint8_t> packet, size_t answers_at, const Chain &chain);
[[nodiscard]] bool follow_referral(dns_query *q, std::span<const uint8_t> packet, const uint8_t *zone);

// complete adds the last answer to the CNAMEs that were passed, in the resolution's entry, and makes one packet of all.
[[nodiscard]] dns_status complete(dns_query *q, std::span<const uint8_t> packet, size_t answers_at, const Chain &chain,
                                  int rcode, int32_t ttl, std::span<const uint8_t> *whole);

// abandon_lookup cancels the lookup that a query waits for; end_resolution releases all that it has remembered.
void abandon_lookup(dns_query *q);
void end_resolution(dns_query *q);

}  // namespace dns

#endif  // DNS_ENGINE_RESOLUTION_H
