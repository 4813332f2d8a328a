// resolution.h - queries that one answer does not end: a CNAME chain that leaves the answer is asked on, a referral is
// followed to the servers of the zone below, and their addresses are looked up where they came without glue.
#ifndef DNS_ENGINE_RESOLUTION_H
#define DNS_ENGINE_RESOLUTION_H

#include <stdint.h>

#include <span>

#include <cdata.h>
#include <chain.h>

#include "context.h"

namespace dns {

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

// no_server_left ends a query that every server has failed a moment ago, unless its zone has servers that are not known
// yet.
void no_server_left(dns_query *q);

// ask_on asks for the name that a CNAME chain led to. follow_referral asks the servers of `zone`, which the packet
// refers to. False when the query cannot go on so: then nothing has changed.
[[nodiscard]] bool ask_on(dns_query *q, std::span<const uint8_t> packet, size_t answers_at, const Chain &chain);
[[nodiscard]] bool follow_referral(dns_query *q, std::span<const uint8_t> packet, const uint8_t *zone);

// complete adds the last answer to the CNAMEs that were passed, in the resolution's entry, and makes one packet of all.
[[nodiscard]] dns_status complete(dns_query *q, std::span<const uint8_t> packet, size_t answers_at, const Chain &chain,
                                  int rcode, int32_t ttl, std::span<const uint8_t> *whole);

}  // namespace dns

#endif  // DNS_ENGINE_RESOLUTION_H
