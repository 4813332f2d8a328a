// block.h - record blocks (kavo/dns_rr.h), laid out from an answer packet.
//
// Stateless functions; any thread may call them, on a packet and a buffer that no other thread changes. The packet is
// untrusted. A block points into itself only, so it outlives the packet. Nothing here allocates: the caller brings the
// buffer, and learns the size when it is too small.
#ifndef BLOCK_H
#define BLOCK_H

#include <stddef.h>
#include <stdint.h>

#include <span>

#include <kavo/dns.h>

namespace dns {

enum class Block { a4, a6, txt, etxt, mx, ptr, cname, ns, srv, pkt };

// The CNAMEs that a block's chain may have, where no context sets another bound.
inline constexpr unsigned kCnamesMax = 16;

// lay_block lays the answer to `dn` out as a record block in `buffer` (aligned to 8 bytes) and returns the block's
// size, which its size field carries too. DNS_E_NOBUFS: it does not fit, and `needed` (null allowed) receives the size
// that would. Entries are the records of the block's type at the end of the chain, in packet order.
[[nodiscard]] int lay_block(Block kind, std::span<const uint8_t> packet, size_t answers_at, const uint8_t *dn,
                            std::span<uint8_t> buffer, size_t *needed, unsigned cnames_max = kCnamesMax);

}  // namespace dns

#endif  // BLOCK_H
