// server.cc - see server.h.
#include "server.h"

#include <algorithm>

#include "bounds.h"

namespace dns {
namespace {

constexpr int64_t kCrowdMax = 64;
constexpr unsigned kLossWeight = 8;  // one attempt has a weight of one eighth

}  // namespace

void Server::sample(int64_t rtt_us, dns_time now) {
  const int64_t rtt = std::max<int64_t>(rtt_us, 1);
  if (srtt_us == 0) {
    srtt_us = rtt;
    rttvar_us = rtt / 2;
  } else {
    // Many samples within one round trip must not shrink the variation (RFC 7323, appendix G).
    const int64_t crowd = std::clamp<int64_t>((int64_t{under_way} + 1) / 2, 1, kCrowdMax);
    const int64_t error = rtt > srtt_us ? rtt - srtt_us : srtt_us - rtt;
    rttvar_us += (error - rttvar_us) / (4 * crowd);
    srtt_us = std::max<int64_t>(srtt_us + (rtt - srtt_us) / (8 * crowd), 1);
  }
  average_ms.store(static_cast<int>((srtt_us + kUsPerMs / 2) / kUsPerMs), std::memory_order_relaxed);
  last_ms.store(static_cast<int>((rtt + kUsPerMs / 2) / kUsPerMs), std::memory_order_relaxed);
  last_check.store(now, std::memory_order_relaxed);
}

int64_t Server::rto_us(unsigned round, int64_t longest_us) const {
  if (srtt_us == 0) return longest_us;
  constexpr unsigned kRoundsMax = 16;  // keeps the doubling within 64 bits
  const int64_t estimate = std::max(kRtoMinUs, srtt_us + 4 * rttvar_us);
  return std::min(longest_us, estimate << std::min(round, kRoundsMax));
}

void Server::heard(int64_t now_us) {
  heard_us = now_us;
  silent = 0;
  cut_off_until_us = 0;
  loss -= loss / kLossWeight;
}

bool Server::missed(int64_t sent_us, int64_t now_us) {
  if (loss == 0) loss_us = now_us;
  loss += static_cast<uint32_t>(kLossWhole - loss) / kLossWeight;
  // A server that has answered another query meanwhile is up, whatever became of this attempt.
  return heard_us <= sent_us && ++silent == kSilentMax;
}

void Server::forget_losses(int64_t now_us) {
  const int64_t halves = (now_us - loss_us) / kLossHalfLifeUs;
  constexpr int64_t kBits = 31;
  loss >>= std::min(halves, kBits);
  loss_us += halves * kLossHalfLifeUs;
}

}  // namespace dns
