// server.h - what the engine knows of one server: its round-trip time, how it is to be queried, whether it is up, what
// it costs, and its statistics. Only the driving thread touches a record, except for the statistics: those are relaxed
// atomics, which any thread may read.
#ifndef DNS_ENGINE_SERVER_H
#define DNS_ENGINE_SERVER_H

#include <stdint.h>

#include <atomic>

#include <address.h>
#include <kavo/dns_types.h>
#include <list.h>

#include "bounds.h"
#include "window.h"

namespace dns {

inline constexpr unsigned kServerCookieMax = 32;  // RFC 7873, section 4

// A server counts as one that keeps the case after so many letters came back as they were sent. A server with a case of
// its own matches that many by chance once in 2^32.
inline constexpr unsigned kLettersKnown = 32;

// Server is one address that queries go to. As a Link it is in the list of unused records.
struct Server : base::Link {
  Address address;
  unsigned holders = 0;
  Server *bucket_next = nullptr;
  uint32_t hash = 0;  // of its address

  // The smoothed round-trip time and its variation (RFC 6298), in microseconds; 0 while there is no estimate.
  int64_t srtt_us = 0;
  int64_t rttvar_us = 0;
  int64_t measured_us = 0;  // when it last answered a query that was sent to it once

  // How it is to be queried.
  int64_t plain_until_us = 0;  // until when it is sent no EDNS0
  int64_t lower_until_us = 0;  // until when it is sent lower case, because it does not keep the case
  int64_t other_case_us = 0;  // since when it has answered only in another case, though it kept the case before; else 0
  int64_t cookie_until_us = 0;  // until when its answers must have a cookie
  int64_t tcp_until_us = 0;     // until when no more than `tcp_limit` queries are posted on one connection
  uint32_t tcp_limit = 0;
  uint8_t letters_kept = 0;  // in its answers, up to kLettersKnown
  uint8_t cookie_size = 0;
  uint8_t cookie[kServerCookieMax] = {};  // the server's own (RFC 7873)

  // Queries that wait for its answer by UDP, and those that are parked until the window lets them leave: those that
  // were sent before go first. A server whose parked queries wait for nothing but time is in dns_ctx::pacing.
  unsigned under_way = 0;
  Window window;
  base::Link parked_again;
  base::Link parked;

  // Whether it is up, and what a query to it costs.
  int64_t heard_us = 0;       // when it last answered
  unsigned silent = 0;        // attempts in a row without an answer
  uint32_t loss = 0;          // how many of kLossWhole recent attempts timed out
  int64_t loss_us = 0;        // when `loss` was last reduced
  int64_t probe_at_us = 0;    // when a query may next go to it although others are better
  int64_t probe_wait_us = 0;  // how long after the last such query
  int64_t rated_us = 0;       // when `cost_us` was computed; 0: to be computed
  int64_t cost_us = 0;        // its cost then
  int64_t zone_cost_us = 0;   // what the cost zone says, until `zone_until_us`
  int64_t zone_until_us = 0;
  int64_t cut_off_until_us = 0;  // until when it counts as one to which the host has no route

  std::atomic<int> average_ms = 0;
  std::atomic<int> last_ms = 0;
  std::atomic<dns_time> last_check = 0;
  std::atomic<uint64_t> sent = 0;
  std::atomic<uint64_t> used = 0;
  std::atomic<uint64_t> timed_out = 0;
  std::atomic<uint64_t> overloads = 0;  // of those, attempts that were lost because too much was sent
  std::atomic<uint32_t> waiting = 0;    // queries that are parked

  // keeps_case tells whether it is known to keep the case of letters: an answer in another case is then forged.
  [[nodiscard]] bool keeps_case() const { return letters_kept >= kLettersKnown; }
  // gives_cookies tells whether it has lately answered with a cookie.
  [[nodiscard]] bool gives_cookies(int64_t now_us) const { return now_us < cookie_until_us; }
  [[nodiscard]] bool marked_down() const { return silent >= kSilentMax; }
  [[nodiscard]] RoundTrip round_trip() const { return {srtt_us, rttvar_us}; }
  // Only the driving thread writes the count, so it needs no atomic addition.
  void count_waiting(int more) {
    waiting.store(waiting.load(std::memory_order_relaxed) + static_cast<uint32_t>(more), std::memory_order_relaxed);
  }
  [[nodiscard]] bool has_parked() const { return !parked.alone() || !parked_again.alone(); }

  // sample takes one measured round trip into the estimate. rto_us is the timeout of an attempt in the given round,
  // between kRtoMinUs and `longest_us`.
  void sample(int64_t rtt_us, dns_time now);
  [[nodiscard]] int64_t rto_us(unsigned round, int64_t longest_us) const;
  // heard notes an answer, missed that an attempt has had none: true when that marks the server down.
  void heard(int64_t now_us);
  [[nodiscard]] bool missed(int64_t sent_us, int64_t now_us);
  // forget_losses halves the losses for each kLossHalfLifeUs that has passed. forget_cost drops what the cost zone has
  // said.
  void forget_losses(int64_t now_us);
  void forget_cost() { zone_cost_us = zone_until_us = rated_us = 0; }
};

}  // namespace dns

#endif  // DNS_ENGINE_SERVER_H
