// luck.h - the fate of a packet on a bad network: lost, late, or there twice.
//
// A packet's fate depends on its question section and on the number of packets with it before, not on the time. So two
// clients that send the same queries through two relays with the same seed meet the same luck, attempt for attempt, and
// any difference between them is their own doing.
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
  // Question sections whose packets are counted; past this number all are forgotten, and their luck begins again.
  static constexpr size_t kQuestionsMax = 1'000'000;

  Terms terms_;
  uint64_t seed_;
  std::unordered_map<std::string, uint64_t> packets_;  // by way and question
};

}  // namespace relay

#endif  // KAVO_BENCH_RELAY_LUCK_H
