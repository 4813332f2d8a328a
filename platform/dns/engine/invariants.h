// invariants.h - that all records of a context agree.
#ifndef DNS_ENGINE_INVARIANTS_H
#define DNS_ENGINE_INVARIANTS_H

#include "context.h"

namespace dns {

// check_turn is called after every turn of the loop. A debug build ends the process there, with a line that says why,
// when the context's lists, timers and counts contradict each other; other builds do nothing. It looks at as many
// records as keeps its cost a constant part of a turn's; check_all looks at all, in every build.
void check_all(dns_ctx *ctx);
#ifdef NDEBUG
inline void check_turn(dns_ctx *) {}
#else
void check_turn(dns_ctx *ctx);
#endif

}  // namespace dns

#endif  // DNS_ENGINE_INVARIANTS_H
