// delivery.h - the end of a query: its outcome delivered, or none.
#ifndef DNS_ENGINE_DELIVERY_H
#define DNS_ENGINE_DELIVERY_H

#include <dns_engine.h>

namespace dns {

// deliver ends a query: takes it out of every list, calls back, releases it; and ends those coalesced with it.
void deliver(dns_query *q, dns_status status, void *result, unsigned size, unsigned sflags);

// drop ends a query without calling back.
void drop(dns_query *q);

// release gives back a record that is in no list, release_own_servers its list of servers, so that it asks the
// context's from now on.
void release(dns_query *q);
void release_own_servers(dns_query *q);

}  // namespace dns

#endif  // DNS_ENGINE_DELIVERY_H
