// options.h - a context's options, as dns_set_opt takes them.
#ifndef DNS_ENGINE_OPTIONS_H
#define DNS_ENGINE_OPTIONS_H

#include <stdint.h>

#include "bounds.h"
#include "window.h"

namespace dns {

struct Options {
  uint32_t flags = 0;
  int64_t timeout_us = 3 * kUsPerSecond;
  uint32_t ntries = 4;
  uint32_t ndots = 1;
  uint32_t udp_size = 1232;
  uint32_t port = 53;
  uint32_t maxloop = 100;
  uint32_t maxalias = 16;
  uint32_t bsc_size = 0;
  uint32_t bsc_update_s = 60;
  uint32_t bsc_nbest = 1;
  uint32_t minttl = 0;
  uint32_t window = kWindowMost;
  uint32_t rate = 0;

  [[nodiscard]] Limits limits() const { return {window, rate}; }
};

}  // namespace dns

#endif  // DNS_ENGINE_OPTIONS_H
