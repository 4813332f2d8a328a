// kavo_query_table.h - the query table: nodes, their states and lists, and the pool of their callback arguments.
//
// Every question in use is a node, in a hash table of fixed capacity, keyed by the question, so that callers who ask
// the same share one node. The context's mx_table guards the table, every field of every node and the pool; the fields
// that a reader of answers touches without it say so. Kept in kavo_query_table.cc (nodes),
// kavo_table_add.cc (questions on their way to a node) and kavo_args.cc (arguments).
//
//     READY ──subscribed──> NEW ──server──> SUBMITTED ──> WAIT ──> DCFAIL ──> PRESOLVED ──> RESOLVED
//       │                    └──────────────────┴──────────┴── failed ──┴─────────┴──> ERROR
//       └──subscribed──> SYNCWAIT <──> SYNCSIG                     the last hold dropped: READY, from anywhere
#ifndef KAVO_QUERY_TABLE_H
#define KAVO_QUERY_TABLE_H

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>

#include <atomic>
#include <span>

#include <dns_engine.h>
#include <kavo.h>
#include <pelk.h>
#include <shash.h>

#include "kavo_t.h"

// Request flags that only the library sets, and those that belong to a node's identity.
inline constexpr uint32_t KAVOQF_DCACHE = 0x10000;
inline constexpr uint32_t KAVOQF_INTERNAL = 0xffff0000;
inline constexpr uint32_t KAVOQF_CMPMASK = KAVOQF_RECURSIVE | KAVOQF_PKT | KAVOQF_DCACHE;

// Waits compare states by value, so their order matters.
enum kavo_query_state : uint32_t {
  KAVOQS_READY = 1,      // no holder: free for reuse
  KAVOQS_SYNCWAIT = 2,   // a sync node waiting for its signal
  KAVOQS_NEW = 3,        // subscribed, not yet taken by the server thread
  KAVOQS_SUBMITTED = 4,  // its questions are with the DNS engine
  KAVOQS_WAIT = 5,       // the cache holds no answer
  KAVOQS_DCFAIL = 6,     // the check of the direct cache failed
  KAVOQS_PRESOLVED = 7,  // some answers have arrived
  KAVOQS_RESOLVED = 8,   // every question has its answer
  KAVOQS_SYNCSIG = 9,    // a sync node that was signalled
  KAVOQS_ERROR = 10      // the node failed
};
inline constexpr kavo_query_state KAVOQS_NOBODY{UINT32_MAX};

// The lists in which nodes lie according to their states.
inline constexpr int KAVO_RANGE_INV = -1;
inline constexpr int KAVO_RANGE_FREE = 0;
inline constexpr int KAVO_RANGE_NEW = 1;
inline constexpr int KAVO_RANGE_SUBMITTED = 2;
inline constexpr int KAVO_RANGE_WAIT = 3;
inline constexpr int KAVO_RANGE_DONE = 4;
inline constexpr int KAVO_RANGE_SYNC = 5;
inline constexpr int KAVO_RANGE_ERROR = 6;
inline constexpr int KAVO_RANGES = 7;

// kavo_sa: a server in a node's key. Address and port are in network order.
struct kavo_sa {
  uint32_t addr;
  uint16_t port;
  uint16_t unused;  // 0: keys are compared byte for byte
};
static_assert(sizeof(kavo_sa) == 8);

// A key: the type in host order, the name as DN, the servers.
inline constexpr unsigned KAVO_KEY_DN = sizeof(uint32_t);
inline constexpr unsigned KAVO_KEY_SIZE_MAX = KAVO_KEY_DN + DNS_MAXDN + KAVO_MAX_SERV * sizeof(kavo_sa);
static_assert(KAVO_KEY_SIZE_MAX == 387);

// kavo_cb_arg: one question to the engine, the tie between its answer and the node and zone that it is for. A reader
// walks the chain without the lock while the server thread appends an early answer's argument: `next` is atomic, and
// `node` and `n_zone` are set before the argument is linked or, by submission, before a reader can see the node's
// answers. `answer` is complete before its bit in the node's map is set.
struct kavo_cb_arg {
  std::atomic<kavo_cb_arg *> next = nullptr;  // in the node's chain, or in the pool's free list
  KAVO_QUERY_NODE node = nullptr;             // null while the argument is free
  struct dns_query *qh = nullptr;             // the engine's question while it is in flight
  KAVO_ANSWER answer = {};                    // its record block stays with the argument and is used again
  uint32_t start_time = 0;                    // when it was submitted: the context's `now`
  int n_zone = 0;                             // the zone's place in the node's list; max_zones more for an early answer
};

