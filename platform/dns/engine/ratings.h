// ratings.h - the cost zone of a context, and the open lookups of servers' costs.
//
// It is data alone, of the thread that drives the context, and nothing guards it; cost_zone.h makes the lookups.
#ifndef DNS_ENGINE_RATINGS_H
#define DNS_ENGINE_RATINGS_H

#include <stdint.h>

#include <dns_engine.h>

#include "bounds.h"

namespace dns {

struct Server;

struct CostZone {
  uint8_t zone[DNS_MAXDN] = {};  // the root: there is none
  // The open lookups; a free place has no server.
  struct Rating {
    dns_query *lookup;
    Server *server;
  };
  Rating ratings[kRatingsMax] = {};
  unsigned open = 0;

  [[nodiscard]] bool is_set() const { return zone[0] != 0; }
};

}  // namespace dns

#endif  // DNS_ENGINE_RATINGS_H
