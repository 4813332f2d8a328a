// negative.h - negative answers (RFC 2308): what an authority section denies, and for how long.
#ifndef NEGATIVE_H
#define NEGATIVE_H

#include <stddef.h>
#include <stdint.h>

#include <span>

#include <kavo/dns.h>

namespace dns {

// NegativeAnswer is what the authority section says when there is no answer.
struct NegativeAnswer {
  bool soa;        // a SOA record stands there whose owner is the name asked or one above it
  bool stray_soa;  // a SOA record of another zone stands there
  bool ns;         // NS records stand there
  int32_t ttl;     // seconds to keep the denial: the lesser of the SOA's TTL and its MINIMUM (RFC 2308); 0 without
  uint8_t zone[DNS_MAXDN];  // the owner of the SOA, or of the NS records
};
[[nodiscard]] dns_status read_negative(std::span<const uint8_t> packet, size_t authority_at,
                                       std::span<const uint8_t> dn, NegativeAnswer *denial);

}  // namespace dns

#endif  // NEGATIVE_H
