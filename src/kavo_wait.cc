// kavo_wait.cc - waiting for nodes: one, an array, or what an iterator of the host shows.
//
// Runs on the host's threads, any number at once. Every wait sleeps on the query table's one condition, with the lock
// released, until one of its nodes, or a node with the same bit, has come to a state that a thread waits for; it then
// looks at its own nodes again. A thread that waits for a list is woken by every change of every node, since the host
// may add to the list meanwhile. A sync node that ends a wait is armed again in the same locked step, so that one
// signal ends one wait.
#include <array>
#include <span>

#include <kavo.h>
#include <pelk_log.h>
#include <pelk_thread.h>

#include "kavo_node.h"
#include "kavo_query_table.h"
#include "kavo_resolve.h"
#include "kavo_state.h"
#include "kavo_t.h"
#include "kavo_table_lock.h"
#include "kavo_table_wait.h"

namespace {

constexpr auto &kSource = KAVO_RESOLVE_SOURCE;
constexpr char kStopped[] = "Attempt to wait answer when server is stopped";
constexpr char kNoLock[] = "Unable to lock queries table";

// The least states that satisfy the levels, from KAVOWT_NONE up.
constexpr std::array<kavo_query_state, KAVOWT_FULL - KAVOWT_NONE + 1> kLevelStates = {
    KAVOQS_SUBMITTED, KAVOQS_WAIT, KAVOQS_DCFAIL, KAVOQS_PRESOLVED, KAVOQS_RESOLVED,
};

constexpr bool valid_level(KAVO_WAIT_LEVEL level) {
  return level >= KAVOWT_NONE && level <= KAVOWT_FULL;
}

// kavo_wltoqs returns the least state that satisfies a valid level.
constexpr kavo_query_state kavo_wltoqs(KAVO_WAIT_LEVEL level) {
  return kLevelStates[static_cast<size_t>(level - KAVOWT_NONE)];
}

// Scan is what a look at several nodes found.
struct Scan {
  bool invalid = false;                 // one of them is null or free
  bool over = false;                    // the wait has ended
  KAVO_QUERY_NODE satisfied = nullptr;  // the node that ended a wait for any
  uint32_t bits = 0;                    // what to wait for when it has not
};

// Wanted is what a wait for several nodes waits for.
struct Wanted {
  kavo_query_state state = KAVOQS_NOBODY;
  bool full = false;
  unsigned count = 0;  // the nodes that must satisfy the state when `full`
};

// ArrayNodes and ListNodes walk over the nodes of the two kinds of waits: first and next return false past the last
// one. A list is the host's: it may have other nodes at each look, and more or fewer than it counts.
class ArrayNodes {
 public:
  static constexpr bool kSettled = true;
  explicit ArrayNodes(std::span<KAVO_QUERY_NODE> nodes) : nodes_(nodes) {}
  [[nodiscard]] bool first(KAVO_QUERY_NODE *node) {
    at_ = 0;
    return next(node);
  }
  [[nodiscard]] bool next(KAVO_QUERY_NODE *node) {
    if (at_ == nodes_.size()) return false;
    *node = nodes_[at_++];
    return true;
  }

 private:
  std::span<KAVO_QUERY_NODE> nodes_;
  size_t at_ = 0;
};

class ListNodes {
 public:
  static constexpr bool kSettled = false;
  explicit ListNodes(const KAVO_NODELIST_ITERATOR *list) : list_(list) {}
  [[nodiscard]] bool first(KAVO_QUERY_NODE *node) {
    list_->rewind(list_->ctx);
    return value(node);
  }
  [[nodiscard]] bool next(KAVO_QUERY_NODE *node) { return list_->advance(list_->ctx) != 0 && value(node); }

