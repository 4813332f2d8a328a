// outcome.h - what an answer means for its query.
#ifndef DNS_ENGINE_OUTCOME_H
#define DNS_ENGINE_OUTCOME_H

#include <dns_engine.h>
#include <dns_wire.h>

#include "arrival.h"

namespace dns {

// take_answer decides what a packet that passed every check on its origin means for its query. `place` is that of the
// server that it answers for.
void take_answer(dns_query *q, const Arrival &arrival, const Header &header, unsigned place);

// The statuses that are answers: records, or that there are none; and those of them that are negative.
[[nodiscard]] constexpr bool is_negative(dns_status status) {
  return status == DNS_E_NXDOMAIN || status == DNS_E_NODATA;
}
[[nodiscard]] constexpr bool is_answer(dns_status status) {
  return status == DNS_E_NOERROR || is_negative(status);
}

}  // namespace dns

#endif  // DNS_ENGINE_OUTCOME_H
