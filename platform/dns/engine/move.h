// move.h - the one place that changes a query's state, and with it the list or the timer that the query has.
//
// It runs on the thread that drives the context, and nothing is locked. A step touches neither servers, sockets nor ids
// (places.h does), and it never calls back.
#ifndef DNS_ENGINE_MOVE_H
#define DNS_ENGINE_MOVE_H

#include <stdint.h>

#include <list.h>

#include "context.h"

namespace dns {

// step changes the state alone; a debug build ends the process at a step that is not legal.
#ifdef NDEBUG
inline void step(dns_query *q, State to) {
  q->state = to;
}
#else
void step(dns_query *q, State to);
#endif

// move takes a query out of the list or the timers that its state has it in, and appends it to the `list` of its new
// state (null: none). move_until has it in the timers instead, until a deadline (microseconds). take_out leaves it in
// neither, for a moment.
inline void take_out(dns_query *q) {
  if (has_timer(q->state)) {
    q->ctx->timers.remove(q);
    return;
  }
  if (q->state == State::parked && !q->alone()) [[unlikely]]
    present_server(q)->count_waiting(-1);
  q->unlink();
}
inline void move(dns_query *q, State to, base::Link *list) {
  take_out(q);
  step(q, to);
  if (list != nullptr) list->append(q);
}
inline void move_until(dns_query *q, State to, int64_t deadline_us) {
  take_out(q);
  step(q, to);
  q->ctx->timers.add(q, deadline_us);
}

}  // namespace dns

#endif  // DNS_ENGINE_MOVE_H
