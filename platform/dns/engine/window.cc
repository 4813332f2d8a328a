// window.cc - see window.h.
#include "window.h"

#include <algorithm>
#include <utility>

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
  if (under_way == 0) rest(now_us);
  left_us_ = now_us;
  if (cohort_.ended_us == 0 && now_us >= cohort_.begun_us && ++cohort_.sent == kCohort) {
    cohort_.ended_us = now_us;
    cohort_.limited = limits_;
  }
  const Pace pace = pace_of(size(), size() < threshold_, rtt, limits);
  next_ns_ = std::max(next_ns_, now_us * kNsPerUs) + pace.interval_ns;
  ahead_ns_ = std::max(pace.interval_ns * (pace.burst - 1), limits.per_second == 0 ? kUsPerMs * kNsPerUs : 0);
}

// rest begins anew after a pause, in which the way to the server may have changed (RFC 5681, section 4.1).
void Window::rest(int64_t now_us) {
  const int64_t paused_us = now_us - left_us_;
  if (paused_us > kWindowIdleUs) resize(std::min(size(), kWindowFirst));
  if (paused_us <= kLeastRttUs) return;
  resize(kWindowFirst);
  threshold_ = kWindowMost;
  best_rate_ = cut_us_ = 0;
  flat_rounds_ = 0;
}

void Window::answered(const Answered &answer, const RoundTrip &rtt, uint32_t most, int64_t now_us) {
  ++in_round_;
  if (answer.once) sample(now_us - answer.sent_us, now_us);
  if (cohort_.has(answer.sent_us)) ++cohort_.answered;
  if (answer.sent_us >= round_us_ && now_us - round_us_ >= std::max(mean_us_, kRoundMinUs))
    end_round(answer, rtt, now_us);
  if (limits_) grow(most, now_us);
}

void Window::end_round(const Answered &answer, const RoundTrip &rtt, int64_t now_us) {
  const int64_t rate = in_round_ * kUsPerSecond / std::max<int64_t>(now_us - round_us_, 1);
  const unsigned flat_max = cut_us_ == 0 ? kFlatRounds : 1;
  const bool loses = in_round_ < under_way_then_ / 5 * 4;
  if (rate > best_rate_ / 4 * 5) {
    best_rate_ = rate;
    flat_rounds_ = 0;
  } else if (limits_ && size() < threshold_ && (++flat_rounds_ >= flat_max || loses || queueing_)) {
    if (loses) resize(std::min(size(), std::max(in_round_, kWindowFirst)));
    threshold_ = size();
  }
  calm_rounds_ = queueing_ || !limits_ || size() < threshold_ ? 0 : calm_rounds_ + 1;
  if (calm_rounds_ == kCalmRounds) {
    threshold_ = kWindowMost;
    best_rate_ = rate;
    calm_rounds_ = flat_rounds_ = 0;
  }
  if (size() >= threshold_) drain();
  under_way_then_ = answer.under_way;
  in_last_round_ = in_round_;
  in_round_ = 0;
  round_us_ = now_us;
  limits_ = answer.others_wait;
  settle(rtt, now_us);
}

// sample compares the round-trip times of kSample queries with the least. A mean alone would be raised by a few slow
// answers of a resolver, a least time alone by chance where times vary.
void Window::sample(int64_t rtt_us, int64_t now_us) {
  sample_least_us_ = std::min(sample_least_us_, std::max<int64_t>(rtt_us, 1));
  sample_sum_us_ += rtt_us;
  if (++sampled_ < kSample) return;
  const int64_t least = sample_least_us_, mean = sample_sum_us_ / kSample;
  mean_us_ = mean;
  least_of_sample_us_ = least;
  sampled_ = 0;
  sample_least_us_ = kUnknown;
  sample_sum_us_ = 0;
  if (now_us - period_us_ > kLeastRttUs) {
    period_us_ = now_us;
    least_us_ = std::exchange(period_least_us_, kUnknown);
    least_mean_us_ = std::exchange(period_least_mean_us_, kUnknown);
  }
  period_least_us_ = std::min(period_least_us_, least);
  period_least_mean_us_ = std::min(period_least_mean_us_, mean);
  least_us_ = std::min(least_us_, least);
  least_mean_us_ = std::min(least_mean_us_, mean);
  queueing_ = least > least_us_ + least_us_ / 4 + kQueueingUs && mean > least_mean_us_ + least_mean_us_ / 8;
}

// queued estimates how many of the server's queries from here wait in a queue on their way: a share of those under way,
// as large as the share that waiting has in the round trip.
uint32_t Window::queued() const {
  if (!queueing_) return 0;
  return static_cast<uint32_t>(size() * (least_of_sample_us_ - least_us_) / least_of_sample_us_);
}

// drain shrinks a window of which more waits in a queue than the server needs to be busy. So all who ask a server come
// to have the same share of its queue (TCP Vegas), and the queue has room for a burst.
void Window::drain() {
  const uint32_t queued = this->queued();
  if (queued > kQueuedMost) resize(size() - (queued - kQueuedMost + 3) / 4);
}

void Window::grow_fast() {
  // A lost packet is noticed late. Until then a server that takes no more is not sent ever more.
  if (size() >= std::max(kWindowFirst, 2 * std::max(in_round_, in_last_round_))) return;
  const bool carefully = queueing_ || cut_us_ != 0;
  if (++credit_ % (carefully ? 8 : 2) == 0) resize(size() + 1);
}

void Window::grow(uint32_t most, int64_t now_us) {
  if (size() >= most) return;
  if (size() < threshold_) {
    grow_fast();
  } else if (queued() < kQueuedLeast && ++credit_ >= size() && now_us - grown_us_ >= kGrowthUs) {
    resize(size() + 1);
    credit_ = 0;
    grown_us_ = now_us;
  }
}

bool Window::lost(int64_t sent_us, const RoundTrip &rtt, int64_t now_us) {
  settle(rtt, now_us);
  // One overload loses many queries, for a round trip after the first was noticed too, and shrinks the window once.
  if (sent_us <= cut_us_) return true;
  if (!queueing_) return false;
  cut(now_us);
  return true;
}

// cut lets the queue drain, and then has the window grow fast to a little less than what was taken.
void Window::cut(int64_t now_us) {
  const uint32_t taken = std::min(size(), std::max(in_round_, in_last_round_));
  resize(std::max(kWindowLeast, taken * 7 / 10));
  threshold_ = std::max(size(), taken * 9 / 10);
  credit_ = calm_rounds_ = 0;
  cut_us_ = now_us + mean_us_;
  cohort_ = {};
  cohort_.begun_us = cut_us_;
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