 private:
  [[nodiscard]] bool value(KAVO_QUERY_NODE *node) {
    *node = list_->value(list_->ctx);
    return *node != nullptr;
  }
  const KAVO_NODELIST_ITERATOR *list_;
};

// scan looks at the nodes until it knows whether the wait is over. A wait for any of an array then waits for each of
// its nodes. A wait for all waits for the last node that it lacks: it cannot end before that node has come, and by then
// most others have. A wait for a list waits for every node there is.
template <typename Nodes>
[[nodiscard]] Scan scan(KAVO kavo, Nodes *nodes, const Wanted &wanted) PELK_REQUIRES(kavo->mx_table) {
  Scan result;
  unsigned satisfied = 0;
  KAVO_QUERY_NODE node = nullptr;
  KAVO_QUERY_NODE lacking = nullptr;
  for (bool more = nodes->first(&node); more; more = nodes->next(&node)) {
    if (node == nullptr || node->state == KAVOQS_READY) {
      result.invalid = true;
      return result;
    }
    if (node->state < wanted.state) {
      if (Nodes::kSettled && !wanted.full) result.bits |= kavo_table_expect(kavo, node, wanted.state);
      lacking = node;
      continue;
    }
    if (!wanted.full) {
      result.over = true;
      result.satisfied = node;
      return result;
    }
    ++satisfied;
  }
  result.over = wanted.full && satisfied >= wanted.count;
  if (!Nodes::kSettled)
    result.bits = PELK_ALL_BITS;
  else if (!result.over && wanted.full)
    result.bits = kavo_table_expect(kavo, lacking, wanted.state);
  return result;
}

// rearm consumes a node's signal, if it is a sync node that has one. An array may hold null after the node that ended a
// wait for any.
[[nodiscard]] KAVO_ERR rearm(KAVO kavo, KAVO_QUERY_NODE node, const char *function) PELK_REQUIRES(kavo->mx_table) {
  if (node == nullptr || node->state != KAVOQS_SYNCSIG) return KAVOE_OK;
  const KAVO_ERR error = kavo_table_change_state(kavo, node, KAVOQS_SYNCWAIT);
  if (error != KAVOE_OK) PELK_ERROR(kSource, function, 0, error, "Error occured while sync node state changing");
  return error;
}

template <typename Nodes>
[[nodiscard]] KAVO_ERR rearm_all(KAVO kavo, Nodes *nodes, const char *function) PELK_REQUIRES(kavo->mx_table) {
  KAVO_QUERY_NODE node = nullptr;
  for (bool more = nodes->first(&node); more; more = nodes->next(&node)) {
    const KAVO_ERR error = rearm(kavo, node, function);
    if (error != KAVOE_OK) return error;
  }
  return KAVOE_OK;
}

// wait_change waits for the next broadcast of any of `bits`.
[[nodiscard]] KAVO_ERR wait_change(KAVO kavo, uint32_t bits, const struct timeval *deadline, const char *function)
    PELK_REQUIRES(kavo->mx_table) {
  const KAVO_ERR error = kavo_table_wait(kavo, deadline, bits);
  if (error != KAVOE_OK && error != KAVOE_TIMEOUT) {
    PELK_ERROR(kSource, function, 0, error, "Error occured while waiting of table state changing");
  }
  return error;
}

// wait_several waits until a scan is over; `satisfied` receives the node that ended a wait for any.
template <typename Nodes>
[[nodiscard]] KAVO_ERR wait_several(KAVO kavo, Nodes *nodes, const Wanted &wanted, const struct timeval *deadline,
                                    const char *function, KAVO_QUERY_NODE *satisfied) PELK_REQUIRES(kavo->mx_table) {
  for (;;) {
    const Scan result = scan(kavo, nodes, wanted);
    if (result.invalid) {
      PELK_ERROR(kSource, function, 0, 0, "One of the passed nodes is not subscribed");
      return KAVOE_BADPAR;
    }
    if (result.over) {
      *satisfied = result.satisfied;
      return KAVOE_OK;
    }
    const KAVO_ERR error = wait_change(kavo, result.bits, deadline, function);
    if (error != KAVOE_OK) return error;
  }
}

// invalid_node refuses a node whose last hold was dropped during the wait.
[[nodiscard]] KAVO_ERR invalid_node() {
  PELK_WARN(kSource, "kavo_wait_node", "Attempt to wait for answer using invalid node");
  return KAVOE_BADPAR;
}

[[nodiscard]] bool complete(const KAVO_NODELIST_ITERATOR *list) {
  return list != nullptr && list->count != nullptr && list->rewind != nullptr && list->advance != nullptr &&
         list->value != nullptr;
}

}  // namespace

