// questions.h - what the benchmarks ask: list questions about addresses of 10.0.0.0/8, in an order that repeats none of
// them for 3.7 million questions. The last three bytes have three digits each, so that all names are of one length.
// Half of any stretch is listed: the addresses whose second byte is odd.
#ifndef KAVO_BENCH_SUPPORT_QUESTIONS_H
#define KAVO_BENCH_SUPPORT_QUESTIONS_H

#include <cstdint>
#include <string>

namespace bench {

inline constexpr uint32_t kListedAnswer = 0x7F000002;  // 127.0.0.2, host order
inline constexpr unsigned kTtl = 86'400;               // outlives every run

// question returns the n-th address, host order.
[[nodiscard]] constexpr uint32_t question(uint32_t n) {
  constexpr uint32_t kLeast = 100, kValues = 156;  // of a byte
  constexpr uint64_t kAll = uint64_t{kValues} * kValues * kValues;
  constexpr uint64_t kStep = 2'346'311;  // has no divisor in common with it: the order repeats nothing
  const auto place = static_cast<uint32_t>(n * kStep % kAll);
  return 10U << 24 | (kLeast + place % kValues) << 16 | (kLeast + place / kValues % kValues) << 8 |
         (kLeast + place / kValues / kValues);
}

inline constexpr uint32_t kListedBit = 1U << 16;
[[nodiscard]] constexpr bool listed(uint32_t address) {
  return (address & kListedBit) != 0;
}

// listed_question returns the n-th of an order of listed addresses, which repeats nothing for a million questions.
[[nodiscard]] constexpr uint32_t listed_question(uint32_t n) {
  return question(n) | kListedBit;
}

// zone returns the name of zone number n, which is below 90; all names are as long as the first.
[[nodiscard]] std::string zone(unsigned n);

// name_of returns the name that asks about an address in a zone, without a dot at its end.
[[nodiscard]] std::string name_of(uint32_t address, unsigned zone_number = 0);

// Zones files that list the listed addresses: of `zones` zones for kavo-listserver, of one for rbldnsd (an ip4set).
[[nodiscard]] std::string listserver_zones(unsigned zones = 1);
[[nodiscard]] std::string rbldnsd_zone();

}  // namespace bench

#endif  // KAVO_BENCH_SUPPORT_QUESTIONS_H
