#include "cache_entry.h"

#include <check.h>
#include <checksum.h>

#include <algorithm>

namespace testbed {

Cache cache_of(uint64_t size) {
  return {dns_cache_init(size), dns_cache_destroy};
}

Entry entry_of(std::string_view name, dns_type type, int32_t ttl, dns_class cls) {
  Entry entry(dns_cdata_init(16), dns_cdata_free);
  check(dns_cdata_setdn(entry.get(), dn(name).data()) == 0 && dns_cdata_setcls(entry.get(), cls) == 0 &&
            dns_cdata_settyp(entry.get(), type) == 0 && dns_cdata_setttl(entry.get(), ttl) == 0,
        "an entry has a name, a type and a TTL");
  return entry;
}

int add(dns_cdata *entry, std::string_view owner, dns_type type, int32_t ttl, Bytes data, const dns_parse *packet,
        unsigned char *at) {
  dns_rr rr = {};
  std::ranges::copy(dn(owner), rr.dnsrr_dn);
  rr.dnsrr_cls = DNS_C_IN;
  rr.dnsrr_typ = type;
  rr.dnsrr_ttl = ttl;
  rr.dnsrr_dsz = static_cast<unsigned>(data.size());
  rr.dnsrr_dptr = at == nullptr ? data.data() : at;
  rr.dnsrr_dend = rr.dnsrr_dptr + data.size();
  return dns_cdata_addrr(entry, &rr, packet);
}

int put(dns_cache *cache, std::string_view name, dns_type type, int32_t ttl, const std::vector<Bytes> &records,
        dns_time now, unsigned flags, int rcode) {
  const Entry entry = entry_of(name, type, ttl);
  for (const Bytes &data : records)
    check(add(entry.get(), name, type, ttl, data) == 0, "an entry takes a record");
  dns_cdata_setflags(entry.get(), flags);
  dns_cdata_setrcode(entry.get(), rcode);
  return dns_cacher_put(dns_cache_cacher(cache), entry.get(), now);
}

void seal_dump(std::span<uint8_t> dump) {
  constexpr size_t kMagic = 8, kSum = 8, kSizeAt = 12, kHead = 16;
  uint64_t sum = 0;
  for (size_t at = kMagic; at + kHead <= dump.size();) {
    uint8_t *frame = dump.data() + at;
    const size_t size = size_t{frame[kSizeAt]} << 24 | size_t{frame[kSizeAt + 1]} << 16 |
                        size_t{frame[kSizeAt + 2]} << 8 | frame[kSizeAt + 3];
    const size_t whole = kHead + std::min(size, dump.size() - at - kHead);
    sum = checksum(sum, frame + kSum, whole - kSum);
    for (size_t i = 0; i < kSum; ++i)
      frame[i] = static_cast<uint8_t>(sum >> (56 - 8 * i));
    at += whole;
  }
}

}  // namespace testbed
