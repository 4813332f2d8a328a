// move.cc - see move.h.
#include "move.h"

#include <stdio.h>
#include <stdlib.h>

#include "context.h"

namespace dns {
namespace {

void step(dns_query *q, State to) {
#ifndef NDEBUG
  if (!is_legal(q->state, to)) {
    fprintf(stderr, "dns engine: a query goes from %s to %s\n", name_of(q->state), name_of(to));
    abort();
  }
#endif
  q->state = to;
}

}  // namespace

void take_out(dns_query *q) {
  if (has_timer(q->state)) {
    q->ctx->timers.remove(q);
  } else {
    q->unlink();
  }
}

void move(dns_query *q, State to, base::Link *list) {
  take_out(q);
  step(q, to);
  if (list != nullptr) list->append(q);
}

void move_until(dns_query *q, State to, int64_t deadline_us) {
  take_out(q);
  step(q, to);
  q->ctx->timers.add(q, deadline_us);
}

}  // namespace dns
