// coalesce.cc - see coalesce.h. Identical queries in flight at once would multiply a forger's chances (RFC 5452,
// section 5).
//
// The engine's own lookups are not coalesced: two queries could otherwise wait for each other.
#include "coalesce.h"

#include <string.h>

#include <algorithm>

#include <siphash.h>

#include "choice.h"
#include "context.h"
#include "move.h"
#include "places.h"
#include "resolving.h"

namespace dns {
namespace {

uint64_t hash_question(const dns_query *q) {
  return siphash(q->ctx->secret, q->question.dn, q->dn_size) + q->question.typ;
}

bool same_servers(const dns_query *a, const dns_query *b) {
  const OwnServers *own = a->question.own, *others = b->question.own;
  if (own == nullptr || others == nullptr) return a->uncached == b->uncached && own == others;
  return own->count == others->count && std::equal(own->servers, own->servers + own->count, others->servers);
}

// same compares names with their letter case, as an answer repeats the name in the case of its query.
bool same(const dns_query *a, const dns_query *b) {
  return a->hash == b->hash && a->question.typ == b->question.typ && a->question.cls == b->question.cls &&
         recursive(a) == recursive(b) && a->dn_size == b->dn_size &&
         memcmp(a->question.dn, b->question.dn, a->dn_size) == 0 && same_servers(a, b);
}

bool may_lead(const dns_query *q) {
  return (q->question.flags & DNS_DCACHE) == 0 && q->rating == 0 && !is_lookup(q);
}

// lead makes a query one that others may be coalesced with. Without memory it is sent alone.
void lead(dns_query *q) {
  q->leads = q->ctx->leaders.ready();
  if (q->leads) q->ctx->leaders.add(q);
}

}  // namespace

bool coalesce(dns_query *q) {
  if (!may_lead(q)) return false;
  q->hash = hash_question(q);
  dns_query *leader = q->ctx->leaders.first(q->hash);
  while (leader != nullptr && !same(leader, q))
    leader = leader->leader_next;
  if (leader == nullptr) {
    lead(q);
    return false;
  }
  move(q, State::coalesced, &leader->coalesced);
  return true;
}

void stop_leading(dns_query *q, base::Link *coalesced) {
  coalesced->take_all(&q->coalesced);
  if (!q->leads) return;
  q->ctx->leaders.remove(q);
  q->leads = false;
}

void promote(base::Link *coalesced) {
  if (coalesced->alone()) return;
  auto *q = static_cast<dns_query *>(coalesced->next);
  lead(q);
  choose_first(q);
  enqueue(q);
  q->coalesced.take_all(coalesced);
}

}  // namespace dns
