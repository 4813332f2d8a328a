// kavo_time.cc - deadlines from timeouts, and elapsed milliseconds. No state, any thread.
//
// A time value is valid when its seconds are within pelk's bounds and its microseconds are below a second and of the
// seconds' sign. Sums that would leave the bounds stop at them.
#include "kavo_time.h"

#include <limits.h>
#include <stdint.h>
#include <sys/time.h>

#include <kavo.h>
#include <pelk_sync.h>

namespace {

constexpr int64_t kMicro = 1000000;  // microseconds in a second
constexpr int kMilli = 1000;         // milliseconds in a second, microseconds in a millisecond

constexpr struct timeval kLatest = {PELK_TIME_MAX, kMicro - 1};
constexpr struct timeval kEarliest = {PELK_TIME_MIN, 1 - kMicro};

[[nodiscard]] bool is_valid(const struct timeval &value) {
  if (value.tv_sec < PELK_TIME_MIN || value.tv_sec > PELK_TIME_MAX) return false;
  const int64_t least = value.tv_sec > 0 ? 0 : 1 - kMicro;
  const int64_t most = value.tv_sec < 0 ? 0 : kMicro - 1;
  return value.tv_usec >= least && value.tv_usec <= most;
}

// add returns the sum of two valid time values, valid too.
[[nodiscard]] struct timeval add(const struct timeval &now, const struct timeval &span) {
  if (span.tv_sec > 0 && now.tv_sec > PELK_TIME_MAX - span.tv_sec) return kLatest;
  if (span.tv_sec < 0 && now.tv_sec < PELK_TIME_MIN - span.tv_sec) return kEarliest;
  const int64_t seconds = now.tv_sec + span.tv_sec;
  const int64_t micro = now.tv_usec + span.tv_usec;
  const int64_t carry = micro / kMicro;
  if (carry > 0 && seconds > PELK_TIME_MAX - carry) return kLatest;
  if (carry < 0 && seconds < PELK_TIME_MIN - carry) return kEarliest;
  struct timeval sum = {};
  sum.tv_sec = seconds + carry;
  sum.tv_usec = micro - carry * kMicro;
  if (sum.tv_sec > 0 && sum.tv_usec < 0) {
    sum.tv_sec--;
    sum.tv_usec += kMicro;
  } else if (sum.tv_sec < 0 && sum.tv_usec > 0) {
    sum.tv_sec++;
    sum.tv_usec -= kMicro;
  }
  return sum;
}

// to_span returns a span of milliseconds, both parts of its sign.
[[nodiscard]] struct timeval to_span(int milliseconds) {
  return {milliseconds / kMilli, milliseconds % kMilli * kMilli};
}

// from_now returns the moment that is a span from now.
[[nodiscard]] struct timeval from_now(const struct timeval &span) {
  struct timeval now = {};
  gettimeofday(&now, nullptr);
  return is_valid(now) && is_valid(span) ? add(now, span) : now;
}

}  // namespace

KAVO_ERR kavo_time_milli_timeval(int milliseconds, struct timeval *result) {
  if (result == nullptr) return KAVOE_BADPAR;
  *result = to_span(milliseconds);
  return KAVOE_OK;
}

KAVO_ERR kavo_time_deadline(const struct timeval *timeout, struct timeval *deadline) {
  if (timeout == nullptr || deadline == nullptr) return KAVOE_BADPAR;
  *deadline = from_now(*timeout);
  return KAVOE_OK;
}

unsigned int kavo_time_milli_delay(const struct timeval *start, const struct timeval *finish) {
  if (start == nullptr || finish == nullptr) return 0;
  return kavo_milli_delay(kavo_time_milli(*start), kavo_time_milli(*finish));
}

uint32_t kavo_time_milli(const struct timeval &moment) {
  const uint64_t rounding = kMilli / 2;
  const int64_t micro = static_cast<int64_t>(static_cast<uint64_t>(moment.tv_usec) + rounding);
  return static_cast<uint32_t>(moment.tv_sec) * kMilli + static_cast<uint32_t>(micro / kMilli);
}

struct timeval *kavo_get_deadline(unsigned int timeout, struct timeval *deadline) {
  if (timeout == UINT_MAX || deadline == nullptr) return nullptr;
  *deadline = from_now(to_span(static_cast<int>(timeout)));
  return deadline;
}