extern "C" {

KAVO_ERR kavo_wait_node(KAVO kavo, KAVO_QUERY_NODE node, KAVO_WAIT_LEVEL wait_level, const struct timeval *deadline) {
  if (!valid_level(wait_level) || node == nullptr || kavo == nullptr) return KAVOE_BADPAR;
  const KAVO_ERR refused = kavo_check_running(kavo, kSource, __func__, kStopped);
  if (refused != KAVOE_OK) return refused;
  kavo_table_guard guard(kavo);
  if (guard.error != KAVOE_OK) return kavo_table_no_lock(kSource, __func__, guard.error);
  if (node->state == KAVOQS_READY) return KAVOE_BADPAR;
  const kavo_query_state wanted = kavo_wltoqs(wait_level);
  while (node->state < wanted && node->state != KAVOQS_READY) {
    const KAVO_ERR error = wait_change(kavo, kavo_table_expect(kavo, node, wanted), deadline, __func__);
    if (error != KAVOE_OK) return node->state == KAVOQS_READY ? invalid_node() : error;
  }
  return node->state == KAVOQS_READY ? invalid_node() : rearm(kavo, node, __func__);
}

KAVO_ERR kavo_wait_multiple_nodes(KAVO kavo, KAVO_QUERY_NODE *nodes, int len, KAVO_WAIT_LEVEL wait_level, int full,
                                  const struct timeval *deadline, KAVO_QUERY_NODE *resolved) {
  if (resolved != nullptr) *resolved = nullptr;
  if (nodes == nullptr || kavo == nullptr || !valid_level(wait_level) || len < 1) return KAVOE_BADPAR;
  const KAVO_ERR refused =
      kavo_check_running(kavo, kSource, __func__, "Attempt to wait multiple nodes while server is stopped");
  if (refused != KAVOE_OK) return refused;
  kavo_table_guard guard(kavo);
  if (guard.error != KAVOE_OK) return kavo_table_no_lock(kSource, __func__, guard.error, kNoLock);
  const auto count = static_cast<unsigned>(len);
  ArrayNodes array(std::span(nodes, count));
  const Wanted wanted = {.state = kavo_wltoqs(wait_level), .full = full != 0, .count = count};
  KAVO_QUERY_NODE satisfied = nullptr;
  const KAVO_ERR error = wait_several(kavo, &array, wanted, deadline, __func__, &satisfied);
  if (error != KAVOE_OK) return error;
  if (resolved != nullptr) *resolved = satisfied;
  return rearm_all(kavo, &array, __func__);
}

KAVO_ERR kavo_wait_nodelist(KAVO kavo, KAVO_NODELIST_ITERATOR *iterator, KAVO_WAIT_LEVEL wait_level, int full,
                            const struct timeval *deadline) {
  if (!complete(iterator) || !valid_level(wait_level) || kavo == nullptr) return KAVOE_BADPAR;
  const pelk_no_cancel whole;
  const unsigned count = iterator->count(iterator->ctx);
  if (count == 0) return KAVOE_BADPAR;
  const KAVO_ERR refused = kavo_check_running(kavo, kSource, __func__, kStopped);
  if (refused != KAVOE_OK) return refused;
  kavo_table_guard guard(kavo);
  if (guard.error != KAVOE_OK) return kavo_table_no_lock(kSource, __func__, guard.error, kNoLock);
  const kavo_list_wait waits(kavo);
  ListNodes list(iterator);
  const Wanted wanted = {.state = kavo_wltoqs(wait_level), .full = full != 0, .count = count};
  KAVO_QUERY_NODE satisfied = nullptr;
  const KAVO_ERR error = wait_several(kavo, &list, wanted, deadline, __func__, &satisfied);
  if (error != KAVOE_OK) return error;
  return wanted.full ? rearm_all(kavo, &list, __func__) : rearm(kavo, satisfied, __func__);
}

}  // extern "C"
