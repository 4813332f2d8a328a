// result.h - what a query's callback receives: the block that its parser lays out in the context's memory.
#ifndef DNS_ENGINE_RESULT_H
#define DNS_ENGINE_RESULT_H

#include <stddef.h>
#include <stdint.h>

#include <span>

#include <dns_engine.h>

namespace dns {

// The statuses that are answers: records, or a negative answer.
[[nodiscard]] constexpr bool is_negative(dns_status status) {
  return status == DNS_E_NXDOMAIN || status == DNS_E_NODATA;
}
[[nodiscard]] constexpr bool is_answer(dns_status status) {
  return status == DNS_E_NOERROR || is_negative(status);
}

// answers_after is where the answers begin in a packet with one question, whose name has `size` bytes.
[[nodiscard]] constexpr size_t answers_after(size_t size) {
  constexpr size_t kTypeAndClass = 4;
  return DNS_HSIZE + size + kTypeAndClass;
}

// result_of runs the query's parser over a packet, whose answers begin at `answers_at`. The block's size, 0 without a
// parser, or a negative status. A negative answer has no result, unless the parser is that of raw packets.
[[nodiscard]] int result_of(dns_query *q, dns_status status, std::span<const uint8_t> packet, size_t answers_at,
                            void **result);

}  // namespace dns

#endif  // DNS_ENGINE_RESULT_H
