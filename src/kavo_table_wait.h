// kavo_table_wait.h - waiting for nodes, and waking those that wait.
//
// One condition of 32 bits serves all waits. Each node has one of the bits; a waiter sleeps on the bits of its nodes,
// and a broadcast wakes the waiters of the nodes that have come to a state that a thread waits for.
#ifndef KAVO_TABLE_WAIT_H
#define KAVO_TABLE_WAIT_H

#include <stdint.h>
#include <sys/time.h>

#include <kavo.h>
#include <pelk_sync.h>

#include "kavo_node.h"
#include "kavo_t.h"

// kavo_node_bit returns the bit of a node among the 32 that tell the waiters of one node from those of most others.
inline uint32_t kavo_node_bit(const kavo_query_node_t *node) {
  constexpr unsigned kTopBits = 32 - 5;
  return 1U << (node->hashitem->hash >> kTopBits);
}

// kavo_table_expect has the waiters of a node woken when it reaches `state`, or becomes free. Returns the bit to wait
// with, which is the node's for as long as the node is in use.
uint32_t kavo_table_expect(KAVO ctx, KAVO_QUERY_NODE node, kavo_query_state state) PELK_REQUIRES(ctx->mx_table);

// kavo_table_tell has the next broadcast wake those that wait for a node, if its state has come to what they wait for.
// Others would look at the node for nothing, and sleep again. A thread that waits for a host's list is woken by every
// node.
void kavo_table_tell(KAVO ctx, kavo_query_node_t *node) PELK_REQUIRES(ctx->mx_table);

// kavo_list_wait has every state change of any node wake the waiters, for a scope in which the calling thread waits for
// nodes that the host may put into a list or take out of it meanwhile. Such threads sleep on PELK_ALL_BITS.
class kavo_list_wait {
 public:
  explicit kavo_list_wait(KAVO ctx) PELK_REQUIRES(ctx->mx_table) : ctx_(ctx) { ctx->list_waiters++; }
  ~kavo_list_wait() PELK_NO_ANALYSIS { ctx_->list_waiters--; }
  kavo_list_wait(const kavo_list_wait &) = delete;
  kavo_list_wait &operator=(const kavo_list_wait &) = delete;

 private:
  const KAVO ctx_;
};

// kavo_table_wait sleeps until nodes with one of `bits` have come to states that are waited for, or until `deadline`
// (null: none) has passed: KAVOE_TIMEOUT.
[[nodiscard]] KAVO_ERR kavo_table_wait(KAVO ctx, const struct timeval *deadline, uint32_t bits)
    PELK_REQUIRES(ctx->mx_table);

// kavo_table_broadcast wakes the waiters that kavo_table_tell has noted since the last broadcast; with the lock or not.
void kavo_table_broadcast(KAVO ctx);

#endif  // KAVO_TABLE_WAIT_H
