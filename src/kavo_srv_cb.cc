// kavo_srv_cb.cc - what the engine reports: the outcome of a query, what its cache held, a failed direct cache.
//
// Everything here runs on the server thread, inside dns_timeouts or dns_ioevent, never with mx_table held. An answer is
// written before the lock is taken. Its bit in the node's map, which lets readers see the answer, is set after, with
// the lock. Blocks that the engine hands over stay the engine's and are copied.
#include "kavo_srv_cb.h"

#include <dns_engine.h>
#include <dns_wire.h>
#include <pelk_log.h>

#include "kavo_args.h"
#include "kavo_query_table.h"
#include "kavo_t.h"
#include "kavo_table_lock.h"
#include "kavo_time.h"
#include "kavo_zonesmap.h"

namespace {

// Early is what an expired cache entry answers: a status and, perhaps, a block of the engine's.
struct Early {
  dns_status status = DNS_E_NOERROR;
  void *result = nullptr;
};

// zone_of returns the number of the zone that an argument's answer, an early one too, is from.
[[nodiscard]] int32_t zone_of(const kavo_t *ctx, KAVO_TYPE type, int n_zone) {
  const auto zones = kavo_zonesmap_zones(&ctx->zonesmap, type);
  const size_t place = static_cast<size_t>(n_zone % ctx->max_zones);
  return place < zones.size() ? zones[place] : 0;
}

// copy_result copies the engine's block into the argument's own.
void copy_result(KAVO_ANSWER *answer, void *result) {
  KAVO_RR source = {};
  source.rr_mem = static_cast<dns_rr_mem *>(result);
  const KAVO_ERR error = kavo_rr_dup(answer->type, &source, &answer->rr);
  if (error == KAVOE_OK) {
    answer->actual_size = kavo_rr_get_size(&answer->rr);
    return;
  }
  PELK_INFO(KAVO_SRV_SOURCE, "kavo_srv_cb", "Unable to duplicate RR, error %d", error);
  answer->err_code = error;
}

void fill_answer(KAVO ctx, kavo_cb_arg *arg, void *result) {
  KAVO_ANSWER *answer = &arg->answer;
  const KAVO_TYPE type = kavo_node_type_of(arg->node);
  answer->type = (arg->node->flags & KAVOQF_PKT) != 0 ? KAVOT_PKT : type;
  answer->zone = zone_of(ctx, type, arg->n_zone);
  answer->err_code = kavo_convert_status(dns_get_status(ctx->udns_ctx));
  answer->actual_size = 0;
  answer->query_time = kavo_milli_delay(arg->start_time, ctx->now);
  const bool has_records =
      answer->err_code == KAVOE_OK || answer->err_code == KAVOE_NXDOM || answer->err_code == KAVOE_NODATA;
  if (result != nullptr && has_records) copy_result(answer, result);
}

void move_node(KAVO ctx, kavo_query_node_t *node, kavo_query_state state) PELK_REQUIRES(ctx->mx_table) {
  const KAVO_ERR error = kavo_table_change_state(ctx, node, state);
  if (error != KAVOE_OK)
    PELK_ERROR(KAVO_SRV_SOURCE, "kavo_srv_cb", 0, error, "Unable to change node state, target state %d", state);
}

// move_unanswered moves a node that the cache has no answer for to WAIT or DCFAIL.
void move_unanswered(KAVO ctx, kavo_query_node_t *node, kavo_query_state state, const char *function)
    PELK_REQUIRES(ctx->mx_table) {
  const KAVO_ERR error = kavo_table_change_state(ctx, node, state);
  if (error != KAVOE_OK) PELK_ERROR(KAVO_SRV_SOURCE, function, 0, error, "Unable to change node state to wait");
}

// count_answer makes a filled answer visible and moves its node on. The node may be free when it returns.
void count_answer(KAVO ctx, kavo_cb_arg *arg) PELK_REQUIRES(ctx->mx_table) {
  kavo_query_node_t *node = arg->node;
  if (arg->qh != nullptr) {
    node->qh_count--;
    arg->qh = nullptr;
  }
  kavo_node_deliver(node, arg);
  if (node->qh_count != 0) {
    move_node(ctx, node, KAVOQS_PRESOLVED);
    return;
  }
  move_node(ctx, node, KAVOQS_RESOLVED);
  kavo_table_unsubscribe_node(ctx, node);
}

// own_arg returns the argument of a query that this library submitted, null for any other.
[[nodiscard]] kavo_cb_arg *own_arg(const struct dns_query *qh) {
  if (qh == nullptr || dns_qcbck(qh) != kavo_srv_cb) return nullptr;
  kavo_cb_arg *arg = static_cast<kavo_cb_arg *>(dns_qudata(qh));
  return arg != nullptr && arg->node != nullptr && arg->node->ctx != nullptr ? arg : nullptr;
}

void not_in_cache(KAVO ctx, kavo_cb_arg *arg) {
  kavo_table_guard guard(ctx);
  if (guard.error != KAVOE_OK) {
    kavo_table_no_lock(KAVO_SRV_SOURCE, "kavo_srv_dbgcb", guard.error, "Unable to lock table");
    return;
  }
  if (arg->node->state > KAVOQS_SUBMITTED) return;
  arg->answer.cache_code = KAVOCC_NEXISTS;
  move_unanswered(ctx, arg->node, KAVOQS_WAIT, "kavo_srv_dbgcb");
}

// is_entry_of returns whether a cache entry has the query's name.
[[nodiscard]] bool is_entry_of(const struct dns_cdata *entry, const struct dns_query *qh) {
  unsigned char dn[DNS_MAXDN];
  unsigned size = sizeof dn;
  return dns_cdata_dn(entry, dn, &size) >= 0 && dns_dnequal(dn, dns_qdn(qh)) != 0;
}

// rebuild_packet writes the answer that an entry came from into the context's buffer. Returns the packet's end, or
// null.
[[nodiscard]] const unsigned char *rebuild_packet(KAVO ctx, const struct dns_query *qh, struct dns_cdata *entry) {
  struct dns_pkt packet = {};
  if (dns_initpacket(&packet, ctx->pbuf, sizeof ctx->pbuf, dns_qdn(qh), dns_qtyp(qh), dns_qcls(qh)) < 0) return nullptr;
  for (;;) {
    struct dns_rr rr;
    rr.dnsrr_dptr = ctx->rrbuf;
    rr.dnsrr_dsz = sizeof ctx->rrbuf;
    const int found = dns_cdata_nextrr(entry, &rr);
    if (found == 0) break;
    if (found < 0 || dns_addrr(&packet, nullptr, &rr) < 0) return nullptr;
  }
  if (dns_end_section(&packet, DNS_S_ALL) < 0) return nullptr;
  return packet.dnspk_end;
}

// parse_entry has the query's parser read an entry's answer; `result` stays null without a parser.
[[nodiscard]] bool parse_entry(KAVO ctx, struct dns_query *qh, struct dns_cdata *entry, void **result) {
  const unsigned char *end = rebuild_packet(ctx, qh, entry);
  if (end == nullptr) return false;
  dns_parse_fn *parser = dns_qparse(qh);
  if (parser == nullptr) return true;
  struct dns_parse parse = {};
  if (dns_initparse(&parse, ctx->pbuf, end, nullptr) < 0 || dns_rewind_sec(&parse, DNS_S_AN) < 0) return false;
  return parser(ctx->udns_ctx, qh, dns_qdn(qh), ctx->pbuf, parse.dnsp_cur, end, result, 0) >= 0;
}

// read_entry works out what an expired entry answers; false when it answers nothing. A CNAME chain that ends in no
// record of the query's type is NODATA, as it is while the entry lives.
[[nodiscard]] bool read_entry(KAVO ctx, struct dns_query *qh, struct dns_cdata *entry, Early *early) {
  const int rcode = dns_cdata_rcode(entry);
  if (rcode == DNS_R_NXDOMAIN) {
    *early = {DNS_E_NXDOMAIN, nullptr};
    return true;
  }
  if (rcode != DNS_R_NOERROR) return false;
  if (dns_cdata_nrr(entry) == dns_cdata_nalias(entry)) {
    *early = {DNS_E_NODATA, nullptr};
    return true;
  }
  *early = {DNS_E_NOERROR, nullptr};
  return parse_entry(ctx, qh, entry, &early->result);
}

[[nodiscard]] kavo_cb_arg *early_arg(KAVO ctx, const kavo_cb_arg *origin) {
  kavo_table_guard guard(ctx);
  return guard.error == KAVOE_OK ? kavo_table_get_early_arg(ctx, origin) : nullptr;
}

// deliver_expired delivers what an expired entry holds as an extra answer of the node; the query itself continues.
void deliver_expired(KAVO ctx, struct dns_query *qh, struct dns_cdata *entry, const kavo_cb_arg *origin) {
  Early early = {};
  if (!read_entry(ctx, qh, entry, &early)) return;
  kavo_cb_arg *arg = early_arg(ctx, origin);
  if (arg == nullptr) return;
  dns_set_status(ctx->udns_ctx, early.status);
  dns_set_sflags(ctx->udns_ctx, DNS_SF_CACHED);
  const unsigned size = early.result == nullptr ? 0 : static_cast<const dns_rr_mem *>(early.result)->dnsm_size;
  kavo_srv_cb(ctx->udns_ctx, nullptr, early.result, size, arg);
}

void found_in_cache(KAVO ctx, struct dns_query *qh, const struct dns_dcache *found, kavo_cb_arg *arg) {
  struct dns_cdata *entry = found->dnsd_cdata;
  if (!is_entry_of(entry, qh)) return;
  if (dns_cdata_ttl(entry) >= 0)
    arg->answer.cache_code = KAVOCC_EXISTS;
  else
    deliver_expired(ctx, qh, entry, arg);
}

// trace tells the host's function of an event first. That function may walk a cache entry, which is rewound after it.
void trace(KAVO ctx, struct dns_ctx *dnsctx, struct dns_query *qh, int code, void *data) {
  if (ctx->trace == nullptr) return;
  ctx->trace(dnsctx, qh, code, data, ctx->trace_data);
  if (code == DNS_D_CU_AN && data != nullptr)
    dns_cdata_rewind(static_cast<const struct dns_dcache *>(data)->dnsd_cdata);
}

}  // namespace

