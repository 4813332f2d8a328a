// chain.h - where the CNAME chain of an answer leads.
#ifndef CHAIN_H
#define CHAIN_H

#include <stddef.h>
#include <stdint.h>

#include <span>

#include <kavo/dns.h>

namespace dns {

// Chain is where the CNAMEs of an answer lead: the records of the asked type at `end` answer the question.
struct Chain {
  uint8_t end[DNS_MAXDN];
  unsigned end_size;
  unsigned cnames;   // CNAME records followed
  unsigned records;  // records of the type (and class) at the end
  int32_t ttl;       // the least TTL of the CNAMEs and those records; INT32_MAX without any
  bool left;         // `end` lies outside the zone whose servers answered, so that nothing is known about it
};
// follow_chain walks the answer section from `dn`, a whole DN. A CNAME answers a question for CNAME or ANY and is not
// followed then. It ends at the first name outside the zone `within` (null: none is outside), whose servers cannot
// speak for it (RFC 2181, 5.4.1). DNS_E_NOERROR, DNS_E_PROTOCOL for a section that is malformed, DNS_E_CNLOOP beyond
// `cnames_max` CNAMEs.
[[nodiscard]] dns_status follow_chain(std::span<const uint8_t> packet, size_t answers_at, std::span<const uint8_t> dn,
                                      dns_type typ, dns_class cls, unsigned cnames_max, Chain *chain,
                                      const uint8_t *within = nullptr);

}  // namespace dns

#endif  // CHAIN_H
