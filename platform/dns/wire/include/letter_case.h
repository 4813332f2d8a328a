// letter_case.h - the letter case of a name in a query, as 0x20 uses it. Stateless; any thread.
#ifndef LETTER_CASE_H
#define LETTER_CASE_H

#include <stdint.h>

#include <span>

namespace dns {

// Letter case carries random bits that an answer must repeat, and that a forger has to guess. apply_case sets the case
// of a DN's letters from `bits`, one bit for each of the first 64 bytes; kLowerCase makes all lower case. has_case
// tells whether `name`, of dn's size, is `dn` with its letters in that case.
inline constexpr uint64_t kLowerCase = UINT64_MAX;
void apply_case(std::span<uint8_t> dn, uint64_t bits);
[[nodiscard]] bool has_case(std::span<const uint8_t> name, const uint8_t *dn, uint64_t bits);

}  // namespace dns

#endif  // LETTER_CASE_H
