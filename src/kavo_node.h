// kavo_node.h - the node of a question, its key, and the arguments of its queries.
//
// The context's mx_table guards every field of every node and argument; the fields that a reader of answers touches
// without the lock say so.
//
//     READY ──subscribed──> NEW ──server──> SUBMITTED ──> WAIT ──> DCFAIL ──> PRESOLVED ──> RESOLVED
//       │                    └──────────────────┴──────────┴── failed ──┴─────────┴──> ERROR
//       └──subscribed──> SYNCWAIT <──> SYNCSIG                     the last hold dropped: READY, from anywhere
#ifndef KAVO_NODE_H
#define KAVO_NODE_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <atomic>
#include <span>

#include <kavo.h>
#include <shash.h>

#include "kavo_node_servers.h"
#include "kavo_t.h"

// Flags of a question that only the library sets, and those that belong to a node's identity.
inline constexpr uint32_t KAVOQF_DCACHE = 0x10000;
inline constexpr uint32_t KAVOQF_INTERNAL = 0xffff0000;
inline constexpr uint32_t KAVOQF_CMPMASK = KAVOQF_RECURSIVE | KAVOQF_PKT | KAVOQF_DCACHE;

// Waits compare states by value, so their order matters.
enum kavo_query_state : uint32_t {
  KAVOQS_READY = 1,      // no holder: free for reuse
  KAVOQS_SYNCWAIT = 2,   // a sync node waiting for its signal
  KAVOQS_NEW = 3,        // subscribed, not yet taken by the server thread
  KAVOQS_SUBMITTED = 4,  // its queries are with the DNS engine
  KAVOQS_WAIT = 5,       // the cache holds no answer
  KAVOQS_DCFAIL = 6,     // the check of the direct cache failed
  KAVOQS_PRESOLVED = 7,  // some answers have arrived
  KAVOQS_RESOLVED = 8,   // every query has its answer
  KAVOQS_SYNCSIG = 9,    // a sync node that was signalled
  KAVOQS_ERROR = 10      // the node failed
};
inline constexpr kavo_query_state KAVOQS_NOBODY{UINT32_MAX};

// A key: the type in host order, the name as DN, the question's own servers.
inline constexpr unsigned KAVO_KEY_DN = sizeof(uint32_t);
inline constexpr unsigned KAVO_KEY_SIZE_MAX = KAVO_KEY_DN + DNS_MAXDN + KAVO_SA_MAX * sizeof(kavo_sa);
static_assert(KAVO_KEY_SIZE_MAX <= KAVO_SPARE_CLASSES * KAVO_SPARE_STEP);

// kavo_cb_arg: one query to the engine, the tie between its answer and the node and zone that the answer is for. A
// reader walks the chain without the lock while the server thread appends the argument of an early answer: `next` is
// atomic; `node` and `n_zone` are set before the argument is linked or, by submission, before a reader can see any of
// the node's answers. `answer` is complete before its bit in the node's map is set.
struct kavo_cb_arg {
  std::atomic<kavo_cb_arg *> next = nullptr;  // in the node's chain, or in the pool's free list
  KAVO_QUERY_NODE node = nullptr;             // null while the argument is free
  struct dns_query *qh = nullptr;             // the engine's query while it is in flight
  KAVO_ANSWER answer = {};                    // its record block stays with the argument and is used again
  uint32_t start_time = 0;                    // when the query was submitted: the context's `now`
  int n_zone = 0;                             // the zone's place in the node's list; max_zones more for an early answer
};

// kavo_query_node_t: one question. The map of delivered answers is as long as the context's max_zones needs. The key
// follows it in the same block, at the same distance in every node of a context.
struct kavo_query_node_t {
  KAVO ctx = nullptr;
  PSTAT_HASHITEM hashitem = nullptr;
  kavo_query_state state = KAVOQS_READY;
  kavo_query_state wanted = KAVOQS_NOBODY;  // the least state that a thread waits for it to reach; NOBODY for none
  uint32_t flags = 0;
  uint32_t args_count = 0;
  kavo_cb_arg *cb_args = nullptr;
  uint32_t client_count = 0;              // holders: callers, and the server thread while it owes an outcome
  uint32_t qh_count = 0;                  // queries in flight
  uint32_t first_count = 0;               // answers delivered
  __extension__ uint8_t first_answers[];  // bit z: zone z has answered; bit max_zones + z: an early answer for it
};

// kavo_answer_map_size returns the bytes of a map of delivered answers.
constexpr size_t kavo_answer_map_size(int max_zones) {
  return (2 * static_cast<size_t>(max_zones) + 7) / 8;
}

// kavo_node_deliver lets readers see the answer of one of a node's arguments, which is complete.
inline void kavo_node_deliver(kavo_query_node_t *node, const kavo_cb_arg *arg) {
  const auto bit = static_cast<unsigned>(arg->n_zone);
  node->first_count++;
  node->first_answers[bit / 8] = static_cast<uint8_t>(node->first_answers[bit / 8] | (1U << (bit % 8)));
}

// kavo_node_key returns a node's key; kavo_node_type_of its type; kavo_node_dn its name.
inline std::span<const uint8_t> kavo_node_key(const kavo_query_node_t *node) {
  return {node->hashitem->pKey, node->hashitem->key_size};
}
[[nodiscard]] inline KAVO_TYPE kavo_node_type_of(const kavo_query_node_t *node) {
  uint32_t number = 0;
  memcpy(&number, node->hashitem->pKey, sizeof number);
  return static_cast<KAVO_TYPE>(number);
}
inline const uint8_t *kavo_node_dn(const kavo_query_node_t *node) {
  return node->hashitem->pKey + KAVO_KEY_DN;
}

// kavo_key_distance returns the bytes from a node's start to its key, kavo_node_of_key the node of a key in the table,
// kavo_node_key_place the place of a node's key.
inline constexpr size_t KAVO_KEY_ALIGNMENT = 8;
inline size_t kavo_key_distance(const kavo_t *ctx) {
  const size_t end = offsetof(kavo_query_node_t, first_answers) + kavo_answer_map_size(ctx->max_zones);
  return (end + KAVO_KEY_ALIGNMENT - 1) / KAVO_KEY_ALIGNMENT * KAVO_KEY_ALIGNMENT;
}
inline kavo_query_node_t *kavo_node_of_key(const kavo_t *ctx, uint8_t *key) {
  void *block = key - kavo_key_distance(ctx);
  return static_cast<kavo_query_node_t *>(block);
}
inline const kavo_query_node_t *kavo_node_of_key(const kavo_t *ctx, const uint8_t *key) {
  const void *block = key - kavo_key_distance(ctx);
  return static_cast<const kavo_query_node_t *>(block);
}
inline uint8_t *kavo_node_key_place(const kavo_t *ctx, kavo_query_node_t *node) {
  void *block = node;
  return static_cast<uint8_t *>(block) + kavo_key_distance(ctx);
}

#endif  // KAVO_NODE_H
