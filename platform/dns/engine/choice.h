// choice.h - which server a query goes to first and next; which servers are marked down, and how they recover.
#ifndef DNS_ENGINE_CHOICE_H
#define DNS_ENGINE_CHOICE_H

#include "context.h"

namespace dns {

// choose_first sets the first server of a query that starts, or starts over; choose_next the next one, false when every
// server has refused the query or could not be asked beside those. turn_away chooses another server for a query that
// waits to be sent to a server that has been marked down meanwhile.
void choose_first(dns_query *q);
[[nodiscard]] bool choose_next(dns_query *q);
void turn_away(dns_query *q);

// missed notes that the present attempt's server has not answered.
void missed(dns_query *q);

// recall_failures passes over servers that failed at the query in the last kFailureUs; false when every server did.
// remember_failure notes that the one at `place` failed.
[[nodiscard]] bool recall_any_failures(dns_query *q);
[[nodiscard]] inline bool recall_failures(dns_query *q) {
  // A server that is asked for its cache (DNS_DCACHE) may have the answer by now.
  if (!q->ctx->failures.fresh(q->ctx->now_us) || (q->question.flags & DNS_DCACHE) != 0) return true;
  return recall_any_failures(q);
}
void remember_failure(const dns_query *q, unsigned place, dns_status status);

}  // namespace dns

#endif  // DNS_ENGINE_CHOICE_H
