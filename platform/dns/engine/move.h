// move.h - the one place that moves a query from state to state.
#ifndef DNS_ENGINE_MOVE_H
#define DNS_ENGINE_MOVE_H

#include <stdint.h>

#include <list.h>

#include "query.h"

namespace dns {

// move takes a query out of the list or the timers that its state has it in, and appends it to the `list` of its new
// state (null: none). move_until has it in the timers instead, until a deadline (microseconds). take_out leaves it in
// neither, for a moment.
void move(dns_query *q, State to, base::Link *list);
void move_until(dns_query *q, State to, int64_t deadline_us);
void take_out(dns_query *q);

}  // namespace dns

#endif  // DNS_ENGINE_MOVE_H
