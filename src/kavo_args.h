// kavo_args.h - the pool of callback arguments.
//
// mx_table guards the pool and the nodes' chains.
#ifndef KAVO_ARGS_H
#define KAVO_ARGS_H

#include <kavo.h>
#include <pelk_sync.h>

#include "kavo_node.h"
#include "kavo_t.h"

// kavo_table_grow_args adds at least `count` (at least 1) arguments to the pool; without memory it adds none.
void kavo_table_grow_args(KAVO ctx, int count) PELK_REQUIRES(ctx->mx_table);

// kavo_table_get_args appends `count` arguments (at least 1) to a node's chain and returns the first, or null.
[[nodiscard]] kavo_cb_arg *kavo_table_get_args(KAVO ctx, KAVO_QUERY_NODE node, int count) PELK_REQUIRES(ctx->mx_table);

// kavo_table_get_early_arg appends the argument of an early answer for the zone of `origin`, whole before it is linked.
// Null without memory.
[[nodiscard]] kavo_cb_arg *kavo_table_get_early_arg(KAVO ctx, const kavo_cb_arg *origin) PELK_REQUIRES(ctx->mx_table);

// kavo_table_free_args returns a node's whole chain to the pool.
void kavo_table_free_args(KAVO ctx, KAVO_QUERY_NODE node) PELK_REQUIRES(ctx->mx_table);

// kavo_args_release frees the pool, to which every argument has returned; no other thread uses it.
void kavo_args_release(KAVO ctx);

#endif  // KAVO_ARGS_H
