// trace.h - the calls of the debug function: for packets, and for what the cache holds.
#ifndef DNS_ENGINE_TRACE_H
#define DNS_ENGINE_TRACE_H

#include <stddef.h>
#include <stdint.h>

#include <dns_engine.h>

#include "arrival.h"
#include "context.h"

namespace dns {

// Hold keeps the records of queries and the memory of the last result while a debug function runs: that function may
// cancel any query, also the one it is told of, and may parse packets of its own.
class Hold {
 public:
  explicit Hold(dns_ctx *ctx);
  ~Hold();
  Hold(const Hold &) = delete;
  Hold &operator=(const Hold &) = delete;

 private:
  dns_ctx *ctx_;
  uint8_t *result_;
  size_t result_size_;
};

// tell_packet tells of a packet that left or arrived; the caller has a Hold, if a query could be cancelled. tell_answer
// tells of an answer to a query, tell_cache of what the answer cache holds of it; false when that cancelled the query.
void tell_packet(dns_ctx *ctx, dns_query *q, int code, const Arrival &arrival, int rtt_ms);
[[nodiscard]] bool tell_any_answer(dns_query *q, int code, const Arrival &arrival);
[[nodiscard]] inline bool tell_answer(dns_query *q, int code, const Arrival &arrival) {
  return !q->ctx->tells(DNS_DE_PKT) || tell_any_answer(q, code, arrival);
}
[[nodiscard]] bool tell_cache(dns_query *q, int code, dns_dcache *data);

}  // namespace dns

#endif  // DNS_ENGINE_TRACE_H
