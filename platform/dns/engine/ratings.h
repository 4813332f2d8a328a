// ratings.h - the cost zone that is set, and its lookups that are open.
#ifndef DNS_ENGINE_RATINGS_H
#define DNS_ENGINE_RATINGS_H

#include <stdint.h>

#include <dns_engine.h>

#include "bounds.h"

namespace dns {

struct Server;

struct CostZone {
  uint8_t zone[DNS_MAXDN] = {};  // the root: there is none
  // Lookups that are open, free where there is no server.
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
