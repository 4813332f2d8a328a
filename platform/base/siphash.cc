// siphash.cc - SipHash-1-3: one round per word of eight bytes, three at the end.
//
// Pure functions without state; any thread may call them. The short variant is enough here: the hash stays inside the
// process, and no outsider can read it, so it only has to keep outsiders from choosing collisions.
#include <siphash.h>

#include <errno.h>
#include <limits.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <bit>

static_assert(std::endian::native == std::endian::little, "words are read in memory order");

namespace {

constexpr size_t kWordSize = sizeof(uint64_t);
constexpr size_t kSecretSize = 2 * kWordSize;
constexpr int kFinalRounds = 3;
constexpr uint64_t kFinalMark = 0xff;
constexpr int kSizeShift = 56;  // the size's low byte is the last byte of the last word

// `byte` in each of a word's eight bytes.
constexpr uint64_t in_each(uint8_t byte) {
  return ~uint64_t{0} / UINT8_MAX * byte;
}

struct sip_state {
  uint64_t v0, v1, v2, v3;

  void round() {
    v0 += v1, v2 += v3;
    v1 = std::rotl(v1, 13) ^ v0, v3 = std::rotl(v3, 16) ^ v2;
    v0 = std::rotl(v0, 32);
    v2 += v1, v0 += v3;
    v1 = std::rotl(v1, 17) ^ v2, v3 = std::rotl(v3, 21) ^ v0;
    v2 = std::rotl(v2, 32);
  }

  void take(uint64_t word) {
    v3 ^= word;
    round();
    v0 ^= word;
  }
};

uint64_t load(const uint8_t *bytes) {
  uint64_t word = 0;
  memcpy(&word, bytes, sizeof word);
  return word;
}

// load_rest returns the last bytes of `size` that fill no word, the missing ones 0: from the last whole word where
// there is one, because a copy of a few bytes costs more than all else here.
uint64_t load_rest(const uint8_t *bytes, size_t size) {
  const size_t left = size % kWordSize;
  if (left == 0) return 0;
  if (size > kWordSize) return load(bytes + size - kWordSize) >> (kWordSize - left) * CHAR_BIT;
  uint64_t word = 0;
  memcpy(&word, bytes, size);
  return word;
}

// "SipHash"'s four constants spell its initial state.
sip_state start(const uint8_t secret[16]) {
  const uint64_t k0 = load(secret);
  const uint64_t k1 = load(secret + kWordSize);
  return {k0 ^ 0x736f6d6570736575, k1 ^ 0x646f72616e646f6d, k0 ^ 0x6c7967656e657261, k1 ^ 0x7465646279746573};
}

uint64_t as_it_is(uint64_t word) {
  return word;
}

// fold_letters returns `word` with each byte that is an ASCII upper-case letter made lower case, all eight at once: the
// additions carry into a byte's top bit exactly when its low seven bits reach 'A', or pass 'Z', and no further.
uint64_t fold_letters(uint64_t word) {
  constexpr uint8_t kTopBit = 0x80;
  constexpr int kTopBitToCaseBit = 2;
  const uint64_t low_bits = word & in_each(0x7f);
  const uint64_t from_a = low_bits + in_each(kTopBit - 'A');
  const uint64_t past_z = low_bits + in_each(kTopBit - 1 - 'Z');
  const uint64_t upper = (from_a ^ past_z) & ~word & in_each(kTopBit);
  return word | upper >> kTopBitToCaseBit;
}

// hash_words hashes `size` bytes, each word passed through `fold` first.
template <uint64_t fold(uint64_t)>
uint64_t hash_words(const uint8_t secret[16], const void *data, size_t size) {
  sip_state state = start(secret);
  const auto *bytes = static_cast<const uint8_t *>(data);
  for (size_t at = 0; at + kWordSize <= size; at += kWordSize)
    state.take(fold(load(bytes + at)));
  state.take(fold(load_rest(bytes, size)) | static_cast<uint64_t>(size) << kSizeShift);
  state.v2 ^= kFinalMark;
  for (int i = 0; i < kFinalRounds; ++i)
    state.round();
  return state.v0 ^ state.v1 ^ state.v2 ^ state.v3;
}

}  // namespace

uint64_t siphash(const uint8_t secret[16], const void *data, size_t size) {
  return hash_words<as_it_is>(secret, data, size);
}

uint64_t siphash_folded(const uint8_t secret[16], const void *data, size_t size) {
  return hash_words<fold_letters>(secret, data, size);
}

int siphash_secret(uint8_t secret[16]) {
  long got = -1;
  do {
    // The system call itself, since the function getrandom is a cancellation point.
    got = syscall(SYS_getrandom, secret, kSecretSize, 0);
  } while (got < 0 && errno == EINTR);
  return got == static_cast<long>(kSecretSize) ? 0 : -1;
}
