// clock.cc - the engine's moments, and its memory.
#include <stdlib.h>
#include <time.h>

#include <atomic>

#include <dns_engine.h>

#include "bounds.h"

using namespace dns;

namespace {

constexpr dns_time kEpoch2000 = 946684800;
constexpr int64_t kNsPerUs = 1000;

int64_t clock_us(clockid_t clock) {
  timespec now;
  clock_gettime(clock, &now);
  return int64_t{now.tv_sec} * kUsPerSecond + now.tv_nsec / kNsPerUs;
}

}  // namespace

extern "C" {

const dns_timeval dns_tv_infinite = {INT32_MAX, 999999};
const dns_timeval dns_tv_zero = {0, 0};

void *dns_calloc(size_t count, size_t size) {
  return calloc(count, size);
}
void *dns_realloc(void *block, size_t size) {
  return realloc(block, size);
}
void dns_free(void *block) {
  free(block);
}

void dns_gettimeofday(dns_timeval *now) {
  // No guarded initialiser: a child forked during the initialisation would wait for its end forever.
  static constinit std::atomic<int64_t> noted = 0;
  int64_t start = noted.load(std::memory_order_relaxed);
  if (start == 0) {
    const int64_t fresh = clock_us(CLOCK_REALTIME) - clock_us(CLOCK_MONOTONIC);
    if (noted.compare_exchange_strong(start, fresh)) start = fresh;
  }
  const int64_t us = start + clock_us(CLOCK_MONOTONIC);
  *now = {static_cast<int32_t>(us / kUsPerSecond), static_cast<int32_t>(us % kUsPerSecond)};
}

dns_time dns_gettime(dns_time *now) {
  const dns_time moment = static_cast<dns_time>(time(nullptr)) - kEpoch2000;
  if (now != nullptr) *now = moment;
  return moment;
}

}  // extern "C"
