// answer_cache.h - a query's turn at the answer cache: what it is answered with from there, and what of its outcome is
// kept.
#ifndef DNS_ENGINE_ANSWER_CACHE_H
#define DNS_ENGINE_ANSWER_CACHE_H

#include <stdint.h>

#include <span>

#include <dns_engine.h>

namespace dns {

// look_ahead has the processor fetch what the look into the answer cache will need, when a query is submitted.
void look_ahead(dns_query *q);

// answer_from_cache consults the answer cache; true when the query is over.
[[nodiscard]] bool answer_from_cache(dns_query *q);

// KeptAnswer is what of an answer packet the cache may keep.
struct KeptAnswer {
  std::span<const uint8_t> packet;
  size_t answers_at;
  int rcode;
  int32_t ttl;   // seconds
  bool has_ttl;  // false for a negative answer without a SOA record
};
void keep_answer(dns_query *q, const KeptAnswer &answer);

}  // namespace dns

#endif  // DNS_ENGINE_ANSWER_CACHE_H
