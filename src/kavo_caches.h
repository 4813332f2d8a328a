// kavo_caches.h - the caches that a context uses: its own and the host's.
//
// They change only while the context is at rest. What is in a cache is in kavo_cache.cc and kavo_cache_dump.cc.
#ifndef KAVO_CACHES_H
#define KAVO_CACHES_H

#include <stdint.h>

#include <kavo.h>

// kavo_caches_init makes one cache of `size` bytes for answers and referrals. A failure is logged but for a cache that
// the engine refuses: KAVOE_DNS.
[[nodiscard]] KAVO_ERR kavo_caches_init(KAVO ctx, int size);

// kavo_caches_destroy destroys the context's own caches.
void kavo_caches_destroy(KAVO ctx);

// kavo_caches_set_referrals installs a referral cache of `size` bytes of its own; the answer cache stays, also where it
// served referrals. 0 changes nothing. KAVOE_DNS.
[[nodiscard]] KAVO_ERR kavo_caches_set_referrals(KAVO ctx, uint32_t size);

// kavo_caches_set_opt sets an option (DNS_CROPT_...) of the context's own answer cache, kavo_caches_set_flag a bit
// (DNS_CR_...) of its flags; without such a cache they do nothing. KAVOE_DNS.
[[nodiscard]] KAVO_ERR kavo_caches_set_opt(KAVO ctx, int opt, uint32_t value);
[[nodiscard]] KAVO_ERR kavo_caches_set_flag(KAVO ctx, uint32_t flag, bool on);

#endif  // KAVO_CACHES_H
