// candidates.cc - see candidates.h.
#include "candidates.h"

#include "context.h"

namespace dns {

Candidates candidates(const dns_query *q) {
  Candidates found;
  const auto servers = servers_of(q);
  for (unsigned i = 0; i < servers.size(); ++i)
    if ((q->progress.refused & bit(i)) == 0) (servers[i]->marked_down() ? found.down : found.open) |= bit(i);
  return found.open != 0 ? found : Candidates{found.down, 0};
}

bool is_unreached(const dns_query *q) {
  const uint32_t open = candidates(q).open;
  return open != 0 && (open & ~q->progress.unreached) == 0;
}

}  // namespace dns
