// resolving.cc - see resolving.h.
#include "resolving.h"

#include <algorithm>
#include <utility>

#include "context.h"

namespace dns {

const uint8_t *zone_of(const dns_query *q) {
  return q->resolution != nullptr && q->resolution->nserv > 0 ? q->resolution->zone : nullptr;
}

unsigned cnames_left(const dns_query *q) {
  const unsigned passed = q->resolution != nullptr ? q->resolution->cnames : 0;
  return q->ctx->options.maxalias - std::min(q->ctx->options.maxalias, passed);
}

bool passed_cnames(const dns_query *q) {
  return q->resolution != nullptr && q->resolution->passed != nullptr;
}

bool is_lookup(const dns_query *q) {
  return q->resolution != nullptr && q->resolution->top != nullptr;
}

void release_servers(dns_query *q) {
  for (unsigned i = 0; i < q->resolution->nserv; ++i)
    q->ctx->server_table.release(q->resolution->servers[i]);
  q->resolution->nserv = 0;
}

void end_resolution(dns_query *q) {
  if (q->resolution == nullptr) return;
  release_servers(q);
  dns_cdata_free(q->resolution->passed);
  q->ctx->resolutions.put(std::exchange(q->resolution, nullptr));
}

}  // namespace dns