// kavo_query_node_t: one question. The map of delivered answers is as long as the context's max_zones needs, and the
// key follows it in the same block, at the same distance in every node of a context.
struct kavo_query_node_t {
  KAVO ctx;
  PSTAT_HASHITEM hashitem;
  kavo_query_state state;
  kavo_query_state wanted;  // the least state that somebody waits for it to reach; KAVOQS_NOBODY for none
  uint32_t flags;
  uint32_t args_count;
  kavo_cb_arg *cb_args;
  uint32_t client_count;                  // holders: callers, and the server thread while it owes an outcome
  uint32_t qh_count;                      // questions in flight
  uint32_t first_count;                   // answers delivered
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
[[nodiscard]] KAVO_TYPE kavo_node_type_of(const kavo_query_node_t *node);
inline const uint8_t *kavo_node_dn(const kavo_query_node_t *node) {
  return node->hashitem->pKey + KAVO_KEY_DN;
}

// kavo_key_distance returns the bytes from a node's start to its key, kavo_node_of_key the node of a key in the table.
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

// ---- the lock -------------------------------------------------------------------------------------------------------

// kavo_table_lock and kavo_table_unlock take and release mx_table; a failure is logged: KAVOE_THR. The lock of a
// context whose run is a parent process's is not touched: KAVOE_SRV. The analysis takes the lock for held in any case.
[[gnu::cold]] KAVO_ERR kavo_table_lock_failed(int error);
[[nodiscard]] inline KAVO_ERR kavo_table_lock(KAVO ctx) PELK_ACQUIRE(ctx->mx_table) PELK_NO_ANALYSIS {
  if (kavo_is_foreign(ctx)) [[unlikely]]
    return KAVOE_SRV;
  const int error = pelk_mutex_lock(&ctx->mx_table);
  return error == 0 ? KAVOE_OK : kavo_table_lock_failed(error);
}
KAVO_ERR kavo_table_unlock(KAVO ctx) PELK_RELEASE(ctx->mx_table);

// kavo_table_guard holds the table lock for a scope. `error` is what taking it returned; the analysis takes it for held
// either way, so a holder asks first.
class PELK_SCOPED_CAPABILITY kavo_table_guard {
 public:
  explicit kavo_table_guard(KAVO ctx) PELK_ACQUIRE(ctx->mx_table) : error(kavo_table_lock(ctx)), ctx_(ctx) {}
  ~kavo_table_guard() PELK_RELEASE() { drop(); }
  kavo_table_guard(const kavo_table_guard &) = delete;
  kavo_table_guard &operator=(const kavo_table_guard &) = delete;

  const KAVO_ERR error;

