// checksum.cc - eight independent sums side by side, each of every eighth word, folded into one at the end.
//
// A pure function; any thread may call it. Each step maps a sum and a word one to one: a word that has changed changes
// its sum for good, unless a later word of the same sum compensates for it. The multiplication moves changes up; the
// rotation brings them back to the low bits, so that no two changes of top bits cancel out. The sums are independent
// because a processor can multiply every cycle but needs several for one product.
#include <checksum.h>

#include <string.h>

#include <array>
#include <bit>

static_assert(std::endian::native == std::endian::little, "words are read in memory order");

namespace {

constexpr size_t kLanes = 8;
using Words = std::array<uint64_t, kLanes>;

// Odd numbers without a pattern: the golden ratio's fraction, and two that are known to mix well.
constexpr uint64_t kGolden = 0x9e3779b97f4a7c15;
constexpr uint64_t kMixFirst = 0xbf58476d1ce4e5b9;
constexpr uint64_t kMixSecond = 0x94d049bb133111eb;
constexpr int kRotation = 29;

// mix spreads every bit over all, one to one.
uint64_t mix(uint64_t value) {
  value = (value ^ value >> 30) * kMixFirst;
  value = (value ^ value >> 27) * kMixSecond;
  return value ^ value >> 31;
}

void take(Words *sums, const void *bytes) {
  Words words;
  memcpy(words.data(), bytes, sizeof words);
  for (size_t i = 0; i < kLanes; ++i)
    (*sums)[i] = std::rotl(((*sums)[i] ^ words[i]) * kGolden, kRotation);
}

}  // namespace

uint64_t checksum(uint64_t before, const void *data, size_t size) {
  Words sums;
  for (size_t i = 0; i < kLanes; ++i)
    sums[i] = mix(before + i * kGolden);
  const auto *bytes = static_cast<const uint8_t *>(data);
  size_t left = size;
  for (; left >= sizeof(Words); left -= sizeof(Words), bytes += sizeof(Words))
    take(&sums, bytes);
  if (left > 0) {
    Words rest = {};
    memcpy(rest.data(), bytes, left);
    take(&sums, rest.data());
  }
  uint64_t sum = size;  // tells zero bytes at the end from none
  for (const uint64_t lane : sums)
    sum = mix(sum ^ lane) + kGolden;
  return sum;
}
