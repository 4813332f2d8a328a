// choice.h - which server a query goes to, first and then; which servers are marked down, and how they recover.
#ifndef DNS_ENGINE_CHOICE_H
#define DNS_ENGINE_CHOICE_H

#include "context.h"

namespace dns {

// choose_first turns a query that is to be asked as if it were new to the server that it is asked of first, choose_next
// to its next one: false when every one has refused it. turn_away turns one that is to be sent away from a server that
// has been marked down meanwhile.
void choose_first(dns_query *q);
[[nodiscard]] bool choose_next(dns_query *q);
void turn_away(dns_query *q);

// missed notes that nothing has come back from the server of the present attempt.
void missed(dns_query *q);

// recall_failures passes over servers that failed at the query a moment ago, if any did; remember_failure notes that
// the one at `place` did. False when every one has.
[[nodiscard]] bool recall_any_failures(dns_query *q);
[[nodiscard]] inline bool recall_failures(dns_query *q) {
  // A cache may have learned meanwhile what its server was asked for in vain.
  if (!q->ctx->failures.fresh(q->ctx->now_us) || (q->question.flags & DNS_DCACHE) != 0) return true;
  return recall_any_failures(q);
}
void remember_failure(const dns_query *q, unsigned place, dns_status status);

}  // namespace dns

#endif  // DNS_ENGINE_CHOICE_H
