// kavo_query_table.cc - the query table: finding, taking, moving and releasing nodes.
//
// Host threads hold and drop nodes, the server thread moves them on; mx_table is held for every step here.
#include "kavo_query_table.h"

#include <string.h>

#include <dns_wire.h>
#include <pelk_log.h>

#include "kavo_args.h"
#include "kavo_table_lock.h"
#include "kavo_table_wait.h"
#include "kavo_types.h"

namespace {

constexpr char kSource[] = "kavo_query_table";

// release_node returns the arguments and the permit of a node that becomes free.
[[nodiscard]] KAVO_ERR release_node(KAVO ctx, kavo_query_node_t *node) PELK_REQUIRES(ctx->mx_table) {
  kavo_table_free_args(ctx, node);
  node->first_count = 0;
  memset(node->first_answers, 0, kavo_answer_map_size(ctx->max_zones));
  if (kavo_table_give_back(ctx)) return KAVOE_OK;
  PELK_ERROR(kSource, "kavo_table_change_state", 0, KAVOE_THR, "Unable to release semaphore");
  return KAVOE_THR;
}

// server_holds returns whether one of a node's holds is the server thread's, which owes it an outcome.
[[nodiscard]] bool server_holds(const kavo_query_node_t *node) {
  return node->state >= KAVOQS_NEW && node->state <= KAVOQS_PRESOLVED;
}

// fail_node moves a node in flight to ERROR and drops the server thread's hold on it.
[[nodiscard]] KAVO_ERR fail_node(KAVO ctx, kavo_query_node_t *node) PELK_REQUIRES(ctx->mx_table) {
  static constexpr char kClosing[] = "kavo";
  const KAVO_ERR moved = kavo_table_change_state(ctx, node, KAVOQS_ERROR);
  if (moved != KAVOE_OK) {
    PELK_ERROR(kClosing, "kavo_close", 0, moved, "Unable to change node state, target state %d", KAVOQS_ERROR);
    return moved;
  }
  const KAVO_ERR dropped = kavo_table_unsubscribe_node(ctx, node);
  if (dropped != KAVOE_OK) PELK_INFO(kClosing, "kavo_close", "Unable to unsubscribe query node, error %d", dropped);
  return dropped;
}

[[nodiscard]] KAVO_ERR leave_flight(KAVO ctx, kavo_query_node_t *node) PELK_REQUIRES(ctx->mx_table) {
  const KAVO_ERR error = node->qh_count == 0 ? KAVOE_OK : ctx->cancel(ctx, node);
  if (error != KAVOE_OK) PELK_ERROR(kSource, "kavo_table_change_state", 0, error, "Unable to cancel query");
  return error;
}

// change_range moves a node to another list. A node that has left the index stays among the free ones until it gives
// way, since a thread that still waits for it must find its state.
[[nodiscard]] KAVO_ERR change_range(KAVO ctx, kavo_query_node_t *node, int current, int target)
    PELK_REQUIRES(ctx->mx_table) {
  const bool ends = target == KAVO_RANGE_FREE || target == KAVO_RANGE_DONE || target == KAVO_RANGE_ERROR;
  if (current != KAVO_RANGE_SYNC && ends) {
    const KAVO_ERR error = leave_flight(ctx, node);
    if (error != KAVOE_OK) return error;
  }
  if (target == KAVO_RANGE_FREE) {
    const KAVO_ERR error = release_node(ctx, node);
    if (error != KAVOE_OK) return error;
  }
  return kavo_table_move(ctx, node, target);
}

// kavo_table_keycmp returns 0 for the keys of one question, 1 otherwise. The hash table calls it with mx_table held,
// which the analysis cannot see.
int kavo_table_keycmp(void *owner, const uint8_t *pbuf1, uint16_t len1, const uint8_t *pbuf2,
                      uint16_t len2) PELK_NO_ANALYSIS {
  const kavo_t *ctx = static_cast<const kavo_t *>(owner);
  if (len1 != len2 || memcmp(pbuf1, pbuf2, KAVO_KEY_DN) != 0) return 1;
  const unsigned dnlen = dns_dnequal(pbuf1 + KAVO_KEY_DN, pbuf2 + KAVO_KEY_DN);
  if (dnlen == 0) return 1;
  const size_t servers_at = KAVO_KEY_DN + dnlen;
  if (memcmp(pbuf1 + servers_at, pbuf2 + servers_at, len1 - servers_at) != 0) return 1;
  const auto flags = [ctx](const uint8_t *key) PELK_NO_ANALYSIS {
    return key == ctx->lookup.key ? ctx->lookup.flags : kavo_node_of_key(ctx, key)->flags;
  };
  return ((flags(pbuf1) ^ flags(pbuf2)) & KAVOQF_CMPMASK) == 0 ? 0 : 1;
}

// kavo_table_keyfree releases the node of a key that leaves the hash table, with mx_table held like kavo_table_keycmp.
void kavo_table_keyfree(void *owner, uint8_t *pbuf, PSTAT_HASHITEM pitem) PELK_NO_ANALYSIS {
  if (pbuf == nullptr) return;
  kavo_t *ctx = static_cast<kavo_t *>(owner);
  kavo_query_node_t *node = kavo_node_of_key(ctx, pbuf);
  PELK_ASSERT(!node->client_count && !node->qh_count, kSource);
  PELK_ASSERT(node->hashitem == pitem, kSource);
  PELK_ASSERT((node->cb_args && node->args_count) || (!node->cb_args && !node->args_count), kSource);
  PELK_ASSERT(node->ctx == ctx, kSource);
  kavo_table_free_args(ctx, node);
  kavo_spare_blocks_put(&ctx->spare_blocks, node, pitem->key_size);
}

// init_failed and destroy_failed log a failure with the line of their caller, and return its result.
[[nodiscard]] KAVO_ERR init_failed(const char *message, KAVO_ERR error, int line = __builtin_LINE()) {
  pelk_log_error(kSource, "kavo_table_init", line, 0, error, "%s", message);
  return error;
}

// init_locks makes the table's semaphore, mutex and condition, or none of them.
[[nodiscard]] KAVO_ERR init_locks(KAVO ctx, unsigned table_size) {
  if (pelk_sem_init(&ctx->sem_free_node, table_size, table_size) != 0)
    return init_failed("Semaphore initialization error", KAVOE_THR);
  if (pelk_mutex_init(&ctx->mx_table) != 0) {
    pelk_sem_destroy(&ctx->sem_free_node);
    return init_failed("Mutex initialization error", KAVOE_THR);
  }
  if (pelk_cond_init(&ctx->cond_table) != 0) {
    pelk_mutex_destroy(&ctx->mx_table);
    pelk_sem_destroy(&ctx->sem_free_node);
    return init_failed("Condition initialization error", KAVOE_THR);
  }
  return KAVOE_OK;
}

[[nodiscard]] KAVO_ERR destroy_failed(const char *message, KAVO_ERR error, int line = __builtin_LINE()) {
  pelk_log_error(kSource, "kavo_table_destroy", line, 0, error, "%s", message);
  return error;
}

}  // namespace

