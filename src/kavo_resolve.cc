// kavo_resolve.cc - subscribing and unsubscribing nodes, and views of a node.
//
// Runs on the host's threads. A subscription adds only its checks to the query table's work and takes no lock of its
// own; the views take the table lock.
#include "kavo_resolve.h"

#include <stdint.h>
#include <string.h>

#include <array>

#include <dns_wire.h>
#include <kavo.h>
#include <pelk_log.h>

#include "kavo_node.h"
#include "kavo_node_servers.h"
#include "kavo_query_table.h"
#include "kavo_state.h"
#include "kavo_t.h"
#include "kavo_table_add.h"
#include "kavo_table_lock.h"
#include "kavo_types.h"
#include "kavo_zonesmap.h"

namespace {

constexpr auto &kSource = KAVO_RESOLVE_SOURCE;
constexpr char kStopped[] = "Attempt to subscribe query node when server is stopped";

// The longest subject that kavo_subscribe_node takes, in bytes.
constexpr int kQueryMax = 255;

// The labels that follow a reversed address in a PTR question, in wire form (the closing zero is the literal's own).
constexpr char kInAddrArpa[] = "\7in-addr\4arpa";

using Dn = std::array<unsigned char, DNS_MAXDN>;

constexpr unsigned public_flags(unsigned flags) {
  return flags & ~KAVOQF_INTERNAL;
}

[[nodiscard]] bool asks_address(KAVO_TYPE type) {
  return kavo_type_find(type).subject == kavo_subject::address;
}

// address_dn writes the DN of a question about an address; 0 when the bytes are no address.
[[nodiscard]] int address_dn(KAVO_TYPE type, const void *query, int query_len, Dn *dn) {
  struct in_addr address;
  if (query_len != static_cast<int>(sizeof(address))) return 0;
  memcpy(&address, query, sizeof(address));
  const int size = kavo_dns_a4todn(&address, dn->data(), static_cast<int>(dn->size()));
  if (size > 0 && type == KAVOT_DNS_PTR) memcpy(dn->data() + size - 1, kInAddrArpa, sizeof(kInAddrArpa));
  return size;
}

// kavo_subscribe_node_ is the core of every subscription: the checks, then the table. `flags` are taken as given, the
// internal ones included; but a question with servers of its own is never recursive.
[[nodiscard]] KAVO_ERR kavo_subscribe_node_(KAVO kavo, KAVO_TYPE query_type, const unsigned char *dn,
                                            const kavo_given_servers *given, unsigned flags,
                                            const struct timeval *deadline, KAVO_QUERY_NODE *node) {
  if (kavo == nullptr) return KAVOE_BADPAR;
  const uint32_t run = kavo_table_run(kavo);
  KAVO_ERR error = kavo_check_running(kavo, kSource, __func__, kStopped);
  if (error != KAVOE_OK) return error;
  if (kavo->zone_counts[kavo_zonesmap_slot(query_type)].load(std::memory_order_relaxed) == 0) {
    PELK_INFO(kSource, __func__, "Cannot subscribe node, no zones defined for query type");
    return KAVOE_NOZONES;
  }
  kavo_packed_servers servers;
  if (given != nullptr && given->any()) {
    error = kavo_node_servers_pack(*given, &servers);
    if (error != KAVOE_OK) return error;
    flags &= ~static_cast<unsigned>(KAVOQF_RECURSIVE);
  }
  if (kavo_get_parser(query_type, flags) == nullptr) {
    PELK_INFO(kSource, __func__, "There is no parser for such type, use raw packet answer flag");
    return KAVOE_NOPARSER;
  }
  error = kavo_table_add(kavo, query_type, dn, servers.entries, servers.count, deadline, flags, run, node);
  if (error != KAVOE_SRV) [[likely]]
    return error;
  return kavo_not_running(kavo, kSource, __func__, kStopped, __LINE__);
}

}  // namespace

