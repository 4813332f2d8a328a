// kavo_servers.cc - the servers of a context: the list that is asked when a question names no servers of its own, the
// servers that may answer besides, the zone of their costs, and their statistics.
//
// All of it is the engine context's; the library keeps no copy. The list changes on the host's threads while the
// context is at rest; statistics are read from any thread at any time, without a lock. Servers that are given by name
// are in kavo_servers_lookup.cc.
#include <stdint.h>

#include <algorithm>

#include <dns_engine.h>
#include <pelk_log.h>

#include "kavo_rest.h"
#include "kavo_state.h"
#include "kavo_t.h"

namespace {

constexpr char kSource[] = "kavo_set_server";
constexpr char kContextSource[] = "kavo";

// The highest port that a server may be given.
constexpr unsigned kPortMax = 65534;

// From 1970-01-01 00:00:00 UTC to 2000-01-01, where the engine's seconds begin.
constexpr int64_t kEngineEpoch = 946684800;

// statistic asks the engine for one of its figures about a server.
template <typename Value>
[[nodiscard]] KAVO_ERR statistic(dns_status (*getter)(struct dns_ctx *, const struct sockaddr *, Value *), KAVO kavo,
                                 const struct sockaddr *sa, Value *value) {
  if (kavo == nullptr || sa == nullptr || value == nullptr) return KAVOE_BADPAR;
  if (kavo_is_foreign(kavo)) return KAVOE_SRV;
  return kavo_convert_status(getter(kavo->udns_ctx, sa, value));
}

// add_expected accepts answers from an address too, or forgets all such addresses.
[[nodiscard]] KAVO_ERR add_expected(KAVO kavo, const char *function, const struct sockaddr *server) {
  const KAVO_ERR refused =
      kavo_check_at_rest(kavo, kContextSource, function, "Attempt to set expected server for already opened context");
  if (refused != KAVOE_OK) return refused;
  return dns_add_expserv_s(kavo->udns_ctx, server) < 0 ? KAVOE_DNS : KAVOE_OK;
}

}  // namespace

extern "C" {

KAVO_ERR kavo_add_dns_server(KAVO kavo, const char *addr, unsigned port) {
  if (port > kPortMax) return KAVOE_BADPAR;
  const KAVO_ERR refused =
      kavo_check_at_rest(kavo, kSource, __func__, "Cannot add DNS server because KAVO is already opened");
  if (refused != KAVOE_OK) return refused;
  const auto port_used = static_cast<uint16_t>(port == 0 ? kavo->dns_port : port);
  const int status =
      addr == nullptr ? dns_add_serv(kavo->udns_ctx, nullptr) : dns_add_serv_p(kavo->udns_ctx, addr, port_used);
  if (status == DNS_E_INVAL && addr != nullptr) return KAVOE_BADPAR;
  if (status < 0) {
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
  auto size = static_cast<unsigned>(std::min(capacity, kEntriesMax) * sizeof(struct sockaddr));
  const int result = dns_get_serv(kavo->udns_ctx, serv, &size);
  if (result < 0 && result != DNS_E_NOBUFS) return KAVOE_FAIL;
  *nserv = static_cast<unsigned>(size / sizeof(struct sockaddr));
  return result < 0 ? KAVOE_NOMEM : KAVOE_OK;
}

KAVO_ERR kavo_get_dns_servers_ss(KAVO kavo, struct sockaddr_storage *serv, unsigned *nserv) {
  if (kavo == nullptr || nserv == nullptr) return KAVOE_BADPAR;
  if (kavo_is_foreign(kavo)) return KAVOE_SRV;
  if (serv == nullptr) *nserv = 0;
  return dns_get_serv_ss(kavo->udns_ctx, serv, nserv) < 0 ? KAVOE_NOMEM : KAVOE_OK;
}

int kavo_add_expserv(KAVO kavo, const struct in_addr *addr) {
  struct sockaddr_in server = {};
  server.sin_family = AF_INET;
  if (addr != nullptr) server.sin_addr = *addr;
  return static_cast<int>(
      add_expected(kavo, __func__, addr == nullptr ? nullptr : reinterpret_cast<const struct sockaddr *>(&server)));
}

KAVO_ERR kavo_add_expserv_s(KAVO kavo, const struct sockaddr *addr) {
  return add_expected(kavo, __func__, addr);
}

int kavo_set_cost_zone(KAVO kavo, const char *zone) {
  const KAVO_ERR refused =
      kavo_check_at_rest(kavo, kContextSource, __func__, "Attempt to set cost zone for already opened context");
  if (refused != KAVOE_OK) return static_cast<int>(refused);
  return dns_set_cost_zone(kavo->udns_ctx, zone) < 0 ? KAVOE_DNS : KAVOE_OK;
}

KAVO_ERR kavo_get_serv_avgrtt(KAVO kavo, const struct sockaddr *sa, int *value) {
  return statistic(dns_get_serv_avgrtt, kavo, sa, value);
}

KAVO_ERR kavo_get_serv_lastrtt(KAVO kavo, const struct sockaddr *sa, int *value) {
  return statistic(dns_get_serv_lastrtt, kavo, sa, value);
}

KAVO_ERR kavo_get_serv_last_check(KAVO kavo, const struct sockaddr *sa, int *value) {
  const KAVO_ERR error = statistic(dns_get_serv_last_check, kavo, sa, value);
  if (error == KAVOE_OK) *value = static_cast<int>(std::min<int64_t>(*value + kEngineEpoch, INT32_MAX));
  return error;
}

KAVO_ERR kavo_get_serv_nqsent(KAVO kavo, const struct sockaddr *sa, uint64_t *value) {
  return statistic(dns_get_serv_nqsent, kavo, sa, value);
}

KAVO_ERR kavo_get_serv_nused(KAVO kavo, const struct sockaddr *sa, uint64_t *value) {
  return statistic(dns_get_serv_nused, kavo, sa, value);
}

KAVO_ERR kavo_get_serv_ntimeout(KAVO kavo, const struct sockaddr *sa, uint64_t *value) {
  return statistic(dns_get_serv_ntimeout, kavo, sa, value);
}

KAVO_ERR kavo_get_serv_window(KAVO kavo, const struct sockaddr *sa, int *value) {
  return statistic(dns_get_serv_window, kavo, sa, value);
}

KAVO_ERR kavo_get_serv_nwaiting(KAVO kavo, const struct sockaddr *sa, int *value) {
  return statistic(dns_get_serv_nwaiting, kavo, sa, value);
}

KAVO_ERR kavo_get_serv_noverload(KAVO kavo, const struct sockaddr *sa, uint64_t *value) {
  return statistic(dns_get_serv_noverload, kavo, sa, value);
}

KAVO_ERR kavo_get_ndropped(KAVO kavo, uint64_t *value) {
  if (kavo == nullptr || value == nullptr) return KAVOE_BADPAR;
  if (kavo_is_foreign(kavo)) return KAVOE_SRV;
  return kavo_convert_status(dns_get_ndropped(kavo->udns_ctx, value));
}

}  // extern "C"
