// kavo_query_table.h - the query table: the nodes of all questions in use, their states and lists.
//
// A hash table of fixed capacity, keyed by the question, so that callers who ask the same share one node. The context's
// mx_table guards the table and every node. Adding a question is in kavo_table_add.h, waiting in kavo_table_wait.h.
#ifndef KAVO_QUERY_TABLE_H
#define KAVO_QUERY_TABLE_H

#include <stdint.h>

#include <kavo.h>
#include <pelk_sync.h>
#include <shash.h>

#include "kavo_node.h"
#include "kavo_t.h"

// The lists in which nodes are filed by their states.
inline constexpr int KAVO_RANGE_INV = -1;
inline constexpr int KAVO_RANGE_FREE = 0;
inline constexpr int KAVO_RANGE_NEW = 1;
inline constexpr int KAVO_RANGE_SUBMITTED = 2;
inline constexpr int KAVO_RANGE_WAIT = 3;
inline constexpr int KAVO_RANGE_DONE = 4;
inline constexpr int KAVO_RANGE_SYNC = 5;
inline constexpr int KAVO_RANGE_ERROR = 6;
inline constexpr int KAVO_RANGES = 7;

// kavo_table_init makes the table for `table_size` nodes, whose queries it will cancel with `cancel`;
// kavo_table_destroy releases it with every node. No other thread may use the context meanwhile. KAVOE_BADPAR,
// KAVOE_FAIL, KAVOE_THR.
[[nodiscard]] KAVO_ERR kavo_table_init(KAVO ctx, int table_size, kavo_cancel_fn *cancel);
KAVO_ERR kavo_table_destroy(KAVO ctx);

// kavo_table_subscribe_node adds a hold, kavo_table_unsubscribe_node drops one; the last one frees the node.
[[nodiscard]] KAVO_ERR kavo_table_subscribe_node(KAVO_QUERY_NODE node);
KAVO_ERR kavo_table_unsubscribe_node(KAVO ctx, KAVO_QUERY_NODE node) PELK_REQUIRES(ctx->mx_table);

// kavo_table_release_node drops a caller's hold: KAVOE_BADPAR when no hold is left but the server thread's.
[[nodiscard]] KAVO_ERR kavo_table_release_node(KAVO ctx, KAVO_QUERY_NODE node) PELK_REQUIRES(ctx->mx_table);

// kavo_table_fail_nodes moves every node in flight to ERROR and drops the server thread's hold on it.
[[nodiscard]] KAVO_ERR kavo_table_fail_nodes(KAVO ctx) PELK_REQUIRES(ctx->mx_table);

// kavo_table_forget_lists keeps later subscriptions from joining nodes of list questions: other lists are about to be
// configured.
void kavo_table_forget_lists(KAVO ctx) PELK_EXCLUDES(ctx->mx_table);

// kavo_table_change_state moves a node to a state and its list. Leaving the states in flight cancels its queries;
// becoming free returns its arguments and its permit. A failure leaves the node's state as it was.
[[nodiscard]] KAVO_ERR kavo_table_change_state(KAVO ctx, KAVO_QUERY_NODE node, kavo_query_state state)
    PELK_REQUIRES(ctx->mx_table);

// kavo_table_state_list sets `prange` to the list of a state and returns it, or null; kavo_table_list_item returns the
// node that came into a list longest ago, or null.
[[nodiscard]] PSTAT_RANGEITEM kavo_table_state_list(KAVO ctx, kavo_query_state state, PSTAT_RANGEITEM prange)
    PELK_REQUIRES(ctx->mx_table);
[[nodiscard]] KAVO_QUERY_NODE kavo_table_list_item(KAVO ctx, PSTAT_RANGEITEM range) PELK_REQUIRES(ctx->mx_table);

// kavo_table_move files a node in a list; a failure is logged. kavo_table_give_back returns a permit that was counted
// in table_nfree; false when it cannot.
[[nodiscard]] KAVO_ERR kavo_table_move(KAVO ctx, KAVO_QUERY_NODE node, int range) PELK_REQUIRES(ctx->mx_table);
bool kavo_table_give_back(KAVO ctx) PELK_REQUIRES(ctx->mx_table);

// kavo_state2range returns the list of a state, KAVO_RANGE_INV for a value that is no state.
[[nodiscard]] int kavo_state2range(kavo_query_state state);

#endif  // KAVO_QUERY_TABLE_H
