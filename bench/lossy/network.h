// network.h - the list server and the relays in front of it, as processes of bench_lossy.
#ifndef KAVO_BENCH_LOSSY_NETWORK_H
#define KAVO_BENCH_LOSSY_NETWORK_H

#include <list_server.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace lossy {

// Path is the network between a client and one server.
struct Path {
  unsigned loss;  // packets in 100, each way; 100 makes a dead server
};

inline constexpr unsigned kDelayMs = 100;
inline constexpr unsigned kJitterMs = 50;
inline constexpr unsigned kTwiceIn100 = 1;

// zones_of is the zones file of a list server that knows the answers of questions 0 to `questions - 1`.
[[nodiscard]] std::string zones_of(unsigned questions);

// Network is what one client sees of the server: a port for each path.
class Network {
 public:
  Network(uint16_t server_port, const std::vector<Path> &paths, uint64_t seed);
  [[nodiscard]] const std::vector<uint16_t> &ports() const { return ports_; }
  // stop ends the relays and returns the number of packets that the client sent.
  [[nodiscard]] uint64_t stop();

 private:
  std::vector<std::unique_ptr<testbed::Relay>> relays_;
  std::vector<uint16_t> ports_;
};

}  // namespace lossy

#endif  // KAVO_BENCH_LOSSY_NETWORK_H
