// answer_cache.cc - see answer_cache.h.
#include "answer_cache.h"

#include <algorithm>

#include <cacher.h>
#include <cdata.h>

#include "context.h"
#include "delivery.h"
#include "resolving.h"
#include "result.h"
#include "trace.h"

namespace dns {
namespace {

// set_key makes the context's entry the one of this query, with the flags of dns_cdata_setflags.
void set_key(dns_query *q, unsigned flags) {
  dns_cdata *entry = q->ctx->entry;
  (void)dns_cdata_setdn(entry, q->question.dn);
  (void)dns_cdata_setcls(entry, q->question.cls);
  (void)dns_cdata_settyp(entry, q->question.typ);
  (void)dns_cdata_setflags(entry, flags);
}

// keeps_all tells whether a cache keeps every answer for some time, even one with a TTL of 0, which is otherwise for
// the present query alone (RFC 1035, 3.2.1).
bool keeps_all(dns_cacher *cacher) {
  uint32_t least = 0;
  return dns_cacher_getopt(cacher, DNS_CROPT_MINTTL, &least, sizeof least) == 0 && least > 0;
}

// take_cached answers a query from the context's entry; false when the entry turns out to be of no use.
[[nodiscard]] bool take_cached(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  const dns_cdata *entry = ctx->entry;
  dns_status status = DNS_E_NOERROR;
  if (dns_cdata_rcode(entry) == DNS_R_NXDOMAIN) {
    status = DNS_E_NXDOMAIN;
  } else if (dns_cdata_rcode(entry) != DNS_R_NOERROR) {
    return false;
  } else if (cdata_is_negative(entry)) {
    status = DNS_E_NODATA;
  }
  void *result = nullptr;
  int size = 0;
  if (q->question.parse != nullptr && (!is_negative(status) || q->question.parse == dns_parse_pkt)) {
    const int length = cdata_to_packet(entry, ctx->buffers->rebuilt, sizeof ctx->buffers->rebuilt);
    if (length < 0) return false;
    size =
        result_of(q, status, {ctx->buffers->rebuilt, static_cast<size_t>(length)}, answers_after(q->dn_size), &result);
    if (size < 0) return false;
  }
  deliver(q, status, result, static_cast<unsigned>(size), DNS_SF_CACHED);
  return true;
}

}  // namespace

void look_ahead(dns_query *q) {
  const dns_ctx *ctx = q->ctx;
  q->looks_ahead = !q->uncached && ctx->answer_cache != nullptr;
  q->cache_number = ctx->cache_number;
  if (q->looks_ahead)
    q->hash = cache_look_ahead(ctx->answer_cache, q->question.typ, q->question.cls, {q->question.dn, q->dn_size});
}

bool answer_from_cache(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  if (ctx->answer_cache == nullptr || q->uncached) return false;
  set_key(q, 0);
  // The hash is of use in the same cache only: another one has another secret.
  const bool looked_ahead = q->looks_ahead && q->cache_number == ctx->cache_number;
  q->looks_ahead = false;
  ctx->entry->hash = looked_ahead ? q->hash : 0;
  const int result = dns_cacher_get(ctx->answer_cache, ctx->entry, wall(ctx));
  ctx->entry->hash = 0;
  if (result <= 0) return !tell_cache(q, DNS_D_CU_NOAN, nullptr);
  dns_dcache found = {ctx->answer_cache, ctx->entry, DNS_E_NOERROR};
  if (!tell_cache(q, DNS_D_CU_AN, &found)) return true;
  return dns_cdata_ttl(ctx->entry) >= 0 && take_cached(q);
}

void keep_answer(dns_query *q, const KeptAnswer &answer) {
  dns_ctx *ctx = q->ctx;
  if (ctx->answer_cache == nullptr || q->uncached) return;
  const bool passed = passed_cnames(q);
  const unsigned flags = answer.has_ttl ? 0 : kNoSoa;
  set_key(q, flags);
  dns_cdata *entry = passed ? q->resolution->passed : ctx->entry;
  (void)dns_cdata_setflags(entry, flags);
  const int32_t ttl = passed ? std::min(answer.ttl, q->resolution->ttl) : answer.ttl;
  if (answer.has_ttl && ttl == 0 && !keeps_all(ctx->answer_cache)) {
    (void)dns_cacher_delete(ctx->answer_cache, ctx->entry, wall(ctx));
    return;
  }
  if (passed || cdata_from_answer(entry, answer.packet, answer.answers_at, ctx->options.maxalias, answer.rcode, ttl) ==
                    DNS_E_NOERROR)
    (void)dns_cacher_put(ctx->answer_cache, entry, wall(ctx));
}

}  // namespace dns
