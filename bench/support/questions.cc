#include "questions.h"

namespace bench {
namespace {

constexpr unsigned kNetworks = 256;  // of 16 bits below 10.0.0.0/8
constexpr uint32_t kByte = 255;
constexpr unsigned kBits = 8;

std::string network(unsigned second) {
  return "10." + std::to_string(second) + ".0.0/16";
}

}  // namespace

std::string zone(unsigned n) {
  constexpr unsigned kFirst = 10;  // two digits each
  return "bl" + std::to_string(kFirst + n) + ".bench.test";
}

std::string name_of(uint32_t address, unsigned zone_number) {
  std::string name;
  for (unsigned shift = 0; shift < 4 * kBits; shift += kBits)
    name += std::to_string(address >> shift & kByte) + ".";
  return name + zone(zone_number);
}

std::string listserver_zones(unsigned zones) {
  std::string text;
  for (unsigned n = 0; n < zones; ++n) {
    text += "zone " + zone(n) + "\nttl " + std::to_string(kTtl) + "\n";
    for (unsigned second = 1; second < kNetworks; second += 2)
      text += "list " + network(second) + " 127.0.0.2\n";
  }
  return text;
}

std::string rbldnsd_zone() {
  std::string text = "$TTL " + std::to_string(kTtl) + "\n:127.0.0.2:listed\n";
  for (unsigned second = 1; second < kNetworks; second += 2)
    text += network(second) + "\n";
  return text;
}

}  // namespace bench
