// cache_entry.h - caches of the engine's, entries that are put into them, and the checksums of a dump.
#ifndef KAVO_TESTBED_CACHE_ENTRY_H
#define KAVO_TESTBED_CACHE_ENTRY_H

#include <dns_engine.h>
#include <packet.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace testbed {

using Cache = std::unique_ptr<dns_cache, decltype(&dns_cache_destroy)>;
using Entry = std::unique_ptr<dns_cdata, decltype(&dns_cdata_free)>;

inline constexpr uint64_t kMegabyte = 1 << 20;

[[nodiscard]] Cache cache_of(uint64_t size = kMegabyte);
[[nodiscard]] Entry entry_of(std::string_view name, dns_type type = DNS_T_A, int32_t ttl = 0, dns_class cls = DNS_C_IN);

// add adds a record to an entry, its data at `at` in a packet where that is told; returns the status.
int add(dns_cdata *entry, std::string_view owner, dns_type type, int32_t ttl, Bytes data,
        const dns_parse *packet = nullptr, unsigned char *at = nullptr);
// put puts an entry into a cache, its records with the entry's own name and TTL; returns the status.
int put(dns_cache *cache, std::string_view name, dns_type type, int32_t ttl, const std::vector<Bytes> &records,
        dns_time now, unsigned flags = 0, int rcode = DNS_R_NOERROR);

// seal_dump gives every frame of a dump the checksum that it should have.
void seal_dump(std::span<uint8_t> dump);

}  // namespace testbed

#endif  // KAVO_TESTBED_CACHE_ENTRY_H
