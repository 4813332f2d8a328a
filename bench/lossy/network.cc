#include "network.h"

#include <stdexcept>
#include <string>

#include "client.h"

namespace lossy {
namespace {

constexpr unsigned kBits = 8;
constexpr uint32_t kByte = 255;

std::string dotted(uint32_t address) {
  std::string text;
  for (unsigned shift = 4 * kBits; shift > 0;) {
    shift -= kBits;
    text += std::to_string(address >> shift & kByte) + (shift > 0 ? "." : "");
  }
  return text;
}

}  // namespace

std::string zones_of(unsigned questions) {
  std::string zone = std::string("zone ") + kZone + "\n";
  for (unsigned n = 0; n < questions; ++n)
    zone += "record " + name_of(n) + ". A " + dotted(address_of(n)) + "\n";
  return zone;
}

Network::Network(uint16_t server_port, const std::vector<Path> &paths, uint64_t seed) {
  for (const Path &path : paths) {
    const std::vector<std::string> words = {
        "--loss",   std::to_string(path.loss), "--delay",     std::to_string(kDelayMs),
        "--jitter", std::to_string(kJitterMs), "--duplicate", std::to_string(kTwiceIn100),
        "--seed",   std::to_string(seed++)};
    relays_.push_back(std::make_unique<testbed::Relay>(server_port, words));
    ports_.push_back(relays_.back()->port());
  }
}

uint64_t Network::stop() {
  uint64_t sent = 0;
  for (const auto &relay : relays_) {
    if (relay->stop() != 0) throw std::runtime_error("a relay failed");
    if (relay->count("turned-away=") != 0) throw std::runtime_error("a relay was too small");
    sent += relay->count("asked=");
  }
  return sent;
}

}  // namespace lossy
