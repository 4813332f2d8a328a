// cost_zone.h - the zone that gives servers their costs (dns_set_cost_zone). The engine's own queries look them up.
// Such queries do not keep the loop awake: their answers are read when other queries read the sockets, or once the next
// query wakes the engine.
#ifndef DNS_ENGINE_COST_ZONE_H
#define DNS_ENGINE_COST_ZONE_H

#include <dns_engine.h>

namespace dns {

struct Server;

// lookup_cost asks the cost zone for a server's cost once the known one has expired. The engine's own queries do not
// cause further ones.
void lookup_cost(const dns_query *q, Server *server);

// end_rating releases what a finished lookup of a cost has held. drop_ratings drops all such lookups.
void end_rating(dns_query *q);
void drop_ratings(dns_ctx *ctx);

}  // namespace dns

#endif  // DNS_ENGINE_COST_ZONE_H
