// invariants.h - the check that a context's lists, timers, tables and counts agree.
//
// It runs on the thread that drives the context, after each turn of the loop, in debug builds. It only reads: it
// repairs nothing, and it ends the process at the first contradiction.
#ifndef DNS_ENGINE_INVARIANTS_H
#define DNS_ENGINE_INVARIANTS_H

#include "context.h"

namespace dns {

// check_turn is called after every turn of the loop, and checks only as often as keeps its cost a constant part of a
// turn's; release builds skip it. check_all checks at once, in every build. Both write a line that says why before they
// end the process.
void check_all(dns_ctx *ctx);
#ifdef NDEBUG
inline void check_turn(dns_ctx *) {}
#else
void check_turn(dns_ctx *ctx);
#endif

}  // namespace dns

#endif  // DNS_ENGINE_INVARIANTS_H