void kavo_srv_cb(struct dns_ctx *dnsctx, struct dns_query *qh, void *r, unsigned, void *data) {
  if (dns_get_status(dnsctx) == DNS_E_CANCEL) return;
  kavo_cb_arg *arg = static_cast<kavo_cb_arg *>(data);
  KAVO ctx = arg->node->ctx;
  PELK_ASSERT(arg->qh == qh, KAVO_SRV_SOURCE);
  fill_answer(ctx, arg, r);
  kavo_table_guard guard(ctx);
  if (guard.error != KAVOE_OK) {
    kavo_table_no_lock(KAVO_SRV_SOURCE, __func__, guard.error, "Unable to lock table");
    return;
  }
  count_answer(ctx, arg);
}

void kavo_srv_dbgcb(struct dns_ctx *dnsctx, struct dns_query *qh, int code, void *data, void *udata) {
  trace(static_cast<KAVO>(udata), dnsctx, qh, code, data);
  if (code != DNS_D_CU_AN && code != DNS_D_CU_NOAN) return;
  kavo_cb_arg *arg = own_arg(qh);
  if (arg == nullptr) return;
  KAVO ctx = arg->node->ctx;
  if (code == DNS_D_CU_NOAN)
    not_in_cache(ctx, arg);
  else if (data != nullptr)
    found_in_cache(ctx, qh, static_cast<const struct dns_dcache *>(data), arg);
}

void kavo_srv_dccb(struct dns_ctx *, struct dns_query *qh, int code, void *, void *) {
  if (code != DNS_DC_CHFAIL) return;
  kavo_cb_arg *arg = own_arg(qh);
  if (arg == nullptr) return;
  KAVO ctx = arg->node->ctx;
  kavo_table_guard guard(ctx);
  if (guard.error != KAVOE_OK) {
    kavo_table_no_lock(KAVO_SRV_SOURCE, __func__, guard.error, "Unable to lock table");
    return;
  }
  if (arg->node->state <= KAVOQS_WAIT) move_unanswered(ctx, arg->node, KAVOQS_DCFAIL, __func__);
}
