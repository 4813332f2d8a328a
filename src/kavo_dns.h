// kavo_dns.h - from nodes to queries of the DNS engine: submission and cancellation.
//
// Both run with the table lock held, which serializes every use of the engine's context here: submission on the server
// thread, cancellation wherever a node leaves its states in flight.
#ifndef KAVO_SRC_DNS_H
#define KAVO_SRC_DNS_H

#include <stdint.h>

#include <span>

#include <dns_engine.h>
#include <kavo.h>
#include <pelk_sync.h>

#include "kavo_node.h"
#include "kavo_t.h"

// kavo_submit_key queues one query: the name of a node's key followed by the labels of a zone, with the key's servers.
// `zone` is the zone's wire form, empty for a zone whose text is no name; null: no zone. Returns the engine's handle,
// or null and the reason in `err` (null allowed).
[[nodiscard]] struct dns_query *kavo_submit_key(KAVO ctx, const unsigned char *key, unsigned keylen,
                                                const std::span<const uint8_t> *zone, unsigned flags,
                                                dns_query_fn *cbck, void *data, KAVO_ERR *err)
    PELK_REQUIRES(ctx->mx_table);

// kavo_submit_query queues a query for each of the node's zones that has none yet. A zone with which the question makes
// no name has its answer at once: KAVOE_BADPAR, which is returned too where it is every zone's. After any other failure
// the queries before it stay submitted, and the failure's code is returned.
[[nodiscard]] KAVO_ERR kavo_submit_query(KAVO ctx, KAVO_QUERY_NODE node, dns_query_fn *cbck)
    PELK_REQUIRES(ctx->mx_table);

// kavo_cancel_query drops the node's queries in flight; their callbacks never run.
[[nodiscard]] KAVO_ERR kavo_cancel_query(KAVO ctx, KAVO_QUERY_NODE node) PELK_REQUIRES(ctx->mx_table);

#endif  // KAVO_SRC_DNS_H
