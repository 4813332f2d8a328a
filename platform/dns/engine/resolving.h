// resolving.h - what is known of a query that an answer has sent on, and the release of it.
#ifndef DNS_ENGINE_RESOLVING_H
#define DNS_ENGINE_RESOLVING_H

#include "context.h"

namespace dns {

// zone_of returns the zone that the query's present servers speak for; null for the root. cnames_left returns how many
// CNAMEs may yet be passed; passed_cnames tells whether the answer at hand is only the last part of the whole answer.
// is_lookup tells whether a query is the engine's own, which looks for the address of a server.
[[nodiscard]] const uint8_t *zone_of(const dns_query *q);
[[nodiscard]] unsigned cnames_left(const dns_query *q);
[[nodiscard]] bool passed_cnames(const dns_query *q);
[[nodiscard]] bool is_lookup(const dns_query *q);

// release_servers gives back the servers of a resolution. end_resolution releases all that a query has remembered; the
// lookup that it may wait for is not its own.
void release_servers(dns_query *q);
void end_resolution(dns_query *q);

}  // namespace dns

#endif  // DNS_ENGINE_RESOLVING_H
