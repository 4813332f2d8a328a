// seeds.cc - runs a fuzz target over its seeds, in place of libFuzzer.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

TEST(Fuzz, PropertiesHoldForEverySeed) {
  unsigned files = 0;
  for (const auto &entry : std::filesystem::directory_iterator(KAVO_SEEDS)) {
    SCOPED_TRACE(entry.path());
    std::ifstream file(entry.path(), std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()), 0);
    ++files;
  }
  EXPECT_GT(files, 0U);
}

}  // namespace