int kavo_state2range(kavo_query_state state) {
  switch (state) {
    case KAVOQS_READY:
      return KAVO_RANGE_FREE;
    case KAVOQS_NEW:
      return KAVO_RANGE_NEW;
    case KAVOQS_SUBMITTED:
      return KAVO_RANGE_SUBMITTED;
    case KAVOQS_WAIT:
    case KAVOQS_DCFAIL:
    case KAVOQS_PRESOLVED:
      return KAVO_RANGE_WAIT;
    case KAVOQS_RESOLVED:
      return KAVO_RANGE_DONE;
    case KAVOQS_SYNCWAIT:
    case KAVOQS_SYNCSIG:
      return KAVO_RANGE_SYNC;
    case KAVOQS_ERROR:
      return KAVO_RANGE_ERROR;
  }
  return KAVO_RANGE_INV;
}

bool kavo_table_give_back(KAVO ctx) {
  ctx->table_nfree++;
  return pelk_sem_post(&ctx->sem_free_node) == 0;
}

KAVO_ERR kavo_table_move(KAVO ctx, KAVO_QUERY_NODE node, int range) {
  if (shash_update(&ctx->query_table, node->hashitem, static_cast<rindex_t>(range)) == 0) return KAVOE_OK;
  PELK_ERROR(kSource, __func__, 0, KAVOE_FAIL, "Node updating error");
  return KAVOE_FAIL;
}

KAVO_ERR kavo_table_subscribe_node(KAVO_QUERY_NODE node) {
  if (node == nullptr) return KAVOE_BADPAR;
  node->client_count++;
  return KAVOE_OK;
}

KAVO_ERR kavo_table_unsubscribe_node(KAVO ctx, KAVO_QUERY_NODE node) {
  if (node == nullptr || node->client_count == 0) return KAVOE_BADPAR;
  if (--node->client_count != 0 || node->state == KAVOQS_READY) return KAVOE_OK;
  const KAVO_ERR error = kavo_table_change_state(ctx, node, KAVOQS_READY);
  if (error != KAVOE_OK)
    PELK_ERROR(kSource, __func__, 0, error, "Unable to change node state, target_state %d", KAVOQS_READY);
  return error;
}

KAVO_ERR kavo_table_release_node(KAVO ctx, KAVO_QUERY_NODE node) {
  if (node == nullptr || node->client_count <= (server_holds(node) ? 1U : 0U)) return KAVOE_BADPAR;
  return kavo_table_unsubscribe_node(ctx, node);
}

