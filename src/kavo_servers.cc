// kavo_set_server.cc - which servers the DNS engine asks when a question names none.
//
// The list is the engine context's; the library keeps no copy. Runs on the host's threads while the context is not
// open.
#include <stdint.h>

#include <dns_engine.h>
#include <dns_wire.h>
#include <pelk.h>

#include "kavo_t.h"

namespace {

constexpr char kSource[] = "kavo_set_server";

// The highest port that a server may be given.
constexpr unsigned kPortMax = 65534;

}  // namespace

extern "C" {

KAVO_ERR kavo_add_dns_server(KAVO kavo, const char *addr, unsigned port) {
  if (port > kPortMax || kavo == nullptr) return KAVOE_BADPAR;
  const KAVO_ERR refused =
      kavo_check_at_rest(kavo, kSource, __func__, "Cannot add DNS server because KAVO is already opened");
  if (refused != KAVOE_OK) return refused;
  struct sockaddr_in server = {};
  server.sin_family = AF_INET;
  server.sin_port = htons(static_cast<uint16_t>(port == 0 ? kavo->dns_port : port));
  if (addr != nullptr && dns_pton(AF_INET, addr, &server.sin_addr) <= 0) return KAVOE_BADPAR;
  const auto *entry = addr == nullptr ? nullptr : reinterpret_cast<const struct sockaddr *>(&server);
  if (dns_add_serv_s(kavo->udns_ctx, entry) < 0) {
    PELK_ERROR(kSource, __func__, 0, KAVOE_DNS, "Unable to add addr: %s", addr == nullptr ? "" : addr);
    return KAVOE_DNS;
  }
  return KAVOE_OK;
}

KAVO_ERR kavo_get_dns_servers(KAVO kavo, struct sockaddr *serv, unsigned *nserv) {
  if (kavo == nullptr || nserv == nullptr) return KAVOE_BADPAR;
  if (kavo_is_foreign(kavo)) return KAVOE_SRV;
  constexpr unsigned kEntriesMax = UINT32_MAX / sizeof(struct sockaddr);
  const unsigned capacity = serv == nullptr ? 0 : *nserv;
  auto size = static_cast<unsigned>((capacity < kEntriesMax ? capacity : kEntriesMax) * sizeof(struct sockaddr));
  const int result = dns_get_serv(kavo->udns_ctx, serv, &size);
  if (result < 0 && result != DNS_E_NOBUFS) return KAVOE_FAIL;
  *nserv = static_cast<unsigned>(size / sizeof(struct sockaddr));
  return result < 0 ? KAVOE_NOMEM : KAVOE_OK;
}

}  // extern "C"
