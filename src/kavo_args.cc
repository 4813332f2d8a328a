// kavo_args.cc - the pool of callback arguments, one for each query to the engine.
//
// Arguments are allocated in chunks, given to nodes, returned in whole chains, and kept with their record blocks until
// the context is released: a steady load allocates nothing. mx_table guards the pool. While a node is held its chain is
// only appended to, since readers walk it without the lock.
#include "kavo_args.h"

#include <limits.h>
#include <stdlib.h>

#include <new>

#include <pelk_log.h>

#include "kavo_state.h"
#include "kavo_table_lock.h"

// kavo_arg_chunk: one allocation, this head and its arguments after it.
struct alignas(kavo_cb_arg) kavo_arg_chunk {
  kavo_arg_chunk *next = nullptr;
};

namespace {

constexpr char kSource[] = "kavo_query_table";

kavo_cb_arg *next_of(const kavo_cb_arg *arg) {
  return arg->next.load(std::memory_order_relaxed);
}

void link(kavo_cb_arg *arg, kavo_cb_arg *next) {
  arg->next.store(next, std::memory_order_relaxed);
}

// set_free gives an argument its free values; it keeps its record block and its place in the chain.
void set_free(kavo_cb_arg *arg) {
  const KAVO_RR kept = arg->answer.rr;
  arg->answer = {};
  arg->answer.err_code = KAVOE_FAIL;
  arg->answer.cache_code = KAVOCC_NEXISTS;
  arg->answer.rr = kept;
  arg->qh = nullptr;
  arg->node = nullptr;
}

// make_chunk allocates `count` linked free arguments after their chunk's head. Returns the first, or null.
[[nodiscard]] kavo_cb_arg *make_chunk(size_t count, kavo_cb_arg *rest, kavo_arg_chunk **head) {
  void *memory = calloc(1, sizeof(kavo_arg_chunk) + count * sizeof(kavo_cb_arg));
  if (memory == nullptr) return nullptr;
  *head = new (memory) kavo_arg_chunk{};
  void *records = *head + 1;
  kavo_cb_arg *first = static_cast<kavo_cb_arg *>(records);
  for (size_t i = 0; i < count; i++) {
    kavo_cb_arg *arg = new (first + i) kavo_cb_arg;
    set_free(arg);
    link(arg, i + 1 < count ? first + i + 1 : rest);
  }
  return first;
}

// Chain is arguments that are in no node's chain yet.
struct Chain {
  kavo_cb_arg *first = nullptr;
  kavo_cb_arg *last = nullptr;
};

// detach takes the first `count` arguments off the free list for a node. Returns an empty chain, with nothing changed,
// when they cannot be had.
[[nodiscard]] Chain detach(KAVO ctx, KAVO_QUERY_NODE node, int count) PELK_REQUIRES(ctx->mx_table) {
  if (ctx->free_arg_count < count) kavo_table_grow_args(ctx, count - ctx->free_arg_count);
  if (ctx->free_arg_count < count) return {};
  Chain chain = {ctx->free_arg, nullptr};
  for (int i = 0; i < count; i++) {
    chain.last = ctx->free_arg;
    chain.last->node = node;
    ctx->free_arg = next_of(chain.last);
  }
  ctx->free_arg_count -= count;
  link(chain.last, nullptr);
  return chain;
}

// end_of returns the last argument of a node's chain, null without any. What args_end tells of a node without arguments
// is from an earlier use of the node.
[[nodiscard]] kavo_cb_arg *end_of(KAVO ctx, KAVO_QUERY_NODE node) PELK_REQUIRES(ctx->mx_table) {
  if (node->cb_args != nullptr && ctx->args_end.node == node) return ctx->args_end.last;
  kavo_cb_arg *tail = nullptr;
  uint32_t found = 0;
  for (kavo_cb_arg *arg = node->cb_args; arg != nullptr; arg = next_of(arg)) {
    tail = arg;
    found++;
  }
  if (found != node->args_count) [[unlikely]]
    pelk_syslog(PELK_LOG_CRIT, "[assertion at %s:%s():%d] for '%s'", kSource, "kavo_table_get_args", __LINE__,
                "tail && !*tail && i == node->args_count");
  return tail;
}

// append links a chain of `count` arguments to the end of a node's chain, where readers may see them from then on.
void append(KAVO ctx, KAVO_QUERY_NODE node, const Chain &chain, int count) PELK_REQUIRES(ctx->mx_table) {
  kavo_cb_arg *tail = end_of(ctx, node);
  node->args_count += static_cast<uint32_t>(count);
  if (tail == nullptr) {
    // A new node must not push out the end of a node that early answers are being appended to.
    node->cb_args = chain.first;
    if (ctx->args_end.node == node) ctx->args_end = {};
    return;
  }
  tail->next.store(chain.first, std::memory_order_release);
  ctx->args_end = {node, chain.last};
}

}  // namespace