// The list of WAIT has the DCFAIL and PRESOLVED nodes too.
KAVO_ERR kavo_table_fail_nodes(KAVO ctx) {
  for (const kavo_query_state state : {KAVOQS_NEW, KAVOQS_SUBMITTED, KAVOQS_WAIT}) {
    STAT_RANGEITEM cursor = {};
    PSTAT_RANGEITEM list = kavo_table_state_list(ctx, state, &cursor);
    while (kavo_query_node_t *node = kavo_table_list_item(ctx, list)) {
      const KAVO_ERR error = fail_node(ctx, node);
      if (error != KAVOE_OK) return error;
    }
  }
  return KAVOE_OK;
}

// At rest a node that can be joined is resolved, or a sync node.
void kavo_table_forget_lists(KAVO ctx) {
  kavo_table_guard guard(ctx);
  if (guard.error != KAVOE_OK) return;
  STAT_RANGEITEM cursor = {};
  const PSTAT_RANGEITEM list = range_find(&ctx->query_table, KAVO_RANGE_DONE, &cursor);
  for (shash_item *item = list == nullptr ? nullptr : range_item_first(list); item != nullptr; item = item->range_next)
    if (kavo_type_is_list(kavo_node_type_of(kavo_node_of_key(ctx, item->pKey)))) shash_unindex(&ctx->query_table, item);
}

KAVO_ERR kavo_table_change_state(KAVO ctx, KAVO_QUERY_NODE node, kavo_query_state state) {
  int target = kavo_state2range(state);
  if (target == KAVO_RANGE_INV || node == nullptr || ctx == nullptr) return KAVOE_BADPAR;
  PELK_ASSERT(node->ctx == ctx, kSource);
  if (target == KAVO_RANGE_DONE && node->client_count == 0) target = KAVO_RANGE_FREE;
  const int current = shash_get_item_range(&ctx->query_table, node->hashitem);
  if (current != target) {
    const KAVO_ERR error = change_range(ctx, node, current, target);
    if (error != KAVOE_OK) return error;
  }
  node->state = state;
  kavo_table_tell(ctx, node);
  if (state == KAVOQS_SYNCSIG) kavo_table_broadcast(ctx);
  return KAVOE_OK;
}

PSTAT_RANGEITEM kavo_table_state_list(KAVO ctx, kavo_query_state state, PSTAT_RANGEITEM prange) {
  const int range = kavo_state2range(state);
  if (range == KAVO_RANGE_INV || ctx == nullptr || prange == nullptr) return nullptr;
  return range_find(&ctx->query_table, static_cast<rindex_t>(range), prange);
}

KAVO_QUERY_NODE kavo_table_list_item(KAVO ctx, PSTAT_RANGEITEM range) {
  const shash_item *item = range == nullptr ? nullptr : range_item_first(range);
  return item == nullptr ? nullptr : kavo_node_of_key(ctx, item->pKey);
}

// kavo_table_init runs while no other thread knows the context, hence without the lock that it makes.
KAVO_ERR kavo_table_init(KAVO ctx, int table_size, kavo_cancel_fn *cancel) PELK_NO_ANALYSIS {
  if (ctx == nullptr || table_size <= 0) return KAVOE_BADPAR;
  const unsigned size = static_cast<unsigned>(table_size);
  if (shash_init(&ctx->query_table, size, 0, kavo_table_keycmp, kavo_table_keyfree, KAVO_RANGES) != 0)
    return init_failed("Table initialization error", KAVOE_FAIL);
  ctx->query_table.owner = ctx;
  ctx->cancel = cancel;
  ctx->table_size = size;
  ctx->table_nfree = size;
  const KAVO_ERR error = init_locks(ctx, size);
  if (error != KAVOE_OK) {
    shash_destroy(&ctx->query_table);
    return error;
  }
  ctx->table_ready = true;
  return KAVOE_OK;
}

// kavo_table_destroy runs when no other thread uses the context, hence without the lock that it releases.
KAVO_ERR kavo_table_destroy(KAVO ctx) PELK_NO_ANALYSIS {
  if (ctx == nullptr) return KAVOE_BADPAR;
  if (!ctx->table_ready) return KAVOE_OK;
  ctx->table_ready = false;
  KAVO_ERR error = KAVOE_OK;
  if (shash_destroy(&ctx->query_table) != 0) error = destroy_failed("Table destroying error", KAVOE_FAIL);
  kavo_spare_blocks_free(&ctx->spare_blocks);
  if (pelk_sem_destroy(&ctx->sem_free_node) != 0) error = destroy_failed("Semaphore destroying error", KAVOE_THR);
  if (pelk_mutex_destroy(&ctx->mx_table) != 0) error = destroy_failed("Mutex destroying error", KAVOE_THR);
  if (pelk_cond_destroy(&ctx->cond_table) != 0) error = destroy_failed("Condition destroying error", KAVOE_THR);
  return error;
}
