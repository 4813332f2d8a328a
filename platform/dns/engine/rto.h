// rto.h - retransmission timeouts (RFC 6298): how long an attempt is waited for, and what its answer says of the
// server's round-trip time.
#ifndef DNS_ENGINE_RTO_H
#define DNS_ENGINE_RTO_H

#include <stdint.h>

#include <dns_engine.h>

#include "arrival.h"

namespace dns {

// attempt_timeout_us returns how long the present attempt is waited for.
[[nodiscard]] int64_t attempt_timeout_us(const dns_query *q);

// wait_for_answer has a query, which has just left, wait. rearm has it wait on where its server's RTO has grown since,
// or is not known yet; false when its time is over.
void wait_for_answer(dns_query *q);
[[nodiscard]] bool rearm(dns_query *q);

// measure takes the round trip of an answer into the estimate of the server that sent it (Karn's rule included).
void measure(dns_query *q, const Arrival &arrival);

// answering returns the set of the query's servers that have an answer's address: the one that was asked, or none for
// an expected stranger, whose answer then counts as that of the present attempt's server.
[[nodiscard]] uint32_t answering(const dns_query *q, const sockaddr_in &peer);

}  // namespace dns

#endif  // DNS_ENGINE_RTO_H
