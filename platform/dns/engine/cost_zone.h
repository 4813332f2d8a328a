// cost_zone.h - the zone that gives servers their costs (dns_set_cost_zone). Its lookups are queries of the engine's
// own. The loop rests though some are open: their answers are taken where something still reads the sockets, else they
// wait until the next query wakes the engine.
#ifndef DNS_ENGINE_COST_ZONE_H
#define DNS_ENGINE_COST_ZONE_H

#include <dns_engine.h>

namespace dns {

struct Server;

// lookup_cost asks the cost zone for a server's cost once the known one has expired. A query of the engine's own does
// not cause further ones.
void lookup_cost(const dns_query *q, Server *server);

// end_rating releases what a lookup of a cost, which is over, has held. drop_ratings drops all of them.
void end_rating(dns_query *q);
void drop_ratings(dns_ctx *ctx);

}  // namespace dns

#endif  // DNS_ENGINE_COST_ZONE_H
