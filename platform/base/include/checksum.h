// checksum.h - a checksum of 64 bits for long runs of bytes, as fast as they come from memory.
#ifndef CHECKSUM_H
#define CHECKSUM_H

#include <stddef.h>
#include <stdint.h>

// checksum sums up `size` bytes and the checksum `before` of what precedes them. Bytes that differ in one word of eight
// never have the same checksum, others once in 2^64. It finds damage. It is no protection against forgery.
[[nodiscard]] uint64_t checksum(uint64_t before, const void *data, size_t size);

#endif  // CHECKSUM_H
