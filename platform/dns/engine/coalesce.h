// coalesce.h - coalesced queries: of identical queries that are open at the same time only the first, the leader, is
// sent. The others wait and share its outcome.
#ifndef DNS_ENGINE_COALESCE_H
#define DNS_ENGINE_COALESCE_H

#include <dns_engine.h>
#include <list.h>

namespace dns {

// coalesce has a query wait for an identical open one and returns true; otherwise the query may lead from now on.
[[nodiscard]] bool coalesce(dns_query *q);

// stop_leading takes a query out of the table of leaders and moves those coalesced with it to `coalesced`; promote
// makes the first of them the leader of the others, and has it sent.
void stop_leading(dns_query *q, base::Link *coalesced);
void promote(base::Link *coalesced);

}  // namespace dns

#endif  // DNS_ENGINE_COALESCE_H
