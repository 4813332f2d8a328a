// letter_case.cc - names whose letters carry random bits in their case. Stateless; any thread.
//
// Eight bytes are treated at a time. The length bytes of labels are below every letter, and so come through unchanged.
#include <string.h>

#include <algorithm>
#include <bit>

#include <dns_wire.h>

namespace dns {
namespace {

constexpr uint64_t kOnes = 0x0101010101010101;
constexpr uint64_t kTops = 0x80 * kOnes;
constexpr uint64_t kCaseBits = 0x20 * kOnes;  // the bit that makes an ASCII letter lower case

// letters returns the case bit of each byte that is an ASCII letter.
uint64_t letters(uint64_t bytes) {
  const uint64_t lower = bytes | kCaseBits;
  const uint64_t sevens = lower & ~kTops;
  const uint64_t from_a = sevens + (0x80 - 'a') * kOnes;
  const uint64_t past_z = sevens + (0x80 - 'z' - 1) * kOnes;
  constexpr unsigned kTopToCase = 2;
  return (from_a & ~past_z & ~lower & kTops) >> kTopToCase;
}

// cased gives the letters among eight bytes of a name, from the `at`-th byte on, the case that `bits` says. Each group
// of eight takes eight other bits.
uint64_t cased(uint64_t bytes, uint64_t bits, size_t at) {
  const uint64_t turned = std::rotl(bits, static_cast<int>(at / sizeof bytes % 8));
  return bytes ^ ((bytes ^ turned) & letters(bytes));
}

}  // namespace

void apply_case(std::span<uint8_t> dn, uint64_t bits) {
  for (size_t at = 0; at < dn.size(); at += sizeof(uint64_t)) {
    const size_t size = std::min(sizeof(uint64_t), dn.size() - at);
    uint64_t bytes = 0;
    memcpy(&bytes, dn.data() + at, size);
    bytes = cased(bytes, bits, at);
    memcpy(dn.data() + at, &bytes, size);
  }
}

bool has_case(std::span<const uint8_t> name, const uint8_t *dn, uint64_t bits) {
  for (size_t at = 0; at < name.size(); at += sizeof(uint64_t)) {
    const size_t size = std::min(sizeof(uint64_t), name.size() - at);
    uint64_t bytes = 0, wanted = 0;
    memcpy(&bytes, name.data() + at, size);
    memcpy(&wanted, dn + at, size);
    if (bytes != cased(wanted, bits, at)) return false;
  }
  return true;
}

}  // namespace dns
