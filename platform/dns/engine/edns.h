// edns.h - EDNS0 (RFC 6891): which queries say it, and the fallback to plain DNS for servers that stumble over it.
#ifndef DNS_ENGINE_EDNS_H
#define DNS_ENGINE_EDNS_H

#include <stdint.h>

#include <span>

#include <dns_engine.h>
#include <message.h>

#include "arrival.h"

namespace dns {

// add_opt appends the OPT record of a query to its present server, where it says EDNS0, and notes whether it does.
// Returns the size of the packet, of which `size` bytes are written.
[[nodiscard]] size_t add_opt(dns_query *q, std::span<uint8_t> packet, size_t size);

// wants_no_opt tells whether a server stumbled over the OPT record that it was sent: it says that it does not
// understand the query, in an answer without an OPT record, or that it knows no version of EDNS0 (RFC 6891, 6.1.3 and
// 7).
[[nodiscard]] bool wants_no_opt(const dns_query *q, unsigned place, std::span<const uint8_t> packet,
                                const Header &header);

// lacks_question tells whether a packet is what servers send that cannot read a query at all: an error and a header.
// take_lacking_question has such a server, when it is that of the present attempt, asked again without EDNS0. A forger
// needs no name for such a packet; it ends nothing, and counts once.
[[nodiscard]] bool lacks_question(std::span<const uint8_t> packet, const Header &header);
void take_lacking_question(dns_query *q, unsigned place);

// note_plain_answer remembers of the server at `place` that it answered a query without EDNS0.
void note_plain_answer(const dns_query *q, unsigned place);

}  // namespace dns

#endif  // DNS_ENGINE_EDNS_H
