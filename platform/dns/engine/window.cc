// window.cc - see window.h.
#include "window.h"

#include <algorithm>

namespace dns {
namespace {

constexpr int64_t kNsPerUs = 1000;
constexpr int64_t kNsPerSecond = kUsPerSecond * kNsPerUs;

// of_whole returns a part's share, of kLossWhole.
uint32_t of_whole(uint32_t part, uint32_t whole) {
  return whole == 0 ? 0 : static_cast<uint32_t>(int64_t{part} * kLossWhole / whole);
}

// Pace is how queries leave: one every `interval_ns`, `burst` of them at once.
struct Pace {
  int64_t interval_ns = 0;
  int64_t burst = kPaceBurst;
};

// pace_of spreads a window's queries over a round trip, a little faster than they can be answered. Below kPacedFromUs
// answers pace them better than a clock can. Nothing is known of a server before its first answer: it gets a burst,
// then few at a time.
Pace pace_of(uint32_t size, bool grows_fast, const RoundTrip &rtt, const Limits &limits) {
  Pace pace;
  if (rtt.smoothed_us == 0)
    pace.interval_ns = kFirstPaceUs * kNsPerUs;
  else if (rtt.smoothed_us >= kPacedFromUs)
    pace.interval_ns = rtt.smoothed_us * kNsPerUs * 4 / (int64_t{size} * (grows_fast ? 8 : 5));
  if (limits.per_second == 0) return pace;
  pace.interval_ns = std::max(pace.interval_ns, kNsPerSecond / limits.per_second);
  pace.burst = std::clamp<int64_t>(limits.per_second / kBurstsPerSecond, 1, kPaceBurst);
  return pace;
}

}  // namespace

int64_t Window::due_us(int64_t now_us) const {
  const int64_t due_ns = next_ns_ - ahead_ns_;
  return due_ns <= now_us * kNsPerUs ? 0 : (due_ns + kNsPerUs - 1) / kNsPerUs;
}

void Window::sent(unsigned under_way, const RoundTrip &rtt, const Limits &limits, int64_t now_us) {
  // After a pause nothing is known of the way to the server any more (RFC 5681, section 4.1).
  if (under_way == 0 && now_us - left_us_ > kWindowIdleUs && size() > kWindowFirst) {
    threshold_ = std::max(threshold_, size() / 4 * 3);
    resize(kWindowFirst);
  }
  left_us_ = now_us;
  if (cohort_.ended_us == 0 && ++cohort_.sent == kCohort) {
    cohort_.ended_us = now_us;
    cohort_.limited = limits_;
  }
  const Pace pace = pace_of(size(), size() < threshold_, rtt, limits);
  next_ns_ = std::max(next_ns_, now_us * kNsPerUs) + pace.interval_ns;
  ahead_ns_ = std::max(pace.interval_ns * (pace.burst - 1), limits.per_second == 0 ? kUsPerMs * kNsPerUs : 0);
}

void Window::answered(int64_t sent_us, bool others_wait, const RoundTrip &rtt, uint32_t most, int64_t now_us) {
  ++in_round_;
  if (cohort_.has(sent_us)) ++cohort_.answered;
  if (sent_us >= round_us_) end_round(rtt, others_wait, now_us);
  if (limits_) grow(most, now_us);
}

void Window::end_round(const RoundTrip &rtt, bool others_wait, int64_t now_us) {
  const int64_t rate = in_round_ * kUsPerSecond / std::max<int64_t>(now_us - round_us_, 1);
  if (rate > best_rate_ / 4 * 5) {
    best_rate_ = rate;
    flat_rounds_ = 0;
  } else if (limits_ && size() < threshold_ && ++flat_rounds_ == kFlatRounds) {
    threshold_ = size();
  }
  in_last_round_ = in_round_;
  in_round_ = 0;
  round_us_ = now_us;
  limits_ = others_wait;
  if (now_us - least_at_us_ > kLeastRttUs) {
    least_rtt_us_ += (rtt.smoothed_us - least_rtt_us_) / 8;
    least_at_us_ = now_us;
  }
  if (least_rtt_us_ == 0 || rtt.smoothed_us < least_rtt_us_) least_rtt_us_ = rtt.smoothed_us;
  settle(rtt, now_us);
}

void Window::grow(uint32_t most, int64_t now_us) {
  uint32_t size = this->size();
  if (size >= most) return;
  if (size < threshold_) {
    // Losses are noticed late. Until then a server that takes no more is not sent ever more.
    if (size < std::max(kWindowFirst, 2 * std::max(in_round_, in_last_round_))) ++size;
  } else if (++credit_ >= size && now_us - grown_us_ >= kGrowthUs) {
    ++size;
    credit_ = 0;
    grown_us_ = now_us;
  }
  resize(size);
}

bool Window::is_queueing(const RoundTrip &rtt) const {
  const int64_t slack = std::max({least_rtt_us_ / 4, 2 * rtt.variation_us, kQueueingUs});
  return least_rtt_us_ != 0 && rtt.smoothed_us > least_rtt_us_ + slack;
}

bool Window::lost(int64_t sent_us, const RoundTrip &rtt, int64_t now_us) {
  settle(rtt, now_us);
  // One overload loses many queries, and shrinks the window once.
  if (sent_us <= cut_us_) return true;
  if (!is_queueing(rtt)) return false;
  cut(now_us);
  return true;
}

void Window::cut(int64_t now_us) {
  const uint32_t taken = std::min(size(), std::max(in_round_, in_last_round_));
  const uint32_t size = std::max(kWindowLeast, taken / 10 * 7 + taken % 10 * 7 / 10);
  threshold_ = size;
  resize(size);
  credit_ = 0;
  cut_us_ = now_us;
}

// settle judges the cohort when all its answers must have come, and begins the next.
void Window::settle(const RoundTrip &rtt, int64_t now_us) {
  if (cohort_.ended_us == 0) return;
  const int64_t rto_us = std::max(kRtoMinUs, rtt.smoothed_us + 4 * rtt.variation_us);
  if (now_us <= cohort_.ended_us + rto_us) return;
  const uint32_t share = of_whole(cohort_.sent - std::min(cohort_.answered, cohort_.sent), cohort_.sent);
  const bool limited = cohort_.limited;
  cohort_ = {};
  cohort_.begun_us = now_us;
  if (share_then_ != 0) {
    // Has the smaller window helped?
    if (share > share_then_ / 3 * 2) {
      noise_ = share;
      threshold_ = std::max(threshold_, size_then_);
      resize(std::max(size(), size_then_));
    }
    share_then_ = 0;
    return;
  }
  noise_ = std::min(noise_, share + (noise_ - std::min(noise_, share)) / 8 * 7);
  if (!limited || share < std::max<uint32_t>(kHeavyLoss, noise_ / 2 * 3)) return;
  share_then_ = share;
  size_then_ = size();
  cut(now_us);
}

}  // namespace dns
