// chain.h - the CNAME chain of an answer section: where it ends, and how many records answer there.
//
// Stateless; any thread. The packet is untrusted, and its CNAMEs may come in any order. follow_chain stays inside the
// packet: it neither allocates nor sends, and the caller decides whether to query for the end of a chain.
#ifndef CHAIN_H
#define CHAIN_H

#include <stddef.h>
#include <stdint.h>

#include <span>

#include <kavo/dns.h>

namespace dns {

// Chain is the result of follow_chain: the records of the asked type at `end` answer the question.
struct Chain {
  uint8_t end[DNS_MAXDN];
  unsigned end_size;
  unsigned cnames;   // CNAME records followed
  unsigned records;  // records of the type (and class) at the end
  int32_t ttl;       // the least TTL of the CNAMEs and those records; INT32_MAX without any
  bool left;         // `end` is outside the zone of the servers that answered, so that nothing is known about it
};
// follow_chain walks the answer section from `dn`, a whole DN. When `typ` is CNAME or ANY, a CNAME is itself the answer
// and is not followed. The walk ends at the first name outside the zone `within` (null: none is outside), because that
// zone's servers have no authority over it (RFC 2181, 5.4.1). DNS_E_NOERROR, DNS_E_PROTOCOL for a section that is
// malformed, DNS_E_CNLOOP beyond `cnames_max` CNAMEs.
[[nodiscard]] dns_status follow_chain(std::span<const uint8_t> packet, size_t answers_at, std::span<const uint8_t> dn,
                                      dns_type typ, dns_class cls, unsigned cnames_max, Chain *chain,
                                      const uint8_t *within = nullptr);

}  // namespace dns

#endif  // CHAIN_H
