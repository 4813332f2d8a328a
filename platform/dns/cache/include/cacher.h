// cacher.h - how the engine calls a cache, the built-in one or a host's own. Any thread may call any of this.
#ifndef CACHER_H
#define CACHER_H

#include <stdint.h>

#include <span>

#include <kavo/dns.h>

extern "C" {

// The operations of a cacher, as dns_cacher_ops documents them.
int dns_cacher_get(struct dns_cacher *cacher, struct dns_cdata *entry, dns_time now);
int dns_cacher_put(struct dns_cacher *cacher, const struct dns_cdata *entry, dns_time now);
int dns_cacher_delete(struct dns_cacher *cacher, const struct dns_cdata *entry, dns_time now);
int dns_cacher_getopt(struct dns_cacher *cacher, int opt, void *value, unsigned size);
int dns_cacher_setopt(struct dns_cacher *cacher, int opt, const void *value, unsigned size);

}  // extern "C"

namespace dns {

// cache_look_ahead has the processor fetch where the built-in cache `cacher` files a key. Returns the key's hash, for
// the lookup that follows (dns_cdata::hash), or 0.
[[nodiscard]] uint64_t cache_look_ahead(const dns_cacher *cacher, uint16_t typ, uint16_t cls,
                                        std::span<const uint8_t> dn);

}  // namespace dns

#endif  // CACHER_H
