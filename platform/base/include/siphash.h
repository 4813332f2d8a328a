// siphash.h - SipHash-1-3, a keyed hash whose collisions cannot be chosen without its secret.
#ifndef SIPHASH_H
#define SIPHASH_H

#include <stddef.h>
#include <stdint.h>

// siphash hashes `size` bytes. siphash_folded hashes them as if every ASCII upper-case letter were lower case.
[[nodiscard]] uint64_t siphash(const uint8_t secret[16], const void *data, size_t size);
[[nodiscard]] uint64_t siphash_folded(const uint8_t secret[16], const void *data, size_t size);

// siphash_secret fills a secret from the system's secure random source. 0, or -1 when there is none.
[[nodiscard]] int siphash_secret(uint8_t secret[16]);

#endif  // SIPHASH_H
