// query_packet.h - the packet of a query to its present server.
#ifndef DNS_ENGINE_QUERY_PACKET_H
#define DNS_ENGINE_QUERY_PACKET_H

#include <stddef.h>
#include <stdint.h>

#include <span>

#include "query.h"

namespace dns {

// build writes the packet of `q` to its present server; returns its length.
[[nodiscard]] size_t build(dns_query *q, std::span<uint8_t> packet);

}  // namespace dns

#endif  // DNS_ENGINE_QUERY_PACKET_H
