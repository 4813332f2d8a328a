// failures.cc - see failures.h.
#include "failures.h"

#include <siphash.h>
#include <string.h>

#include "engine.h"

namespace dns {
namespace {

// key_of is a secret hash of a question and a server: strangers choose the names, and none may push out others.
uint64_t key_of(const dns_query *q, const Server *server) {
  uint8_t bytes[DNS_MAXDN + 16];
  const uint16_t numbers[] = {q->typ, q->cls, static_cast<uint16_t>(recursive(q)), server->address.sin_port};
  memcpy(bytes, q->ask, q->ask_size);
  size_t size = q->ask_size;
  memcpy(bytes + size, numbers, sizeof numbers);
  size += sizeof numbers;
  memcpy(bytes + size, &server->address.sin_addr, sizeof server->address.sin_addr);
  size += sizeof server->address.sin_addr;
  return siphash_folded(q->ctx->secret, bytes, size);
}

}  // namespace

void Failures::remember(const dns_query *q, const Server *server, dns_status status) {
  const uint64_t key = key_of(q, server);
  until_us_ = q->ctx->now_us + kKeptUs;
  cells_[key % kCells] = {key, until_us_, status};
}

dns_status Failures::recall(const dns_query *q, const Server *server) const {
  const uint64_t key = key_of(q, server);
  const Cell &cell = cells_[key % kCells];
  return cell.key == key && q->ctx->now_us < cell.until_us ? cell.status : dns_status{DNS_E_NOERROR};
}

}  // namespace dns
