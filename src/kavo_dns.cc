// kavo_dns.cc - between the library's terms and the DNS engine's: the submission and cancellation of a node's queries,
// with the table lock held; and the public functions on names and statuses, which keep no state and run on any thread.
//
// A list question makes one query for every zone of its type. The query's name is the node's name followed by the
// zone's labels, joined in one buffer from wire forms that exist already, since this runs once for every query.
#include "kavo_dns.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <array>

#include <dns_engine.h>
#include <dns_wire.h>
#include <pelk_log.h>

#include "kavo_node_servers.h"
#include "kavo_state.h"
#include "kavo_types.h"
#include "kavo_zonesmap.h"

namespace {

constexpr char kSource[] = "kavo_dns";

// The codes of the engine's statuses from DNS_E_PERM up to DNS_E_NOERROR.
constexpr std::array<KAVO_ERR, DNS_E_NOERROR - DNS_E_PERM + 1> kStatusCodes = {
    KAVOE_THR,      // DNS_E_PERM
    KAVOE_THR,      // DNS_E_BUSY
    KAVOE_DNS,      // no status
    KAVOE_FILE,     // DNS_E_TFILE
    KAVOE_FILE,     // DNS_E_SFILE
    KAVOE_FILE,     // DNS_E_WFILE
    KAVOE_FILE,     // DNS_E_RFILE
    KAVOE_BADPAR,   // DNS_E_INVAL
    KAVOE_BADPAR,   // DNS_E_BADQUERY
    KAVOE_NOMEM,    // DNS_E_NOMEM
    KAVOE_NODATA,   // DNS_E_NODATA
    KAVOE_NXDOM,    // DNS_E_NXDOMAIN
    KAVOE_DNS,      // DNS_E_PROTOCOL
    KAVOE_TIMEOUT,  // DNS_E_TEMPFAIL
    KAVOE_DNS,      // DNS_E_FAIL
    KAVOE_OK,       // DNS_E_NOERROR
};

// join_zone writes the key's name and the zone's labels after it to `dn`; false, with a message, when they make no
// name.
[[nodiscard]] bool join_zone(const unsigned char *key_dn, unsigned key_size, std::span<const uint8_t> zone,
                             std::array<unsigned char, DNS_MAXDN> *dn) {
  if (key_size == 0) {
    PELK_INFO(kSource, "kavo_submit_key", "Unable to prepare query DN");
    return false;
  }
  const unsigned labels = key_size - 1;
  if (zone.empty() || zone.size() > dn->size() - labels) {
    PELK_INFO(kSource, "kavo_submit_key", "Unable to convert zone to DN");
    return false;
  }
  memcpy(dn->data(), key_dn, labels);
  memcpy(dn->data() + labels, zone.data(), zone.size());
  return true;
}

constexpr unsigned engine_flags(unsigned flags) {
  const unsigned recursive = (flags & KAVOQF_RECURSIVE) != 0 ? static_cast<unsigned>(DNS_RCRS) : 0;
  return recursive | ((flags & KAVOQF_DCACHE) != 0 ? static_cast<unsigned>(DNS_DCACHE) : 0);
}

[[nodiscard]] struct dns_query *refuse(KAVO_ERR *err, KAVO_ERR code) {
  if (err != nullptr) *err = code;
  return nullptr;
}

// submit_to submits a query to the servers in a key.
template <typename Submit>
[[nodiscard]] struct dns_query *submit_to(std::span<const uint8_t> bytes, Submit submit) {
  kavo_node_servers servers;
  kavo_node_servers_unpack(bytes, &servers);
  return submit(servers.all, servers.count);
}

// Zone is what became of a zone's query: it was queued, zone and question make no name, or the engine failed.
enum class Zone { asked, impossible, failed };

// joins returns whether the name of a key and a zone make a name.
[[nodiscard]] bool joins(std::span<const uint8_t> key, std::span<const uint8_t> zone) {
  const unsigned labels = dns_dnlen(key.data() + KAVO_KEY_DN) - 1;
  return !zone.empty() && zone.size() <= DNS_MAXDN - labels;
}

// submit_zone queues a node's query in one zone.
[[nodiscard]] Zone submit_zone(KAVO ctx, KAVO_QUERY_NODE node, kavo_cb_arg *arg, int32_t number, dns_query_fn *cbck,
                               KAVO_ERR *err) PELK_REQUIRES(ctx->mx_table) {
  const std::span<const uint8_t> key = kavo_node_key(node);
  const bool zoned = number != 0;
  const std::span<const uint8_t> zone = zoned ? kavo_zonesmap_wire(&ctx->zonesmap, number) : std::span<const uint8_t>{};
  *err = KAVOE_BADPAR;
  if (zoned && zone.empty()) return Zone::impossible;  // logged when the zone was added
  arg->qh = kavo_submit_key(ctx, key.data(), static_cast<unsigned>(key.size()), zoned ? &zone : nullptr, node->flags,
                            cbck, arg, err);
  if (arg->qh == nullptr) return zoned && !joins(key, zone) ? Zone::impossible : Zone::failed;
  arg->start_time = ctx->now;
  ++node->qh_count;
  return Zone::asked;
}

// fail_zone gives a node the answer of a zone that cannot be asked its question.
void fail_zone(KAVO_QUERY_NODE node, kavo_cb_arg *arg, int32_t number) {
  KAVO_ANSWER &answer = arg->answer;
  answer.type = (node->flags & KAVOQF_PKT) != 0 ? KAVOT_PKT : kavo_node_type_of(node);
  answer.err_code = KAVOE_BADPAR;
  answer.zone = number;
  kavo_node_deliver(node, arg);
}

// to_dn writes the labels of an address, and the root's after them.
template <typename Address>
[[nodiscard]] int to_dn(unsigned char *(*labels)(const Address *, unsigned char *, const unsigned char *),
                        const Address *addr, unsigned char *dn, int dnsiz) {
  if (addr == nullptr || dn == nullptr || dnsiz < 1) return 0;
  const unsigned char *end = dn + std::min(dnsiz, static_cast<int>(DNS_MAXDN));
  unsigned char *last = labels(addr, dn, end);
  if (last == nullptr || last == dn || last >= end) return 0;
  *last = 0;
  return static_cast<int>(last - dn) + 1;
}

}  // namespace

