// kavo_table_wait.cc - waiting for nodes, and waking those that wait.
//
// Host threads wait, with mx_table; the server thread and host threads that move nodes tell and broadcast.
#include "kavo_table_wait.h"

#include <algorithm>

#include <pelk_log.h>

uint32_t kavo_table_expect(KAVO, KAVO_QUERY_NODE node, kavo_query_state state) {
  node->wanted = std::min(node->wanted, state);
  return kavo_node_bit(node);
}

void kavo_table_tell(KAVO ctx, kavo_query_node_t *node) {
  const bool reached = node->wanted != KAVOQS_NOBODY && (node->state >= node->wanted || node->state == KAVOQS_READY);
  if (!reached && ctx->list_waiters == 0) [[likely]]
    return;
  if (reached) node->wanted = KAVOQS_NOBODY;
  ctx->event.fetch_or(kavo_node_bit(node));
}

KAVO_ERR kavo_table_wait(KAVO ctx, const struct timeval *deadline, uint32_t bits) {
  const int error = deadline != nullptr ? pelk_cond_wait_deadline(&ctx->cond_table, &ctx->mx_table, deadline, bits)
                                        : pelk_cond_wait(&ctx->cond_table, &ctx->mx_table, bits);
  if (error == 0) return KAVOE_OK;
  if (error == PELK_TIMEDOUT) return KAVOE_TIMEOUT;
  PELK_ERROR("kavo_query_table", __func__, error, error, "Condition waiting error");
  return KAVOE_THR;
}

void kavo_table_broadcast(KAVO ctx) {
  if (ctx->event.load(std::memory_order_relaxed) == 0) return;
  const uint32_t bits = ctx->event.exchange(0);
  if (bits != 0) pelk_cond_broadcast(&ctx->cond_table, bits);
}
