// edns.h - EDNS0 (RFC 6891): which queries carry it, and the fallback to plain DNS for servers that do not understand
// it.
#ifndef DNS_ENGINE_EDNS_H
#define DNS_ENGINE_EDNS_H

#include <stdint.h>

#include <span>

#include <dns_engine.h>
#include <message.h>

#include "arrival.h"

namespace dns {

// add_opt appends the OPT record to a query's packet of `size` bytes, where its present server is asked with EDNS0, and
// notes whether it did. Returns the packet's new size.
[[nodiscard]] size_t add_opt(dns_query *q, std::span<uint8_t> packet, size_t size);

// wants_no_opt tells whether a server rejects the OPT record that it was sent: with an error and without an OPT record
// of its own, or with BADVERS (RFC 6891, 6.1.3 and 7).
[[nodiscard]] bool wants_no_opt(const dns_query *q, unsigned place, std::span<const uint8_t> packet,
                                const Header &header);

// lacks_question tells whether a packet is an error that consists of a header alone, as sent by servers that cannot
// parse a query. When it comes from the present attempt's server, take_lacking_question sends the query there again
// without EDNS0. A forger need not guess a name for such a packet, so it never ends a query, and only one counts.
[[nodiscard]] bool lacks_question(std::span<const uint8_t> packet, const Header &header);
void take_lacking_question(dns_query *q, unsigned place);

// note_plain_answer remembers of the server at `place` that it answered a query without EDNS0.
void note_plain_answer(const dns_query *q, unsigned place);

}  // namespace dns

#endif  // DNS_ENGINE_EDNS_H
