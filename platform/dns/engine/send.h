// send.h - packets out.
#ifndef DNS_ENGINE_SEND_H
#define DNS_ENGINE_SEND_H

#include <dns_engine.h>
#include <stdint.h>

#include <span>

namespace dns {

// build writes the packet that asks `q` of its present server; its length.
[[nodiscard]] size_t build(dns_query *q, std::span<uint8_t> packet);

// flush sends every query that is due. Queries whose socket is full stay until it drains.
void flush(dns_ctx *ctx);

}  // namespace dns

#endif  // DNS_ENGINE_SEND_H
