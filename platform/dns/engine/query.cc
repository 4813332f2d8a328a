// query.cc - the life of a question: submitted, cancelled, indexed while in flight, delivered; see engine.h.
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <new>
#include <utility>

#include "engine.h"

namespace dns {
namespace {

bool keep_name(dns_query *q, const uint8_t *dn, unsigned size) {
  dns_ctx *ctx = q->ctx;
  void *block = q->inline_dn;
  if (size > kInlineName) block = size <= kMediumName ? ctx->medium_names.get() : ctx->long_names.get();
  if (block == nullptr) return false;
  auto *place = static_cast<uint8_t *>(block);
  memcpy(place, dn, size);
  q->dn = place;
  q->ask = place;
  q->dn_size = q->ask_size = static_cast<uint8_t>(size);
  return true;
}

dns_status keep_servers(dns_query *q, const sockaddr *servers, unsigned nserv) {
  dns_ctx *ctx = q->ctx;
  void *block = ctx->own_servers.get();
  if (block == nullptr) return DNS_E_NOMEM;
  q->own = new (block) OwnServers;
  for (q->nserv = 0; q->nserv < nserv; ++q->nserv) {
    sockaddr_in address;
    if (!read_server(servers + q->nserv, ctx->options.port, &address)) return DNS_E_INVAL;
    q->own->servers[q->nserv] = ctx->server_table.hold(address);
    if (q->own->servers[q->nserv] == nullptr) return DNS_E_NOMEM;
  }
  return DNS_E_NOERROR;
}

void release_name(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  if (q->dn == nullptr || q->dn == q->inline_dn) return;
  auto *block = const_cast<uint8_t *>(q->dn);
  if (q->dn_size <= kMediumName) {
    ctx->medium_names.put(block);
  } else {
    ctx->long_names.put(block);
  }
}

void release(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  end_journey(q);
  release_own_servers(q);
  release_name(q);
  q->~dns_query();
  ctx->queries.put(q);
}

void leave_list(dns_query *q) {
  if (q->state == State::waiting) {
    q->ctx->waiting.remove(q);
  } else {
    q->unlink();
  }
  give_up_place(q);
}

}  // namespace

void give_up_place(dns_query *q) {
  Server *server = std::exchange(q->under_way, nullptr);
  if (server == nullptr) return;
  if (server->parked.alone()) {
    --server->under_way;
    return;
  }
  auto *next = static_cast<dns_query *>(server->parked.next);
  next->under_way = server;
  q->ctx->sending.append(next);
}

void leave(dns_query *q) {
  leave_list(q);
  give_up_slot(q);
}

void give_up_slot(dns_query *q) {
  if (!has_id(q)) return;
  q->ctx->index.remove(q);
  if (q->slot >= kTcpSlot) {
    tcp_forget(q);
  } else if (q->slot != UdpPool::kNone) {
    q->ctx->sockets.done(q->slot);
  }
  if (q->former_slot != UdpPool::kNone) q->ctx->sockets.done(q->former_slot);
  q->slot = q->former_slot = UdpPool::kNone;
}

void change_socket(dns_query *q) {
  if (q->former_slot == UdpPool::kNone)
    q->former_slot = q->slot;
  else
    q->ctx->sockets.done(q->slot);
  q->slot = UdpPool::kNone;
}

bool new_id(dns_query *q) {
  q->asked = q->lowered = q->with_opt = 0;
  return q->ctx->random.u16(&q->id) && q->ctx->random.u64(&q->case_bits);
}

bool recall_any_failures(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  const auto servers = servers_of(q);
  for (unsigned i = 0; i < servers.size(); ++i) {
    const dns_status status = ctx->failures.recall(q, servers[i]);
    if (status == DNS_E_NOERROR) continue;
    q->refused |= 1U << i;
    q->error = static_cast<int16_t>(status);
  }
  if ((q->refused & (1U << q->server)) == 0 || choose_next(q)) return true;
  // What servers of the zone that are not known yet may say is another matter.
  if (!has_other_servers(q) || !begin_anew(q)) deliver(q, q->error, nullptr, 0, 0);
  return false;
}

void enqueue(dns_query *q) {
  q->state = State::sending;
  q->pausing = false;
  q->sent_us = q->ctx->now_us;
  q->ctx->sending.append(q);
}

void release_own_servers(dns_query *q) {
  if (q->own == nullptr) return;
  for (unsigned i = 0; i < q->nserv; ++i)
    q->ctx->server_table.release(q->own->servers[i]);
  q->ctx->own_servers.put(std::exchange(q->own, nullptr));
}

void deliver(dns_query *q, dns_status status, void *result, unsigned size, unsigned sflags) {
  dns_ctx *ctx = q->ctx;
  base::Link followers;
  stop_leading(q, &followers);
  leave(q);
  q->state = State::delivering;
  --ctx->active;
  ctx->status = status;
  ctx->sflags = sflags;
  if (q->callback != nullptr) q->callback(ctx, q, result, size, q->data);
  if (q->rating != 0) end_rating(q);
  release(q);
  while (!followers.alone())
    deliver(static_cast<dns_query *>(followers.next), status, nullptr, 0, sflags);
}

void drop(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  base::Link followers;
  abandon_lookup(q);
  stop_leading(q, &followers);
  leave(q);
  --ctx->active;
  if (q->rating != 0) end_rating(q);
  hand_over(&followers);
  if (ctx->holds == 0) {
    release(q);
  } else {
    q->state = State::cancelled;
    ctx->cancelled.append(q);
  }
}

Hold::Hold(dns_ctx *ctx)
    : ctx_(ctx), result_(std::exchange(ctx->result, nullptr)), result_size_(std::exchange(ctx->result_size, 0)) {
  ++ctx->holds;
}

Hold::~Hold() {
  free(std::exchange(ctx_->result, result_));
  ctx_->result_size = result_size_;
  if (--ctx_->holds > 0) return;
  while (!ctx_->cancelled.alone()) {
    auto *q = static_cast<dns_query *>(ctx_->cancelled.next);
    q->unlink();
    release(q);
  }
}

void give_up(dns_query *q) {
  if ((q->flags & DNS_DCACHE) != 0) {
    end_direct(q);
    return;
  }
  if (begin_anew(q)) return;
  const dns_status silence = q->turned_back && is_unreached(q) ? DNS_E_REFUSED : DNS_E_TEMPFAIL;
  deliver(q, q->error != 0 ? dns_status{q->error} : silence, nullptr, 0, 0);
}

void forget_manner(dns_query *q) {
  q->plain = q->fresh_cookie = false;
  q->doubt = Doubt::none;
  q->tcp_tries = 0;
}

void ask_again(dns_query *q) {
  const bool direct = (q->flags & DNS_DCACHE) != 0;
  const auto most = std::min<size_t>(q->ctx->options.ntries, direct ? servers_of(q).size() : SIZE_MAX);
  if (q->tries >= most || !choose_next(q)) {
    give_up(q);
    return;
  }
  forget_manner(q);
  // By UDP the answer to an earlier attempt still counts, so that the query keeps its socket and its id.
  if (q->over_tcp) {
    leave(q);
  } else {
    leave_list(q);
  }
  q->over_tcp = false;
  enqueue(q);
}

void not_reached(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  const bool direct = (q->flags & DNS_DCACHE) != 0;
  q->unreached |= 1U << q->server;
  const bool others = !is_unreached(q);
  // An attempt that came back at once took no time: it costs none of DNS_OPT_NTRIES where another server is left.
  if (others && !direct && !q->probes) --q->tries;
  if (others || direct || q->tries >= ctx->options.ntries) {
    ask_again(q);
    return;
  }
  if (q->pauses == kPausesMax) {
    give_up(q);
    return;
  }
  if (q->over_tcp) {
    leave(q);
  } else {
    leave_list(q);
  }
  q->state = State::waiting;
  q->pausing = true;
  ctx->waiting.add(q, ctx->now_us + (kPauseUs << q->pauses++));
}

void end_pause(dns_query *q) {
  q->unreached = 0;
  // What is asked over TCP stays with the server that has said so.
  if (!q->over_tcp) (void)choose_next(q);
  enqueue(q);
}

void ask_otherwise(dns_query *q) {
  leave(q);
  enqueue(q);
}

}  // namespace dns

