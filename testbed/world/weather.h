// weather.h - what the simulated network does to packets, and how many its servers can take.
#ifndef KAVO_TESTBED_WEATHER_H
#define KAVO_TESTBED_WEATHER_H

#include <temper.h>

#include <cstdint>

namespace sim {

struct Weather {
  int loss_percent = 0;
  int duplicate_percent = 0;
  int64_t delay_us = 100;
  int64_t jitter_us = 0;
  int forged_percent = 0;  // of the packets sent, a forger answers with a guessed id
  int breaks_percent = 0;  // of the writes to a connection and the reads that find it empty, it breaks
};

// Capacity is what a server can take by UDP: a queue of finite length before it, a time that it takes for each query,
// and what it does with queries above a rate.
struct Capacity {
  unsigned queue = UINT32_MAX;
  int64_t service_us = 0;
  int64_t per_second = INT32_MAX;  // counted in periods of 20 ms
  Temper above = Temper::dead;     // to queries above the rate
  int64_t busy_until_us = 0;
  int64_t period = 0;
  int64_t in_period = 0;
  unsigned dropped = 0;  // by the queue
};

}  // namespace sim

#endif  // KAVO_TESTBED_WEATHER_H
