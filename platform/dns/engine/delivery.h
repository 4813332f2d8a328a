// delivery.h - the end of a query: delivered to its callback, or dropped.
#ifndef DNS_ENGINE_DELIVERY_H
#define DNS_ENGINE_DELIVERY_H

#include <dns_engine.h>

namespace dns {

// deliver ends a query and those coalesced with it: takes it out of every list, calls back, and releases it.
void deliver(dns_query *q, dns_status status, void *result, unsigned size, unsigned sflags);

// drop ends a query without calling back.
void drop(dns_query *q);

// release frees a query's record, which is in no list. release_own_servers frees its list of servers, so that it goes
// to the context's from now on.
void release(dns_query *q);
void release_own_servers(dns_query *q);

}  // namespace dns

#endif  // DNS_ENGINE_DELIVERY_H
