// candidates.h - the servers that a query may go to.
//
// These functions run on the thread that drives the context, and nothing is locked. They only read: choice.h chooses
// among the candidates.
#ifndef DNS_ENGINE_CANDIDATES_H
#define DNS_ENGINE_CANDIDATES_H

#include "context.h"

namespace dns {

// Candidates are the servers that have not refused a query, as masks of their places: `open` are those that it may go
// to, `down` those that are marked down. If all are marked down, all are open. Servers to which the host had no
// route a moment ago (route.h) are neither while one is up, and while one is marked down if the refusal was their own.
struct Candidates {
  uint32_t open = 0;
  uint32_t down = 0;
};
[[nodiscard]] Candidates candidates(const dns_query *q);

// is_unreached tells whether none of the open candidates could be reached.
[[nodiscard]] bool is_unreached(const dns_query *q);

}  // namespace dns

#endif  // DNS_ENGINE_CANDIDATES_H