extern "C" {

KAVO_ERR kavo_subscribe_node_dn(KAVO kavo, KAVO_TYPE query_type, const unsigned char *dn, unsigned flags,
                                const struct timeval *deadline, KAVO_QUERY_NODE *node) {
  return kavo_subscribe_node_(kavo, query_type, dn, nullptr, public_flags(flags), deadline, node);
}

KAVO_ERR kavo_subscribe_node_serv_ext(KAVO kavo, KAVO_TYPE query_type, const unsigned char *dn,
                                      const struct sockaddr *serv, unsigned nserv, unsigned flags,
                                      const struct timeval *deadline, KAVO_QUERY_NODE *node) {
  const kavo_given_servers given = {serv, nserv};
  return kavo_subscribe_node_(kavo, query_type, dn, &given, public_flags(flags), deadline, node);
}

KAVO_ERR kavo_subscribe_node_serv(KAVO kavo, KAVO_TYPE query_type, const unsigned char *dn, const struct sockaddr *serv,
                                  unsigned nserv, const struct timeval *deadline, KAVO_QUERY_NODE *node) {
  const kavo_given_servers given = {serv, nserv};
  return kavo_subscribe_node_(kavo, query_type, dn, &given, 0, deadline, node);
}

KAVO_ERR kavo_subscribe_node_serv_ss(KAVO kavo, KAVO_TYPE query_type, const unsigned char *dn,
                                     const struct sockaddr_storage *serv, unsigned nserv, unsigned flags,
                                     const struct timeval *deadline, KAVO_QUERY_NODE *node) {
  const kavo_given_servers given = {serv, nserv, sizeof *serv};
  return kavo_subscribe_node_(kavo, query_type, dn, &given, public_flags(flags), deadline, node);
}

KAVO_ERR kavo_subscribe_node_dcache_ext(KAVO kavo, KAVO_TYPE query_type, const unsigned char *dn,
                                        const struct sockaddr *dcserv, unsigned flags, const struct timeval *deadline,
                                        KAVO_QUERY_NODE *node) {
  const kavo_given_servers given = {dcserv, 1};
  return kavo_subscribe_node_(kavo, query_type, dn, &given, public_flags(flags) | KAVOQF_DCACHE, deadline, node);
}

KAVO_ERR kavo_subscribe_node_dcache_ss(KAVO kavo, KAVO_TYPE query_type, const unsigned char *dn,
                                       const struct sockaddr_storage *dcserv, unsigned flags,
                                       const struct timeval *deadline, KAVO_QUERY_NODE *node) {
  const kavo_given_servers given = {dcserv, 1, sizeof *dcserv};
  return kavo_subscribe_node_(kavo, query_type, dn, &given, public_flags(flags) | KAVOQF_DCACHE, deadline, node);
}

KAVO_ERR kavo_subscribe_node_dcache(KAVO kavo, KAVO_TYPE query_type, const unsigned char *dn,
                                    const struct sockaddr *dcserv, const struct timeval *deadline,
                                    KAVO_QUERY_NODE *node) {
  const kavo_given_servers given = {dcserv, 1};
  return kavo_subscribe_node_(kavo, query_type, dn, &given, KAVOQF_DCACHE, deadline, node);
}

KAVO_ERR kavo_subscribe_node(KAVO kavo, KAVO_TYPE query_type, const void *query, int query_len, unsigned flags,
                             const struct timeval *deadline, KAVO_QUERY_NODE *node) {
  if (query == nullptr || query_len < 1 || query_len > kQueryMax) return KAVOE_BADPAR;
  Dn dn;
  const int size = asks_address(query_type)
                       ? address_dn(query_type, query, query_len, &dn)
                       : kavo_dns_ptodn(static_cast<const char *>(query), static_cast<unsigned>(query_len), dn.data(),
                                        static_cast<int>(dn.size()));
  if (size < 1) return KAVOE_BADPAR;
  return kavo_subscribe_node_dn(kavo, query_type, dn.data(), flags, deadline, node);
}

KAVO_ERR kavo_subscribe_node_p(KAVO kavo, KAVO_TYPE query_type, const char *query, unsigned flags,
                               const struct timeval *deadline, KAVO_QUERY_NODE *node) {
  if (query == nullptr) return KAVOE_BADPAR;
  if (asks_address(query_type)) {
    struct in_addr address;
    if (kavo_dns_ptoa4(query, &address) <= 0) return KAVOE_BADPAR;
    return kavo_subscribe_node(kavo, query_type, &address, static_cast<int>(sizeof(address)), flags, deadline, node);
  }
  const auto length = static_cast<int>(strnlen(query, kQueryMax + 1));
  return kavo_subscribe_node(kavo, query_type, query, length, flags, deadline, node);
}

KAVO_ERR kavo_unsubscribe_node(KAVO kavo, KAVO_QUERY_NODE node) {
  if (kavo == nullptr) return KAVOE_BADPAR;
  kavo_table_guard guard(kavo);
  if (guard.error != KAVOE_OK) return kavo_table_no_lock(kSource, __func__, guard.error);
  return kavo_table_release_node(kavo, node);
}

KAVO_TYPE kavo_node_type(KAVO kavo, KAVO_QUERY_NODE node) {
  if (kavo == nullptr || node == nullptr || !kavo_is_running(kavo)) return KAVOT_INVALID;
  kavo_table_guard guard(kavo);
  if (guard.error != KAVOE_OK) {
    kavo_table_no_lock(kSource, __func__, guard.error);
    return KAVOT_INVALID;
  }
  return node->state == KAVOQS_READY ? KAVOT_INVALID : kavo_node_type_of(node);
}

KAVO_ERR kavo_node_qdn(KAVO kavo, KAVO_QUERY_NODE node, unsigned char *qdn, unsigned size, unsigned *written) {
  if (written != nullptr) *written = 0;
  if (kavo == nullptr || qdn == nullptr || node == nullptr || size == 0) return KAVOE_BADPAR;
  if (kavo_is_foreign(kavo)) return KAVOE_SRV;
  if (!kavo_is_running(kavo)) return KAVOE_BADPAR;
  kavo_table_guard guard(kavo);
  if (guard.error != KAVOE_OK) return kavo_table_no_lock(kSource, __func__, guard.error);
  if (node->state == KAVOQS_READY || kavo_node_type_of(node) == KAVOT_SYNC) return KAVOE_BADPAR;
  const uint8_t *dn = kavo_node_dn(node);
  const unsigned length = dns_dnlen(dn);
  if (written != nullptr) *written = length;
  if (size < length) return KAVOE_NOMEM;
  memcpy(qdn, dn, length);
  return KAVOE_OK;
}

}  // extern "C"
