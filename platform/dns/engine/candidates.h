// candidates.h - the servers that a query may go to.
#ifndef DNS_ENGINE_CANDIDATES_H
#define DNS_ENGINE_CANDIDATES_H

#include "context.h"

namespace dns {

// Candidates are the servers, by their places, that have not refused a query: those that it may go to, and those that
// are marked down as long as there are others.
struct Candidates {
  uint32_t open = 0;
  uint32_t down = 0;
};
[[nodiscard]] Candidates candidates(const dns_query *q);

// is_unreached tells whether none of the servers that are left could be reached.
[[nodiscard]] bool is_unreached(const dns_query *q);

}  // namespace dns

#endif  // DNS_ENGINE_CANDIDATES_H
