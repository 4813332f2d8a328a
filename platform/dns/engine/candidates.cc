// candidates.cc - see candidates.h.
#include "candidates.h"

#include "context.h"
#include "route.h"

namespace dns {

Candidates candidates(const dns_query *q) {
  Candidates found;
  uint32_t cut_off = 0, doubtful = 0;
  const auto servers = servers_of(q);
  for (unsigned i = 0; i < servers.size(); ++i) {
    if ((q->progress.refused & bit(i)) != 0) continue;
    switch (route_to(q->ctx, servers[i])) {
      case Route::there:
        (servers[i]->marked_down() ? found.down : found.open) |= bit(i);
        break;
      case Route::doubtful:
        doubtful |= bit(i);
        break;
      case Route::none:
        cut_off |= bit(i);
        break;
    }
  }
  if (found.open != 0) return found;
  if ((found.down | doubtful) != 0) return {found.down | doubtful, 0};
  // Beside servers that have answered, with errors, those that cannot be asked are tried once.
  return {q->progress.refused == 0 ? cut_off : cut_off & ~q->progress.unreached, 0};
}

bool is_unreached(const dns_query *q) {
  const uint32_t open = candidates(q).open;
  return open != 0 && (open & ~q->progress.unreached) == 0;
}

}  // namespace dns
