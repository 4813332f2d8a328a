// client.h - what bench_lossy compares: clients that ask the same questions, a number of them outstanding at once, each
// in the way of its own library.
#ifndef KAVO_BENCH_LOSSY_CLIENT_H
#define KAVO_BENCH_LOSSY_CLIENT_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace lossy {

using Clock = std::chrono::steady_clock;

// Settings are the settings that both clients have.
struct Settings {
  unsigned window = 100;       // questions outstanding at once
  unsigned timeout_ms = 1000;  // of the first attempt
  unsigned attempts = 4;       // packets for one question, over all servers
};

// Outcome is how a question ended.
struct Outcome {
  bool answered;
  Clock::duration took;
  Clock::time_point at;
};

// Question n is the A record of name_of (n), and the right answer address_of (n) alone, in host order.
inline constexpr const char *kZone = "lossy.test";
[[nodiscard]] std::string name_of(unsigned n);
[[nodiscard]] uint32_t address_of(unsigned n);
// must_be_right throws std::runtime_error for any other answer.
void must_be_right(const char *client, unsigned n, std::span<const uint32_t> addresses);

class Client {
 public:
  virtual ~Client() = default;
  // ask asks questions `first` to `first + count - 1`, returns when each of them has ended, and adds their outcomes.
  virtual void ask(unsigned first, unsigned count, std::vector<Outcome> *outcomes) = 0;
};

// Both ask the servers at these ports of 127.0.0.1, in their order. They throw std::runtime_error.
[[nodiscard]] std::unique_ptr<Client> make_kavo(const Settings &settings, std::span<const uint16_t> ports);
[[nodiscard]] std::unique_ptr<Client> make_cares(const Settings &settings, std::span<const uint16_t> ports);

}  // namespace lossy

#endif  // KAVO_BENCH_LOSSY_CLIENT_H
