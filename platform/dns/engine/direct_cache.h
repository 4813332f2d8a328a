// direct_cache.h - queries that first ask servers for what is in their caches (DNS_DCACHE).
#ifndef DNS_ENGINE_DIRECT_CACHE_H
#define DNS_ENGINE_DIRECT_CACHE_H

#include <dns_engine.h>

namespace dns {

// end_direct ends this first phase and sends the query to the context's servers, for recursion.
void end_direct(dns_query *q);

}  // namespace dns

#endif  // DNS_ENGINE_DIRECT_CACHE_H
