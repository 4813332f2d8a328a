// submit.cc - queries at the interface: submitted, cancelled, and read by the host.
#include <string.h>

#include <new>

#include <dns_wire.h>
#include <socket_address.h>

#include "answer_cache.h"
#include "context.h"
#include "delivery.h"
#include "resolving.h"

namespace dns {
namespace {

bool keep_name(dns_query *q, const uint8_t *dn, unsigned size) {
  dns_ctx *ctx = q->ctx;
  void *block = q->inline_dn;
  if (size > kInlineName) block = size <= kMediumName ? ctx->medium_names.get() : ctx->long_names.get();
  if (block == nullptr) return false;
  auto *place = static_cast<uint8_t *>(block);
  memcpy(place, dn, size);
  q->question.dn = place;
  q->question.ask = place;
  q->dn_size = q->ask_size = static_cast<uint8_t>(size);
  return true;
}

dns_status keep_servers(dns_query *q, std::span<const Address> servers) {
  dns_ctx *ctx = q->ctx;
  void *block = ctx->own_servers.get();
  if (block == nullptr) return DNS_E_NOMEM;
  auto *own = new (block) OwnServers;
  q->question.own = own;
  for (const Address &server : servers) {
    const Address address = as_server(server, static_cast<uint16_t>(ctx->options.port));
    if (address.family == Family::none) return DNS_E_INVAL;
    own->servers[own->count] = ctx->server_table.hold(address);
    if (own->servers[own->count] == nullptr) return DNS_E_NOMEM;
    ++own->count;
  }
  return DNS_E_NOERROR;
}

}  // namespace
}  // namespace dns

using namespace dns;

extern "C" {

dns_query *dns_submit_dn_serv(dns_ctx *ctx, const unsigned char *dn, dns_class cls, dns_type typ, unsigned flags,
                              const Address *servers, unsigned nserv, dns_parse_fn *parse, dns_query_fn *callback,
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
  q->question.callback = callback;
  q->question.data = data;
  q->question.parse = parse;
  q->question.flags = flags;
  q->question.typ = static_cast<uint16_t>(typ);
  q->question.cls = static_cast<uint16_t>(cls);
  q->uncached = servers != nullptr && nserv > 0;

  dns_status status = keep_name(q, dn, size) ? DNS_E_NOERROR : DNS_E_NOMEM;
  if (status == DNS_E_NOERROR && q->uncached) status = keep_servers(q, {servers, nserv});
  if (status != DNS_E_NOERROR) {
    release(q);
    return refuse(status);
  }
  look_ahead(q);
  ctx->queued.append(q);
  ++ctx->active;
  return q;
}

void dns_cancel(dns_ctx *ctx, dns_query *q) {
  // A query that is being delivered is already over. A lookup, which the debug function sees too, ends with the query
  // that waits for it.
  if (ctx == nullptr || q == nullptr || q->state == State::delivering || q->state == State::cancelled) return;
  if (!is_lookup(q)) drop(q);
}

void *dns_qudata(const dns_query *q) {
  return q->question.data;
}
dns_query_fn *dns_qcbck(const dns_query *q) {
  return q->question.callback;
}
const unsigned char *dns_qdn(const dns_query *q) {
  return q->question.dn;
}
dns_type dns_qtyp(const dns_query *q) {
  return q->question.typ;
}
dns_class dns_qcls(const dns_query *q) {
  return q->question.cls;
}
dns_parse_fn *dns_qparse(const dns_query *q) {
  return q->question.parse;
}

int dns_active(const dns_ctx *ctx) {
  return static_cast<int>(ctx->open_queries());
}

}  // extern "C"