struct dns_query *kavo_submit_key(KAVO ctx, const unsigned char *key, unsigned keylen,
                                  const std::span<const uint8_t> *zone, unsigned flags, dns_query_fn *cbck, void *data,
                                  KAVO_ERR *err) {
  if (ctx == nullptr || key == nullptr || cbck == nullptr || keylen <= KAVO_KEY_DN) return refuse(err, KAVOE_BADPAR);
  uint32_t number;
  memcpy(&number, key, sizeof(number));
  const auto type = static_cast<KAVO_TYPE>(number);
  dns_parse_fn *parser = kavo_get_parser(type, flags);
  if (parser == nullptr) return refuse(err, KAVOE_BADPAR);

  const unsigned char *dn = key + KAVO_KEY_DN;
  const unsigned dn_size = dns_dnlen(dn);
  std::array<unsigned char, DNS_MAXDN> joined;
  if (zone != nullptr && !join_zone(dn, dn_size, *zone, &joined)) return refuse(err, KAVOE_BADPAR);

  const auto submit = [&](const dns::Address *servers, unsigned nserv) {
    return dns_submit_dn_serv(ctx->udns_ctx, zone == nullptr ? dn : joined.data(), DNS_C_IN, kavo_convert_type(type),
                              engine_flags(flags), servers, nserv, parser, cbck, data);
  };
  const unsigned head = std::min(keylen, KAVO_KEY_DN + dn_size);
  const std::span<const uint8_t> own(key + head, keylen - head);
  struct dns_query *query = own.empty() ? submit(nullptr, 0) : submit_to(own, submit);
  if (query != nullptr) return query;
  const KAVO_ERR code = kavo_dns_status(ctx);
  PELK_ERROR(kSource, __func__, code == KAVOE_NOMEM ? errno : 0, code, "Unable to submit query, DNS transport error");
  return refuse(err, code);
}

