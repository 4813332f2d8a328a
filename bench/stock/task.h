// task.h - what a client is to ask, and what became of it.
#ifndef KAVO_BENCH_STOCK_TASK_H
#define KAVO_BENCH_STOCK_TASK_H

#include <questions.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace stock {

inline constexpr const char *kReason = "listed";  // the TXT record of every listed address

// Query is one packet's content: the A record of an address in a zone, or its TXT record.
struct Query {
  uint32_t address;
  unsigned zone;
  bool reason;

  [[nodiscard]] std::string name() const { return bench::name_of(address, zone); }
};

// Task is what a process of the program asks: `count` questions, each a packet. Of one zone, A and TXT of each address;
// of several, the A record of each address in every zone.
struct Task {
  std::string client;
  uint16_t port = 0;
  unsigned count = 0;
  unsigned zones = 1;
  unsigned window = 0;   // questions at once; 0: all
  int64_t start_us = 0;  // when to begin, of the steady clock; 0: now
  bool sampled = false;  // tell how many answers had come when

  [[nodiscard]] Query query(unsigned n) const {
    return zones == 1 ? Query{bench::question(n / 2), 0, n % 2 == 1}
                      : Query{bench::question(n / zones), n % zones, false};
  }
  [[nodiscard]] unsigned at_once() const { return window == 0 || window > count ? count : window; }
};

// Sample tells how many answers had come at a moment of the steady clock.
struct Sample {
  int64_t at_us;
  uint64_t answers;
};

struct Outcome {
  unsigned failed = 0;  // questions without an answer
  std::vector<Sample> samples;
};

// is_right judges an answer's packet, of response code `rcode`: true for the right answer, false for a failure. A wrong
// answer is thrown.
[[nodiscard]] bool is_right(const Query &query, int rcode, std::span<const uint8_t> packet);

// They ask all questions of a task and throw std::runtime_error. c-ares and libunbound, at most so many at once, are as
// Debian has them.
[[nodiscard]] Outcome ask_with_kavo(const Task &task);
[[nodiscard]] Outcome ask_with_cares(const Task &task);
[[nodiscard]] Outcome ask_with_unbound(const Task &task);

}  // namespace stock

#endif  // KAVO_BENCH_STOCK_TASK_H
