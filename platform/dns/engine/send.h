// send.h - sends what is due.
#ifndef DNS_ENGINE_SEND_H
#define DNS_ENGINE_SEND_H

#include <dns_engine.h>

namespace dns {

// flush sends every query that is due. Queries whose socket is full stay until it drains.
void flush(dns_ctx *ctx);

}  // namespace dns

#endif  // DNS_ENGINE_SEND_H
