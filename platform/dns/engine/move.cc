// move.cc - see move.h.
#include "move.h"

#include <stdio.h>
#include <stdlib.h>

namespace dns {

#ifndef NDEBUG
void step(dns_query *q, State to) {
  if (!is_legal(q->state, to)) {
    fprintf(stderr, "dns engine: a query goes from %s to %s\n", name_of(q->state), name_of(to));
    abort();
  }
  q->state = to;
}
#endif

}  // namespace dns
