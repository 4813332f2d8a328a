// outcome.h - what an answer means for its query.
#ifndef DNS_ENGINE_OUTCOME_H
#define DNS_ENGINE_OUTCOME_H

#include <dns_engine.h>
#include <message.h>

#include "arrival.h"

namespace dns {

// take_answer decides what a packet that passed every check on its origin means for its query. `place` is that of the
// server that it answers for.
void take_answer(dns_query *q, const Arrival &arrival, const Header &header, unsigned place);

}  // namespace dns

#endif  // DNS_ENGINE_OUTCOME_H
