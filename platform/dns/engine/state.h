// state.h - the states of a query, and the steps that it may take between them. move.h makes them.
//
//   dns_submit_dn_serv -> queued -> (cache) -> sending <-> waiting -> delivering
//                           |                   |  ^          |            ^
//                           +-> coalesced ------|--+----------|------------+
//                                               +-> parked <--|------------+
//                                               +-> pausing <-+------------+
//                                               +-> resolving <-+----------+
//
// A query is in exactly one list, or has a timer in the wheel, and is taken out of it before anyone is called.
// dns_cancel takes it from any state but the last to the end.
#ifndef DNS_ENGINE_STATE_H
#define DNS_ENGINE_STATE_H

#include <stdint.h>

namespace dns {

enum class State : uint8_t {
  queued,      // submitted; the cache lookup is next
  coalesced,   // shares the outcome of its leader
  sending,     // to leave by UDP or TCP: now, or when its socket or connection has room
  parked,      // until its server's window lets it leave
  waiting,     // until its present attempt is answered or times out
  pausing,     // until the next attempt, as none of its servers was reached
  resolving,   // until the lookup of a server's address is over
  delivering,  // over; its callback runs
  cancelled,   // over; its record is kept while a debug function runs
};

// name_of returns a state's name, for logs.
[[nodiscard]] const char *name_of(State state);

// has_timer tells whether a query in this state has a timer, and is in no list.
[[nodiscard]] constexpr bool has_timer(State state) {
  return state == State::waiting || state == State::pausing;
}

// is_legal tells whether a query may go from one state to the other.
[[nodiscard]] bool is_legal(State from, State to);

}  // namespace dns

#endif  // DNS_ENGINE_STATE_H