KAVO_ERR kavo_submit_query(KAVO ctx, KAVO_QUERY_NODE node, dns_query_fn *cbck) {
  if (ctx == nullptr || node == nullptr) return KAVOE_BADPAR;
  kavo_cb_arg *arg = node->cb_args;
  int position = 0;
  KAVO_ERR error = KAVOE_OK;
  for (const int32_t number : kavo_zonesmap_zones(&ctx->zonesmap, kavo_node_type_of(node))) {
    if (arg == nullptr) break;
    PELK_ASSERT(arg->node == node, kSource);
    if (arg->qh == nullptr) {
      arg->n_zone = position;
      const Zone zone = submit_zone(ctx, node, arg, number, cbck, &error);
      if (zone == Zone::failed) return error;
      if (zone == Zone::impossible) fail_zone(node, arg, number);
    }
    arg = arg->next.load(std::memory_order_relaxed);
    ++position;
  }
  return node->qh_count != 0 ? KAVOE_OK : error;
}

KAVO_ERR kavo_cancel_query(KAVO ctx, KAVO_QUERY_NODE node) {
  if (ctx == nullptr || node == nullptr) return KAVOE_BADPAR;
  PELK_ASSERT(node->ctx == ctx, kSource);
  kavo_cb_arg *arg = node->cb_args;
  size_t left = kavo_zonesmap_zones(&ctx->zonesmap, kavo_node_type_of(node)).size();
  for (; left > 0 && arg != nullptr && node->qh_count != 0; --left) {
    PELK_ASSERT(arg->node == node, kSource);
    if (arg->qh != nullptr) {
      dns_cancel(ctx->udns_ctx, arg->qh);
      arg->qh = nullptr;
      --node->qh_count;
    }
    arg = arg->next.load(std::memory_order_relaxed);
  }
  return KAVOE_OK;
}

extern "C" {

int kavo_dns_a4todn(const struct in_addr *addr, unsigned char *dn, int dnsiz) {
  return to_dn(dns_a4todn_, addr, dn, dnsiz);
}

int kavo_dns_a6todn(const struct in6_addr *addr, unsigned char *dn, int dnsiz) {
  return to_dn(dns_a6todn_, addr, dn, dnsiz);
}

int kavo_dns_ptodn(const char *name, unsigned len, unsigned char *dn, int dnsiz) {
  if (name == nullptr || dn == nullptr || dnsiz < 1) return 0;
  return dns_ptodn(name, len, dn, dnsiz, nullptr);
}

unsigned kavo_dns_dnlen(const unsigned char *dn) {
  return dn == nullptr ? 0 : dns_dnlen(dn);
}

unsigned kavo_dns_dntodn(const unsigned char *sdn, unsigned char *ddn, unsigned ddnsiz) {
  return sdn == nullptr || ddn == nullptr ? 0 : dns_dntodn(sdn, ddn, ddnsiz);
}

unsigned kavo_dns_dnequal(const unsigned char *dn1, const unsigned char *dn2) {
  return dn1 == nullptr || dn2 == nullptr ? 0 : dns_dnequal(dn1, dn2);
}

int kavo_dns_ptoa4(const char *p, struct in_addr *addr) {
  return p == nullptr || addr == nullptr ? 0 : dns_pton(AF_INET, p, addr);
}

KAVO_ERR kavo_convert_status(dns_status err) {
  if (err < DNS_E_PERM || err > DNS_E_NOERROR) return KAVOE_DNS;
  return kStatusCodes[static_cast<size_t>(err - DNS_E_PERM)];
}

KAVO_ERR kavo_dns_status(KAVO kavo) {
  if (kavo == nullptr) return KAVOE_BADPAR;
  return kavo_is_foreign(kavo) ? KAVOE_SRV : kavo_convert_status(dns_get_status(kavo->udns_ctx));
}

}  // extern "C"
