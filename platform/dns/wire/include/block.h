// block.h - record blocks, laid out from an answer packet.
#ifndef BLOCK_H
#define BLOCK_H

#include <stddef.h>
#include <stdint.h>

#include <span>

#include <kavo/dns.h>

namespace dns {

enum class Block { a4, a6, txt, etxt, mx, ptr, cname, ns, srv, pkt };

// The aliases that a block's chain may have, where no context sets another bound.
inline constexpr unsigned kCnamesMax = 16;

// lay_block lays the answer to `dn` out as a record block in `buffer` (aligned to 8 bytes) and returns the block's
// size, which its size field carries too. DNS_E_NOBUFS: it does not fit, and `needed` (null allowed) says what would.
// Entries are the records of the block's type at the end of the chain, in packet order.
[[nodiscard]] int lay_block(Block kind, std::span<const uint8_t> packet, size_t answers_at, const uint8_t *dn,
                            std::span<uint8_t> buffer, size_t *needed, unsigned cnames_max = kCnamesMax);

}  // namespace dns

#endif  // BLOCK_H
