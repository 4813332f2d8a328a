// state.h - the states of a query, and the one place that moves a query from one to another.
//
//   dns_submit_dn_serv -> queued -> (cache) -> sending <-> waiting -> delivering
//                           |                   |  ^          |            ^
//                           +-> coalesced ------|--+----------|------------+
//                                               |             |            |
//                                               +-> pausing <-+------------+
//                                               +-> resolving <-+----------+
//
// A query is in exactly one list, or has a timer in the wheel, and is taken out of it before anyone is called.
// dns_cancel takes it from any state but the last to the end.
#ifndef DNS_ENGINE_STATE_H
#define DNS_ENGINE_STATE_H

#include <list.h>
#include <stdint.h>

struct dns_ctx;
struct dns_query;

namespace dns {

enum class State : uint8_t {
  queued,      // submitted; the cache comes next
  coalesced,   // shares the outcome of its leader
  sending,     // to leave by UDP or TCP: now, or when its server, socket or connection has room
  waiting,     // for an answer to its present attempt
  pausing,     // until its servers, none of which was reached, are tried again
  resolving,   // until the lookup of a server's address is over
  delivering,  // over; its callback runs
  cancelled,   // over; its record is kept while a debug function runs
};

// name_of returns a state's name, as a log says it.
[[nodiscard]] const char *name_of(State state);

// is_legal tells whether a query may go from one state to the other.
[[nodiscard]] bool is_legal(State from, State to);

// move takes a query out of the list or the timers that its state has it in, and appends it to the `list` of its new
// state (null: none). move_until has it in the timers instead, until a deadline (microseconds). take_out leaves it in
// neither, for a moment.
void move(dns_query *q, State to, base::Link *list);
void move_until(dns_query *q, State to, int64_t deadline_us);
void take_out(dns_query *q);

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

#endif  // DNS_ENGINE_STATE_H
