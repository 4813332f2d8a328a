// resolving.h - what the rest of the engine asks about a query's resolution, and its release; resolution.h has the
// steps.
//
// These functions run on the thread that drives the context, and nothing is locked. They never send, and never end a
// query.
#ifndef DNS_ENGINE_RESOLVING_H
#define DNS_ENGINE_RESOLVING_H

#include "context.h"

namespace dns {

// zone_of returns the zone that the query's present servers are authoritative for; null for the root. cnames_left
// returns how many more CNAMEs may be followed. passed_cnames tells whether CNAMEs were followed, so that an answer is
// only the last part of the whole one. is_lookup tells whether a query is the engine's own lookup of a server's
// address.
[[nodiscard]] const uint8_t *zone_of(const dns_query *q);
[[nodiscard]] unsigned cnames_left(const dns_query *q);
[[nodiscard]] bool passed_cnames(const dns_query *q);
[[nodiscard]] bool is_lookup(const dns_query *q);

// release_servers gives back the servers of a resolution. end_resolution releases all that a resolution holds, except
// the lookup that it may wait for.
void release_servers(dns_query *q);
void end_resolution(dns_query *q);

}  // namespace dns

#endif  // DNS_ENGINE_RESOLVING_H
