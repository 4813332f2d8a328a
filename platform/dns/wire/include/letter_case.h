// letter_case.h - the letter case of a name in a query, as 0x20 uses it.
#ifndef LETTER_CASE_H
#define LETTER_CASE_H

#include <stdint.h>

#include <span>

namespace dns {

// Letter case carries random bits that an answer must bring back (a forger has to guess them). apply_case gives the
// letters of a DN the case that `bits` says, each of up to 64 bytes a bit of its own; kLowerCase makes all lower case.
// has_case tells whether `name`, of dn's size, is `dn` with its letters in that case.
inline constexpr uint64_t kLowerCase = UINT64_MAX;
void apply_case(std::span<uint8_t> dn, uint64_t bits);
[[nodiscard]] bool has_case(std::span<const uint8_t> name, const uint8_t *dn, uint64_t bits);

}  // namespace dns

#endif  // LETTER_CASE_H
