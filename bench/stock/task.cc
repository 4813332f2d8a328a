#include "task.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <stdexcept>

namespace stock {
namespace {

constexpr size_t kAnswersAt = 6, kHeaderSize = 12;
constexpr int kNoError = 0, kNxDomain = 3;
constexpr std::array<uint8_t, 6> kAddressData = {0, 4, 127, 0, 0, 2};
constexpr std::array<uint8_t, 9> kReasonData = {0, 7, 6, 'l', 'i', 's', 't', 'e', 'd'};

bool contains(std::span<const uint8_t> packet, std::span<const uint8_t> data) {
  return memmem(packet.data(), packet.size(), data.data(), data.size()) != nullptr;
}

}  // namespace

bool is_right(const Query &query, int rcode, std::span<const uint8_t> packet) {
  if (rcode != kNoError && rcode != kNxDomain) return false;
  bool right = rcode == kNxDomain;
  if (bench::listed(query.address))
    right = rcode == kNoError && packet.size() > kHeaderSize && packet[kAnswersAt + 1] == 1 &&
            (query.reason ? contains(packet, kReasonData) : contains(packet, kAddressData));
  if (!right) throw std::runtime_error("wrong answer about " + query.name());
  return true;
}

}  // namespace stock
