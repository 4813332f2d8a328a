// letter_case.cc - see letter_case.h.
//
// Eight bytes are treated at a time. The length bytes of labels are below every letter, so they stay unchanged.
#include <letter_case.h>

#include <string.h>

#include <bit>

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

// load_tail and store_tail move the last bytes of a name, fewer than eight.
uint64_t load_tail(const uint8_t *from, size_t size) {
  uint64_t bytes = 0;
  for (size_t i = size; i > 0; --i)
    bytes = bytes << 8 | from[i - 1];
  return bytes;
}

void store_tail(uint8_t *to, uint64_t bytes, size_t size) {
  for (size_t i = 0; i < size; ++i, bytes >>= 8)
    to[i] = static_cast<uint8_t>(bytes);
}

uint64_t load(const uint8_t *from) {
  uint64_t bytes;
  memcpy(&bytes, from, sizeof bytes);
  return bytes;
}

}  // namespace

void apply_case(std::span<uint8_t> dn, uint64_t bits) {
  const size_t whole = dn.size() / sizeof(uint64_t) * sizeof(uint64_t);
  for (size_t at = 0; at < whole; at += sizeof(uint64_t)) {
    const uint64_t bytes = cased(load(dn.data() + at), bits, at);
    memcpy(dn.data() + at, &bytes, sizeof bytes);
  }
  uint8_t *tail = dn.data() + whole;
  const size_t left = dn.size() - whole;
  store_tail(tail, cased(load_tail(tail, left), bits, whole), left);
}

bool has_case(std::span<const uint8_t> name, const uint8_t *dn, uint64_t bits) {
  const size_t whole = name.size() / sizeof(uint64_t) * sizeof(uint64_t);
  for (size_t at = 0; at < whole; at += sizeof(uint64_t))
    if (load(name.data() + at) != cased(load(dn + at), bits, at)) return false;
  const size_t left = name.size() - whole;
  return load_tail(name.data() + whole, left) == cased(load_tail(dn + whole, left), bits, whole);
}

}  // namespace dns
