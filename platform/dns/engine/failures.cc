// failures.cc - see failures.h.
#include "failures.h"

#include <siphash.h>

#include "context.h"

namespace dns {
namespace {

// key_of is a secret hash of a query and a server: strangers choose the names, and none may push out others. The name's
// letters count without their case, and nothing else does: 'A' and 'a' are two types, ports and addresses.
uint64_t key_of(const dns_query *q, const Server *server) {
  struct {
    uint64_t name;
    uint16_t typ, cls, recursive, port;
    uint32_t address;
    uint32_t unused;
  } const key = {siphash_folded(q->ctx->secret, q->question.ask, q->ask_size),
                 q->question.typ,
                 q->question.cls,
                 static_cast<uint16_t>(recursive(q)),
                 server->address.sin_port,
                 server->address.sin_addr.s_addr,
                 0};
  return siphash(q->ctx->secret, &key, sizeof key);
}

}  // namespace

void Failures::remember(const dns_query *q, const Server *server, dns_status status) {
  const uint64_t key = key_of(q, server);
  until_us_ = q->ctx->now_us + kFailureUs;
  cells_[key % kFailuresMax] = {key, until_us_, status};
}

dns_status Failures::recall(const dns_query *q, const Server *server) const {
  const uint64_t key = key_of(q, server);
  const Cell &cell = cells_[key % kFailuresMax];
  return cell.key == key && q->ctx->now_us < cell.until_us ? cell.status : dns_status{DNS_E_NOERROR};
}

}  // namespace dns
