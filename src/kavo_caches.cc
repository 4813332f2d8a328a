// kavo_caches.cc - making, installing and destroying the caches of a context.
//
// Runs on the host's threads while the context is at rest, hence without a lock.
#include "kavo_caches.h"

#include <dns_engine.h>
#include <pelk_log.h>

#include "kavo_rest.h"
#include "kavo_state.h"
#include "kavo_t.h"

namespace {

constexpr char kSource[] = "kavo";

[[nodiscard]] struct dns_cacher *cacher_of(struct dns_cache *cache) {
  struct dns_cacher *cacher = dns_cache_cacher(cache);
  PELK_ASSERT(cacher, kSource);
  return cacher;
}

[[nodiscard]] KAVO_ERR result_of(int status) {
  return status < 0 ? KAVOE_DNS : KAVOE_OK;
}

// own_cache returns the context's own cache that a cacher belongs to, or null.
[[nodiscard]] struct dns_cache *own_cache(KAVO kavo, KAVO_CACHE cacher) {
  for (struct dns_cache *cache : {kavo->cache, kavo->rcache})
    if (cache != nullptr && dns_cache_cacher(cache) == cacher) return cache;
  return nullptr;
}

// keep_own notes which of the context's own caches serve answers and referrals from now on, and destroys those that
// serve neither.
void keep_own(KAVO kavo, struct dns_cache *answers, struct dns_cache *referrals) {
  struct dns_cache *before[] = {kavo->cache, kavo->rcache != kavo->cache ? kavo->rcache : nullptr};
  kavo->cache = answers;
  kavo->rcache = referrals;
  for (struct dns_cache *cache : before)
    if (cache != nullptr && cache != answers && cache != referrals) dns_cache_destroy(cache);
}

}  // namespace

KAVO_ERR kavo_caches_init(KAVO ctx, int size) {
  struct dns_cache *cache = dns_cache_init(static_cast<uint64_t>(size));
  if (cache == nullptr) {
    PELK_ERROR(kSource, "kavo_init_ext", 0, KAVOE_DNS, "Unable to initialize cache");
    return KAVOE_DNS;
  }
  if (dns_set_cache(ctx->udns_ctx, DNS_CU_ANS | DNS_CU_REF, cacher_of(cache)) != 0) {
    dns_cache_destroy(cache);
    return KAVOE_DNS;
  }
  ctx->cache = cache;
  ctx->rcache = cache;
  return KAVOE_OK;
}

void kavo_caches_destroy(KAVO ctx) {
  keep_own(ctx, nullptr, nullptr);
}

KAVO_ERR kavo_caches_set_referrals(KAVO ctx, uint32_t size) {
  if (size == 0) return KAVOE_OK;
  struct dns_cache *cache = dns_cache_init(size);
  if (cache == nullptr) {
    PELK_ERROR(kSource, "kavo_set_opt", 0, KAVOE_DNS, "Unable to initialize cache for DNS recursion");
    return KAVOE_DNS;
  }
  const dns_status status = dns_set_cache(ctx->udns_ctx, DNS_CU_REF, cacher_of(cache));
  if (status < 0) {
    dns_cache_destroy(cache);
    return KAVOE_DNS;
  }
  keep_own(ctx, ctx->cache, cache);
  return status == 0 ? KAVOE_OK : KAVOE_DNS;
}

KAVO_ERR kavo_caches_set_opt(KAVO ctx, int opt, uint32_t value) {
  if (ctx->cache == nullptr) return KAVOE_OK;
  return result_of(dns_cacher_setopt(cacher_of(ctx->cache), opt, &value, sizeof value));
}

KAVO_ERR kavo_caches_set_flag(KAVO ctx, uint32_t flag, bool on) {
  if (ctx->cache == nullptr) return KAVOE_OK;
  struct dns_cacher *cacher = cacher_of(ctx->cache);
  uint32_t flags = 0;
  if (dns_cacher_getopt(cacher, DNS_CROPT_FLAGS, &flags, sizeof flags) < 0) return KAVOE_DNS;
  flags = on ? flags | flag : flags & ~flag;
  return result_of(dns_cacher_setopt(cacher, DNS_CROPT_FLAGS, &flags, sizeof flags));
}

KAVO_ERR kavo_set_ext_cache(KAVO kavo, KAVO_CACHE_TYPE use, KAVO_CACHE cacher) {
  const KAVO_ERR refused =
      kavo_check_at_rest(kavo, kSource, __func__, "Attempt to set external cache for already opened context");
  if (refused != KAVOE_OK) return refused;
  if (dns_set_cache(kavo->udns_ctx, use, cacher) != 0) {
    PELK_ERROR(kSource, __func__, 0, KAVOE_DNS, "Unable to use external cache");
    return KAVOE_DNS;
  }
  struct dns_cache *own = own_cache(kavo, cacher);
  keep_own(kavo, (use & KAVOCT_ANS) != 0 ? own : kavo->cache, (use & KAVOCT_REF) != 0 ? own : kavo->rcache);
  return KAVOE_OK;
}

KAVO_CACHE kavo_get_ext_cache(KAVO kavo, KAVO_CACHE_TYPE use) {
  return kavo == nullptr || kavo_is_foreign(kavo) ? nullptr : dns_get_cache(kavo->udns_ctx, use);
}
