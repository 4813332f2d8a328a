// coalesce.h - identical queries that are open at the same time are asked once: the first is the leader, the others are
// coalesced with it and share its outcome.
#ifndef DNS_ENGINE_COALESCE_H
#define DNS_ENGINE_COALESCE_H

#include <dns_engine.h>
#include <list.h>

namespace dns {

// coalesce has a query wait for an identical one that is open: true. Else it may be a leader from now on.
[[nodiscard]] bool coalesce(dns_query *q);

// stop_leading takes a query out of the table of leaders and moves those coalesced with it to `coalesced`; promote
// makes the first of them the leader of the others, and has it sent.
void stop_leading(dns_query *q, base::Link *coalesced);
void promote(base::Link *coalesced);

}  // namespace dns

#endif  // DNS_ENGINE_COALESCE_H