using namespace dns;

extern "C" {

dns_query *dns_submit_dn_serv(dns_ctx *ctx, const unsigned char *dn, dns_class cls, dns_type typ, unsigned flags,
                              const sockaddr *servers, unsigned nserv, dns_parse_fn *parse, dns_query_fn *callback,
                              void *data) {
  if (ctx == nullptr) return nullptr;
  const auto refuse = [ctx](dns_status status) -> dns_query * {
    ctx->status = status;
    return nullptr;
  };
  constexpr int kNumberMax = 65535;  // types and classes are 16 bits wide
  if (dn == nullptr || typ <= 0 || typ > kNumberMax || cls <= 0 || cls > kNumberMax || nserv > DNS_MAXSERV)
    return refuse(DNS_E_INVAL);
  if (!ctx->opened) return refuse(DNS_E_PERM);
  const unsigned size = dns_dnlen(dn);
  if (size == 0) return refuse(DNS_E_BADQUERY);

  void *block = ctx->queries.get();
  if (block == nullptr) return refuse(DNS_E_NOMEM);
  auto *q = new (block) dns_query;
  q->ctx = ctx;
  q->callback = callback;
  q->data = data;
  q->parse = parse;
  q->dn = q->ask = nullptr;
  q->own = nullptr;
  q->journey = nullptr;
  q->under_way = nullptr;
  q->case_bits = 0;
  q->first_sent_us = q->sent_us = 0;
  q->asked = q->lowered = q->with_opt = q->refused = q->unreached = 0;
  q->flags = flags;
  q->id = 0;
  q->typ = static_cast<uint16_t>(typ);
  q->cls = static_cast<uint16_t>(cls);
  q->slot = q->former_slot = UdpPool::kNone;
  q->error = 0;
  q->nserv = 0;
  q->server = q->round = q->rating = 0;
  q->tries = q->tcp_tries = 0;
  q->tried = 0;
  q->doubt = Doubt::none;
  q->pauses = 0;  // this and the flags lie side by side
  q->turned_back = q->probes = q->over_tcp = q->plain = q->fresh_cookie = q->leads = q->pausing = false;
  q->uncached = servers != nullptr && nserv > 0;
  q->state = State::queued;

  dns_status status = keep_name(q, dn, size) ? DNS_E_NOERROR : DNS_E_NOMEM;
  if (status == DNS_E_NOERROR && servers != nullptr && nserv > 0) status = keep_servers(q, servers, nserv);
  if (status != DNS_E_NOERROR) {
    release(q);
    return refuse(status);
  }
  q->looks_ahead = !q->uncached && ctx->answer_cache != nullptr;
  q->cache_number = ctx->cache_number;
  if (q->looks_ahead) q->hash = cache_look_ahead(ctx->answer_cache, q->typ, q->cls, {q->dn, size});
  ctx->queued.append(q);
  ++ctx->active;
  return q;
}

void dns_cancel(dns_ctx *ctx, dns_query *q) {
  // A question that is being delivered is over already. A look-up, which the debug function gets to see, ends with the
  // question that waits for it.
  if (ctx == nullptr || q == nullptr || q->state == State::delivering || q->state == State::cancelled) return;
  if (q->journey == nullptr || q->journey->top == nullptr) drop(q);
}

void *dns_qudata(const dns_query *q) {
  return q->data;
}
dns_query_fn *dns_qcbck(const dns_query *q) {
  return q->callback;
}
const unsigned char *dns_qdn(const dns_query *q) {
  return q->dn;
}
dns_type dns_qtyp(const dns_query *q) {
  return q->typ;
}
dns_class dns_qcls(const dns_query *q) {
  return q->cls;
}
dns_parse_fn *dns_qparse(const dns_query *q) {
  return q->parse;
}

int dns_active(const dns_ctx *ctx) {
  return static_cast<int>(ctx->open_questions());
}

}  // extern "C"
