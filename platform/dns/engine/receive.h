// receive.h - reads packets, and finds the query that each answers.
#ifndef DNS_ENGINE_RECEIVE_H
#define DNS_ENGINE_RECEIVE_H

#include <stdint.h>

#include <span>

#include <address.h>
#include <dns_engine.h>

namespace dns {

// take_packet gives a packet to the query that it answers; false when there is none.
bool take_packet(dns_ctx *ctx, std::span<uint8_t> packet, const Address &peer, int slot);

// receive reads what has arrived on a UDP socket.
void receive(dns_ctx *ctx, int slot);

// take_returned reads which queries the network has sent back as undeliverable on a UDP socket, and moves them on.
// False when there was none.
bool take_returned(dns_ctx *ctx, int slot);

}  // namespace dns

#endif  // DNS_ENGINE_RECEIVE_H
