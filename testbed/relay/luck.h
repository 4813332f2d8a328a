// luck.h - what becomes of a packet on a bad network: lost, late, or there twice.
//
// Luck belongs to the question and to the how-manieth packet about it this is, not to the moment. So two clients that
// ask the same questions through two relays of the same seed meet the same luck, try for try, and what is left between
// them is their own doing.
#ifndef KAVO_BENCH_RELAY_LUCK_H
#define KAVO_BENCH_RELAY_LUCK_H

#include <array>
#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <unordered_map>

namespace relay {

// Terms are what a network does to packets, each way by itself.
struct Terms {
  unsigned lost_in_100 = 0;
  unsigned twice_in_100 = 0;
  std::chrono::microseconds delay{0};
  std::chrono::microseconds jitter{0};  // the delay is off by up to this, either way
};

enum class Way : char { out = 'o', back = 'b' };

// Fate is what becomes of one packet: `copies` of it arrive, each after a delay of its own.
struct Fate {
  unsigned copies = 0;
  std::array<std::chrono::microseconds, 2> delays{};
};

class Luck {
 public:
  Luck(const Terms &terms, uint64_t seed) : terms_(terms), seed_(seed) {}
  [[nodiscard]] Fate next(Way way, std::span<const uint8_t> packet);

 private:
  // Questions whose packets are counted; past them all are forgotten, and their luck begins again.
  static constexpr size_t kQuestionsMax = 1'000'000;

  Terms terms_;
  uint64_t seed_;
  std::unordered_map<std::string, uint64_t> packets_;  // by way and question
};

}  // namespace relay

#endif  // KAVO_BENCH_RELAY_LUCK_H
