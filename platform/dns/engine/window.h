// window.h - how many queries may be under way to one server by UDP, and how fast they may leave: congestion control in
// the manner of RFC 5681, with what RFC 9002 says of datagrams, as RFC 8085, section 3.1 asks of all who send them.
//
// One window belongs to one server. The thread that drives the context uses it alone; any thread may read its size.
#ifndef DNS_ENGINE_WINDOW_H
#define DNS_ENGINE_WINDOW_H

#include <stdint.h>

#include <atomic>

#include "bounds.h"

namespace dns {

// RoundTrip is what is known of a server's round-trip time, in microseconds; 0 while it is not measured.
struct RoundTrip {
  int64_t smoothed_us;
  int64_t variation_us;
};

// Answered is an answer, as a window sees it.
struct Answered {
  int64_t sent_us;     // when its query left
  bool once;           // which left only once: the time since then is the round trip
  bool others_wait;    // for room
  unsigned under_way;  // queries, this one included
};

// Limits are a context's bounds on every window.
struct Limits {
  uint32_t most = kWindowMost;  // queries under way
  uint32_t per_second = 0;      // queries that leave; 0: no limit
};

// Window decides when a query may leave.
//
// A server that has more queries than room grows its window: by half of its size in a round up to `threshold_`, then by
// one for each round, in which all that was under way is answered. The first growth ends, too, when more queries under
// way bring no more answers a second. A loss shrinks the window if it is one by overload: if the round-trip time has
// risen above the least that was seen, which is queueing, or if a large share of the queries is lost and the window is
// what limits them. If that share is no smaller after the window has shrunk, the line loses packets of its own: the
// window is given its size back, and only a larger share counts from then on.
class Window {
 public:
  // due_us is when the pace lets the next query leave, 0 for now.
  [[nodiscard]] int64_t due_us(int64_t now_us) const;
  // sent counts a query that leaves. full notes that one had to wait for room.
  void sent(unsigned under_way, const RoundTrip &rtt, const Limits &limits, int64_t now_us);
  void full() { limits_ = true; }

  // answered takes an answer, with what then is under way.
  void answered(const Answered &answer, const RoundTrip &rtt, uint32_t most, int64_t now_us);
  // lost takes an attempt that timed out; true if it was lost by overload.
  [[nodiscard]] bool lost(int64_t sent_us, const RoundTrip &rtt, int64_t now_us);

  [[nodiscard]] uint32_t size() const { return size_.load(std::memory_order_relaxed); }

 private:
  static constexpr int64_t kUnknown = INT64_MAX / 8;

  // Cohort is a sample of the queries: those sent between two moments, and how many were answered.
  struct Cohort {
    int64_t begun_us = 0;
    int64_t ended_us = 0;  // 0 while it takes more
    uint32_t sent = 0;
    uint32_t answered = 0;
    bool limited = false;
    [[nodiscard]] bool has(int64_t sent_us) const {
      return sent_us >= begun_us && (ended_us == 0 || sent_us <= ended_us);
    }
  };

  void resize(uint32_t size) { size_.store(size, std::memory_order_relaxed); }
  void end_round(const Answered &answer, const RoundTrip &rtt, int64_t now_us);
  void rest(int64_t now_us);
  void grow(uint32_t most, int64_t now_us);
  void grow_fast();
  void drain();
  [[nodiscard]] uint32_t queued() const;
  void cut(int64_t now_us);
  void settle(const RoundTrip &rtt, int64_t now_us);
  void sample(int64_t rtt_us, int64_t now_us);

  std::atomic<uint32_t> size_ = kWindowFirst;
  uint32_t threshold_ = kWindowMost;
  uint32_t credit_ = 0;  // answers towards the next growth by one
  bool limits_ = false;  // queries have waited for room in this round
  int64_t grown_us_ = 0;
  int64_t cut_us_ = 0;   // until when queries that left belong to the last overload
  int64_t left_us_ = 0;  // when a query last left

  // The present round, and what the last one brought.
  int64_t round_us_ = 0;
  uint32_t in_round_ = 0;
  uint32_t in_last_round_ = 0;
  uint32_t under_way_then_ = 0;  // when it began
  unsigned flat_rounds_ = 0;     // in a row that were no faster than the best before
  unsigned calm_rounds_ = 0;     // of slow growth in a row without a queue
  int64_t best_rate_ = 0;        // answers a second

  // The round-trip times of the present sample, and the least that samples had in this period and the last.
  uint32_t sampled_ = 0;
  int64_t sample_least_us_ = kUnknown;
  int64_t sample_sum_us_ = 0;
  int64_t least_us_ = kUnknown;
  int64_t least_mean_us_ = kUnknown;
  int64_t period_us_ = 0;  // when the present period began, and its least
  int64_t period_least_us_ = kUnknown;
  int64_t period_least_mean_us_ = kUnknown;
  int64_t mean_us_ = 0;  // of the last sample
  int64_t least_of_sample_us_ = 1;
  bool queueing_ = false;  // by the last sample, queries queue on their way

  Cohort cohort_;
  uint32_t noise_ = 0;       // of kLossWhole, the share that the line loses
  uint32_t share_then_ = 0;  // the share for which the window was cut, until the next cohort has settled; else 0
  uint32_t size_then_ = 0;

  // The pace, in nanoseconds (a generic cell rate algorithm): when the next query would leave if all left evenly.
  int64_t next_ns_ = 0;
  int64_t ahead_ns_ = 0;  // how far ahead of that queries may leave
};

}  // namespace dns

#endif  // DNS_ENGINE_WINDOW_H
