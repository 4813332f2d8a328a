// direct_cache.h - queries that first ask servers for what these hold in their caches (DNS_DCACHE).
#ifndef DNS_ENGINE_DIRECT_CACHE_H
#define DNS_ENGINE_DIRECT_CACHE_H

#include <dns_engine.h>

namespace dns {

// end_direct ends the asking of servers for what they hold, and has the context's servers asked for recursion.
void end_direct(dns_query *q);

}  // namespace dns

#endif  // DNS_ENGINE_DIRECT_CACHE_H
