// follow.cc - identical questions that are open at the same time are asked once: the first is the leader, the others
// follow it and share its outcome. So nobody multiplies a forger's chances by making a host ask again and again
// (RFC 5452, section 5). See engine.h.
//
// Look-ups of the engine's own lead and follow nobody: one that waited for a question that waits for it would never
// end.
#include <siphash.h>
#include <string.h>

#include <algorithm>

#include "engine.h"

namespace dns {
namespace {

uint64_t hash_of(const dns_query *q) {
  return siphash(q->ctx->secret, q->dn, q->dn_size) + q->typ;
}

bool same_servers(const dns_query *a, const dns_query *b) {
  if (a->own == nullptr || b->own == nullptr) return a->uncached == b->uncached && a->own == b->own;
  return a->nserv == b->nserv && std::equal(a->own->servers, a->own->servers + a->nserv, b->own->servers);
}

// same compares names letter case included: an answer is given for the name as it was asked.
bool same(const dns_query *a, const dns_query *b) {
  return a->hash == b->hash && a->typ == b->typ && a->cls == b->cls && recursive(a) == recursive(b) &&
         a->dn_size == b->dn_size && memcmp(a->dn, b->dn, a->dn_size) == 0 && same_servers(a, b);
}

bool may_lead(const dns_query *q) {
  return (q->flags & DNS_DCACHE) == 0 && q->rating == 0 && (q->journey == nullptr || q->journey->top == nullptr);
}

// lead makes a question one that others may follow. Without memory it is asked alone.
void lead(dns_query *q) {
  q->leads = q->ctx->leaders.ready();
  if (q->leads) q->ctx->leaders.add(q);
}

}  // namespace

bool follow(dns_query *q) {
  if (!may_lead(q)) return false;
  q->hash = hash_of(q);
  dns_query *leader = q->ctx->leaders.first(q->hash);
  while (leader != nullptr && !same(leader, q))
    leader = leader->leader_next;
  if (leader == nullptr) {
    lead(q);
    return false;
  }
  q->state = State::following;
  leader->followers.append(q);
  return true;
}

void stop_leading(dns_query *q, base::Link *followers) {
  followers->take_all(&q->followers);
  if (!q->leads) return;
  q->ctx->leaders.remove(q);
  q->leads = false;
}

void hand_over(base::Link *followers) {
  if (followers->alone()) return;
  auto *q = static_cast<dns_query *>(followers->next);
  lead(q);
  choose_first(q);
  enqueue(q);
  q->followers.take_all(followers);
}

}  // namespace dns