 private:
  void drop() PELK_NO_ANALYSIS {
    if (error == KAVOE_OK) kavo_table_unlock(ctx_);
  }
  const KAVO ctx_;
};

// kavo_table_no_lock logs, where that has its place, what could not be done for want of the lock, with `error` or
// another code. Returns `error`.
inline constexpr char KAVO_NO_TABLE_LOCK[] = "Unable to lock query table";
KAVO_ERR kavo_table_no_lock(const char *source, const char *function, KAVO_ERR error, KAVO_ERR logged,
                            const char *message, int line = __builtin_LINE());
inline KAVO_ERR kavo_table_no_lock(const char *source, const char *function, KAVO_ERR error,
                                   const char *message = KAVO_NO_TABLE_LOCK, int line = __builtin_LINE()) {
  return kavo_table_no_lock(source, function, error, error, message, line);
}

// ---- nodes ----------------------------------------------------------------------------------------------------------

// kavo_table_init makes the table for `table_size` nodes, kavo_table_destroy releases it with every node. Neither may
// run beside anything else. KAVOE_BADPAR, KAVOE_FAIL, KAVOE_THR.
[[nodiscard]] KAVO_ERR kavo_table_init(KAVO ctx, int table_size);
KAVO_ERR kavo_table_destroy(KAVO ctx);

// kavo_table_run returns the number of the run that is on, or of the one to come. A subscription notes it before it
// first looks at the state: what it has found then holds as long as this run is on.
inline uint32_t kavo_table_run(const kavo_t *ctx) {
  return pelk_sem_epoch(&ctx->sem_free_node);
}

// kavo_table_add hands out the node of a question with one hold for the caller: a node that exists is joined, else one
// is taken when a permit is free, for which it waits until `deadline`, and the server thread is woken. `serv` has at
// most KAVO_MAX_SERV entries. Once `run` is over: KAVOE_SRV, which is the caller's to log.
[[nodiscard]] KAVO_ERR kavo_table_add(KAVO ctx, KAVO_TYPE type, const unsigned char *dn, const kavo_sa *serv,
                                      unsigned nserv, const struct timeval *deadline, unsigned flags, uint32_t run,
                                      KAVO_QUERY_NODE *query_node) PELK_EXCLUDES(ctx->mx_table);

// kavo_table_get_block returns a zeroed block for a node whose key has `key_size` bytes, whose place follows the node;
// kavo_table_put_block takes one back. A table that evicts nodes as it takes them allocates nothing.
[[nodiscard]] kavo_query_node_t *kavo_table_get_block(KAVO ctx, uint16_t key_size) PELK_REQUIRES(ctx->mx_table);
void kavo_table_put_block(KAVO ctx, kavo_query_node_t *node, uint16_t key_size) PELK_REQUIRES(ctx->mx_table);

// kavo_table_subscribe_node adds a hold, kavo_table_unsubscribe_node drops one; the last one frees the node.
[[nodiscard]] KAVO_ERR kavo_table_subscribe_node(KAVO_QUERY_NODE node);
KAVO_ERR kavo_table_unsubscribe_node(KAVO ctx, KAVO_QUERY_NODE node) PELK_REQUIRES(ctx->mx_table);

// kavo_table_release_node drops a caller's hold: KAVOE_BADPAR when no hold is left but the server thread's.
KAVO_ERR kavo_table_release_node(KAVO ctx, KAVO_QUERY_NODE node) PELK_REQUIRES(ctx->mx_table);

// kavo_table_fail_nodes moves every node in flight to ERROR and drops the server thread's hold on it.
// kavo_table_forget_lists has no subscription join what callers still hold of questions to lists: other lists are about
// to be configured.
KAVO_ERR kavo_table_fail_nodes(KAVO ctx) PELK_REQUIRES(ctx->mx_table);
void kavo_table_forget_lists(KAVO ctx) PELK_EXCLUDES(ctx->mx_table);

// kavo_table_change_state moves a node to a state and its list. Leaving the states in flight cancels its questions;
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

// kavo_node_bit returns the bit of a node among the 32 that tell the waiters of one node from those of most others.
inline uint32_t kavo_node_bit(const kavo_query_node_t *node) {
  constexpr unsigned kTopBits = 32 - 5;
  return 1U << (node->hashitem->hash >> kTopBits);
}

// kavo_table_expect has the waiters of a node woken when it reaches `state`, or becomes free. Returns the bit to wait
// with. It holds until that happens, or for as long as the node is in use.
uint32_t kavo_table_expect(KAVO ctx, KAVO_QUERY_NODE node, kavo_query_state state) PELK_REQUIRES(ctx->mx_table);

// kavo_list_wait has every state change of any node tell the waiters, for a scope of which the calling thread waits for
// nodes that the host may put into a list or take out of it meanwhile. They sleep on PELK_ALL_BITS.
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

// kavo_table_broadcast wakes the waiters of the nodes that have come since the last time to a state that is waited for;
// with the lock or not.
void kavo_table_broadcast(KAVO ctx);

// What the hash table calls.
int kavo_table_keycmp(void *owner, const uint8_t *pbuf1, uint16_t len1, const uint8_t *pbuf2, uint16_t len2);
void kavo_table_keyfree(void *owner, uint8_t *pbuf, PSTAT_HASHITEM pitem);

// ---- callback arguments ---------------------------------------------------------------------------------------------

// kavo_table_grow_args adds at least `count` (at least 1) arguments to the pool; without memory it adds none.
void kavo_table_grow_args(KAVO ctx, int count) PELK_REQUIRES(ctx->mx_table);

// kavo_table_get_args appends `count` arguments (at least 1) to a node's chain and returns the first, or null.
[[nodiscard]] kavo_cb_arg *kavo_table_get_args(KAVO ctx, KAVO_QUERY_NODE node, int count) PELK_REQUIRES(ctx->mx_table);

// kavo_table_get_early_arg appends the argument of an early answer for the zone of `origin`, whole before it is linked.
// Null without memory.
[[nodiscard]] kavo_cb_arg *kavo_table_get_early_arg(KAVO ctx, const kavo_cb_arg *origin) PELK_REQUIRES(ctx->mx_table);

// kavo_table_free_args returns a node's whole chain to the pool.
void kavo_table_free_args(KAVO ctx, KAVO_QUERY_NODE node) PELK_REQUIRES(ctx->mx_table);

// kavo_args_release releases the pool, in which every argument lies again; no other thread uses it.
void kavo_args_release(KAVO ctx);

#endif  // KAVO_QUERY_TABLE_H
