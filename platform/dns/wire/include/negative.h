// negative.h - negative answers (RFC 2308): what the authority section says, and how long a cache may keep that.
//
// Stateless; any thread. read_negative reports what it finds and decides nothing: the caller tells a negative answer
// from a referral.
#ifndef NEGATIVE_H
#define NEGATIVE_H

#include <stddef.h>
#include <stdint.h>

#include <span>

#include <kavo/dns.h>

namespace dns {

// NegativeAnswer is what the authority section of a packet without an answer says.
struct NegativeAnswer {
  bool soa;        // it has a SOA record, owned by the name asked for or by one above it
  bool stray_soa;  // it has a SOA record of another zone
  bool ns;         // it has NS records
  int32_t ttl;     // seconds to keep the negative answer: the lesser of the SOA's TTL and its MINIMUM; 0 without a SOA
  uint8_t zone[DNS_MAXDN];  // the owner of the SOA, or of the NS records
};
// read_negative reads the records from `authority_at` on, for the name `dn`. DNS_E_NOERROR; DNS_E_PROTOCOL for a
// malformed section.
[[nodiscard]] dns_status read_negative(std::span<const uint8_t> packet, size_t authority_at,
                                       std::span<const uint8_t> dn, NegativeAnswer *negative);

}  // namespace dns

#endif  // NEGATIVE_H
