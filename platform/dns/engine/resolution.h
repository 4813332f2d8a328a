// resolution.h - resolutions: queries that need more than one answer. A CNAME chain that leaves its answer is queried
// further, a referral is followed to the servers of the zone below, and the addresses of servers without glue are
// looked up.
#ifndef DNS_ENGINE_RESOLUTION_H
#define DNS_ENGINE_RESOLUTION_H

#include <stdint.h>

#include <span>

#include <cdata.h>
#include <chain.h>

#include "context.h"

namespace dns {

// begin_at_delegation gives a query the servers of the closest cached delegation above its name. The query has left
// everything, or is still in `queued`.
void begin_at_delegation(dns_query *q);

// begin_anew continues after a query's servers were of no use. It forgets a cached delegation and starts over at the
// context's servers, or it looks up further addresses of the zone's servers. False when there are neither.
// has_other_servers tells whether there are such addresses to look up. start_over sends a query, which has left
// everything, to its present servers as if it were new, with the status of the last error that servers answered with.
[[nodiscard]] bool begin_anew(dns_query *q);
[[nodiscard]] bool has_other_servers(const dns_query *q);
void start_over(dns_query *q, dns_status error = DNS_E_NOERROR);

// no_server_left ends a query at which every server failed a moment ago, unless its zone has further servers to look
// up.
void no_server_left(dns_query *q);

// ask_on continues a query with the name that a CNAME chain led to. follow_referral continues it at the servers of
// `zone`, to which the packet refers. False when that is impossible; the query then continues as before.
[[nodiscard]] bool ask_on(dns_query *q, std::span<const uint8_t> packet, size_t answers_at, const Chain &chain);
[[nodiscard]] bool follow_referral(dns_query *q, std::span<const uint8_t> packet, const uint8_t *zone);

// complete joins the last answer to the CNAMEs that were followed, in the resolution's entry, and makes one packet of
// both.
[[nodiscard]] dns_status complete(dns_query *q, std::span<const uint8_t> packet, size_t answers_at, const Chain &chain,
                                  int rcode, int32_t ttl, std::span<const uint8_t> *whole);

}  // namespace dns

#endif  // DNS_ENGINE_RESOLUTION_H
