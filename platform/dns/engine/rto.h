// rto.h - retransmission timeouts (RFC 6298): the timeout of each attempt, and the round-trip time measured by its
// answer.
#ifndef DNS_ENGINE_RTO_H
#define DNS_ENGINE_RTO_H

#include <stdint.h>

#include <dns_engine.h>

#include "arrival.h"

namespace dns {

// attempt_timeout_us returns the timeout of the present attempt.
[[nodiscard]] int64_t attempt_timeout_us(const dns_query *q);

// wait_for_answer starts the timer of a query that has just been sent. rearm restarts it if the server's RTO has grown
// since, or is still unknown; false when the attempt has timed out.
void wait_for_answer(dns_query *q);
[[nodiscard]] bool rearm(dns_query *q);

// measure takes the round trip of an answer into the estimate of the server that sent it (Karn's rule included).
void measure(dns_query *q, const Arrival &arrival);

// answering returns the set of the query's servers that have an answer's address. It is empty for an address of
// dns_add_expserv_s, whose answer counts as the present server's.
[[nodiscard]] uint32_t answering(const dns_query *q, const Address &peer);

}  // namespace dns

#endif  // DNS_ENGINE_RTO_H
