// kavo_time.h - moments in milliseconds, as the delays of answers are measured.
#ifndef KAVO_TIME_H
#define KAVO_TIME_H

#include <stdint.h>
#include <sys/time.h>

// kavo_time_milli returns a moment in whole milliseconds, rounded, modulo 2^32.
[[nodiscard]] uint32_t kavo_time_milli(const struct timeval &moment);

// kavo_milli_delay returns the milliseconds between two such moments, 0 for a finish before the start.
[[nodiscard]] inline unsigned kavo_milli_delay(uint32_t start, uint32_t finish) {
  const auto delay = static_cast<int32_t>(finish - start);
  return delay < 0 ? 0 : static_cast<unsigned>(delay);
}

#endif  // KAVO_TIME_H
