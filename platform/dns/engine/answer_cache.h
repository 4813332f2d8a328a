// answer_cache.h - a query and the answer cache: the lookup before it is sent, and the storing of its answer.
#ifndef DNS_ENGINE_ANSWER_CACHE_H
#define DNS_ENGINE_ANSWER_CACHE_H

#include <stdint.h>

#include <span>

#include <dns_engine.h>

namespace dns {

// look_ahead prefetches, when a query is submitted, what its lookup in the answer cache will read.
void look_ahead(dns_query *q);

// answer_from_cache looks a query up in the answer cache; true when that ends the query.
[[nodiscard]] bool answer_from_cache(dns_query *q);

// KeptAnswer is an answer that the cache may keep.
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
