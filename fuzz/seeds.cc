// seeds.cc - runs a fuzz target over its seeds, in place of libFuzzer: each as it is, cut short at every byte, and with
// every byte changed in one of three ways.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

constexpr std::array<uint8_t, 3> kChanges = {0x01, 0x80, 0xff};

TEST(Fuzz, PropertiesHoldForEverySeedAndItsDamages) {
  unsigned files = 0;
  for (const auto &entry : std::filesystem::directory_iterator(KAVO_SEEDS)) {
    SCOPED_TRACE(entry.path());
    std::ifstream file(entry.path(), std::ios::binary);
    std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
    for (size_t size = 0; size <= bytes.size(); ++size)
      EXPECT_EQ(
          LLVMFuzzerTestOneInput(std::vector(bytes.begin(), bytes.begin() + static_cast<long>(size)).data(), size), 0);
    for (size_t at = 0; at < bytes.size(); ++at) {
      const uint8_t change = kChanges[(at + files) % kChanges.size()];
      bytes[at] ^= change;
      EXPECT_EQ(LLVMFuzzerTestOneInput(bytes.data(), bytes.size()), 0);
      bytes[at] ^= change;
    }
    ++files;
  }
  EXPECT_GT(files, 0U);
}

}  // namespace
