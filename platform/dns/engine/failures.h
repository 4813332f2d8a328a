// failures.h - which server failed at which query a moment ago (RFC 9520). The same query is not sent to it again for
// kFailureUs, so that failing queries do not become a storm.
//
// It belongs to one context, on the thread that drives it. It holds a fixed number of failures; a new one may replace
// another, whose query then merely costs a packet.
#ifndef DNS_ENGINE_FAILURES_H
#define DNS_ENGINE_FAILURES_H

#include <stdint.h>

#include <kavo/dns_types.h>

#include "bounds.h"

namespace dns {

class Failures {
 public:
  // remember notes that a server failed at a query with `status`, a negative one; `key` is a secret hash of both.
  void remember(uint64_t key, int64_t now_us, dns_status status);
  // recall returns the status with which it failed, or 0.
  [[nodiscard]] dns_status recall(uint64_t key, int64_t now_us) const;
  // fresh tells whether any failure is remembered at all.
  [[nodiscard]] bool fresh(int64_t now_us) const { return now_us < until_us_; }

 private:
  struct Cell {
    uint64_t key;
    int64_t until_us;
    dns_status status;
  };

  Cell cells_[kFailuresMax] = {};
  int64_t until_us_ = 0;  // when the last failure is forgotten
};

}  // namespace dns

#endif  // DNS_ENGINE_FAILURES_H
