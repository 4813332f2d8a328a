// congestion.h - what answers and losses tell of the way to a server, and of the host's own sockets.
//
// These functions run on the thread that drives the context, and nothing is locked. They change estimates and windows
// and let parked queries leave; they end no attempt.
#ifndef DNS_ENGINE_CONGESTION_H
#define DNS_ENGINE_CONGESTION_H

#include "context.h"

namespace dns {

// note_answer takes an answer by UDP to the present attempt into the server's window. note_loss is for an attempt by
// UDP that timed out: its answer was dropped at the host's own socket, or the server was sent too much at once; then
// the attempt does not count. Otherwise the packet was lost, or the server is silent.
void note_answer(dns_query *q);
[[nodiscard]] bool note_loss(dns_query *q);

}  // namespace dns

#endif  // DNS_ENGINE_CONGESTION_H