void kavo_table_grow_args(KAVO ctx, int count) {
  const size_t step = static_cast<size_t>(ctx->max_zones);
  const size_t wanted = step * ((static_cast<size_t>(count) + step - 1) / step);
  if (wanted > static_cast<size_t>(INT_MAX - ctx->free_arg_count)) return;
  kavo_arg_chunk *chunk = nullptr;
  kavo_cb_arg *first = make_chunk(wanted, ctx->free_arg, &chunk);
  if (first == nullptr) return;
  chunk->next = ctx->arg_chunks;
  ctx->arg_chunks = chunk;
  ctx->free_arg = first;
  ctx->free_arg_count += static_cast<int>(wanted);
}

kavo_cb_arg *kavo_table_get_args(KAVO ctx, KAVO_QUERY_NODE node, int count) {
  const Chain chain = detach(ctx, node, count);
  if (chain.first != nullptr) append(ctx, node, chain, count);
  return chain.first;
}

kavo_cb_arg *kavo_table_get_early_arg(KAVO ctx, const kavo_cb_arg *origin) {
  const Chain chain = detach(ctx, origin->node, 1);
  kavo_cb_arg *arg = chain.first;
  if (arg == nullptr) return nullptr;
  arg->n_zone = ctx->max_zones + origin->n_zone;
  arg->start_time = origin->start_time;
  arg->answer.cache_code = KAVOCC_OLD;
  append(ctx, origin->node, chain, 1);
  return arg;
}

void kavo_table_free_args(KAVO ctx, KAVO_QUERY_NODE node) {
  kavo_cb_arg *last = nullptr;
  uint32_t found = 0;
  for (kavo_cb_arg *arg = node->cb_args; arg != nullptr; arg = next_of(arg)) {
    PELK_ASSERT(node == arg->node, kSource);
    set_free(arg);
    last = arg;
    found++;
  }
  if (node->args_count != 0 && found != node->args_count) [[unlikely]]
    pelk_syslog(PELK_LOG_CRIT, "[assertion at %s:%s():%d] for '%s'", kSource, __func__, __LINE__,
                "i == node->args_count - 1 || !node->args_count");
  if (last != nullptr) {
    link(last, ctx->free_arg);
    ctx->free_arg = node->cb_args;
    ctx->free_arg_count += static_cast<int>(found);
  }
  node->args_count = 0;
  node->cb_args = nullptr;
}

void kavo_args_release(KAVO ctx) PELK_NO_ANALYSIS {
  for (kavo_cb_arg *arg = ctx->free_arg; arg != nullptr && ctx->free_arg_count > 0; arg = next_of(arg)) {
    kavo_rr_free(&arg->answer.rr);
    ctx->free_arg_count--;
  }
  while (ctx->arg_chunks != nullptr) {
    kavo_arg_chunk *chunk = ctx->arg_chunks;
    ctx->arg_chunks = chunk->next;
    free(chunk);
  }
  ctx->free_arg = nullptr;
  ctx->free_arg_count = 0;
}

void kavo_add_args(KAVO kavo, int count) {
  if (kavo == nullptr || count < 1) return;
  kavo_table_guard guard(kavo);
  if (guard.error == KAVOE_OK) kavo_table_grow_args(kavo, count);
}

// A node in use may hold arguments of the pool.
void kavo_free_args(KAVO kavo) {
  if (kavo == nullptr) return;
  kavo_table_guard guard(kavo);
  if (guard.error == KAVOE_OK && kavo_is_at_rest(kavo) && kavo->table_nfree == kavo->table_size)
    kavo_args_release(kavo);
}
