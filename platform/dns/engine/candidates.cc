// candidates.cc - see candidates.h.
#include "candidates.h"

#include "context.h"
#include "route.h"

namespace dns {

Candidates candidates(const dns_query *q) {
  Candidates found;
  uint32_t cut_off = 0;
  const auto servers = servers_of(q);
  for (unsigned i = 0; i < servers.size(); ++i) {
    if ((q->progress.refused & bit(i)) != 0) continue;
    (is_cut_off(q->ctx, servers[i]) ? cut_off : servers[i]->marked_down() ? found.down : found.open) |= bit(i);
  }
  if (found.open != 0) return found;
  return {found.down != 0 ? found.down : cut_off, 0};
}

bool is_unreached(const dns_query *q) {
  const uint32_t open = candidates(q).open;
  return open != 0 && (open & ~q->progress.unreached) == 0;
}

}  // namespace dns
