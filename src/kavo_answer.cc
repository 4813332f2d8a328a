// kavo_answer.cc - reading answers, in place or as copies, and the one-call query.
//
// Runs on the host's threads. An iterator is set under the table lock and read without it. The answers of a resolved
// node are not written any more. Of a node that is not resolved the iterator yields only the answers whose bits were
// set in the node's map when the iterator copied it under the lock. The caller's hold keeps the node and its answers
// alive.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <memory>

#include <kavo.h>
#include <pelk_log.h>

#include "kavo_node.h"
#include "kavo_resolve.h"
#include "kavo_state.h"
#include "kavo_t.h"
#include "kavo_table_lock.h"

// kavo_answer_iterator_t: a reader's place in a node's answers. It belongs to one thread at a time.
struct kavo_answer_iterator_t {
  KAVO_QUERY_NODE node = nullptr;                 // the node being read; null while the iterator is not set
  kavo_cb_arg *current = nullptr;                 // the next argument to look at
  kavo_query_state initial_state = KAVOQS_READY;  // PRESOLVED or RESOLVED, as the node was when the iterator was set
  int max_zones = 0;                              // zones that `first_answers` has room for
  unsigned char *first_answers = nullptr;         // the iterator's own copy of the node's map of delivered answers
};

namespace {

constexpr auto &kSource = KAVO_RESOLVE_SOURCE;

// Zones that a fresh iterator has room for: as many as an ordinary context allows.
constexpr int kIteratorZones = 8;
constexpr unsigned kBitsPerByte = 8;

struct IteratorFree {
  void operator()(KAVO_ANSWER_ITERATOR iterator) const { kavo_free_answer_iterator(iterator); }
};
using Iterator = std::unique_ptr<kavo_answer_iterator_t, IteratorFree>;

void clear(KAVO_ANSWER_ITERATOR iterator) {
  iterator->node = nullptr;
  iterator->initial_state = KAVOQS_READY;
  iterator->current = nullptr;
}

// reserve makes room for the map of a context's nodes.
[[nodiscard]] KAVO_ERR reserve(KAVO_ANSWER_ITERATOR iterator, int max_zones) {
  if (iterator->max_zones >= max_zones) return KAVOE_OK;
  const unsigned size = kavo_answer_map_size(max_zones);
  auto *grown = static_cast<unsigned char *>(realloc(iterator->first_answers, size));
  if (grown == nullptr) {
    PELK_ERROR(kSource, "kavo_set_answer_iterator", errno, KAVOE_NOMEM,
               "Unable to allocate %d bytes to set answer iterator", static_cast<int>(size));
    return KAVOE_NOMEM;
  }
  iterator->first_answers = grown;
  iterator->max_zones = max_zones;
  return KAVOE_OK;
}

// assert_failed reports a false expression where PELK_ASSERT would give another name or text.
void assert_failed(const char *function, const char *expression, int line = __builtin_LINE()) {
  pelk_syslog(PELK_LOG_CRIT, "[assertion at %s:%s():%d] for '%s'", kSource, function, line, expression);
}

// set_on puts the iterator before a node's first answer, if the node's state has answers.
[[nodiscard]] KAVO_ERR set_on(KAVO kavo, KAVO_QUERY_NODE node, KAVO_ANSWER_ITERATOR iterator)
    PELK_REQUIRES(kavo->mx_table) {
  static constexpr char kFunction[] = "kavo_set_answer_iterator";
  switch (node->state) {
    case KAVOQS_READY:
      return KAVOE_BADPAR;
    case KAVOQS_NEW:
    case KAVOQS_SUBMITTED:
    case KAVOQS_WAIT:
    case KAVOQS_DCFAIL:
      return KAVOE_NODATA;
    case KAVOQS_PRESOLVED:
      if (node->qh_count == 0) [[unlikely]]
        assert_failed(kFunction, "node->qh_count");
      memcpy(iterator->first_answers, node->first_answers, kavo_answer_map_size(kavo->max_zones));
      break;
    case KAVOQS_RESOLVED:
      if (node->qh_count != 0) [[unlikely]]
        assert_failed(kFunction, "!node->qh_count");
      break;
    case KAVOQS_ERROR:
      return KAVOE_SRV;
    case KAVOQS_SYNCWAIT:
    case KAVOQS_SYNCSIG:
    default:
      PELK_ERROR(kSource, kFunction, 0, KAVOE_FAIL, "Invalid node state");
      return KAVOE_FAIL;
  }
  iterator->node = node;
  iterator->initial_state = node->state;
  iterator->current = node->cb_args;
  return KAVOE_OK;
}

[[nodiscard]] kavo_cb_arg *following(const kavo_cb_arg *arg) {
  return arg->next.load(std::memory_order_acquire);
}

// shown returns whether the iterator yields an argument's answer.
[[nodiscard]] bool shown(const kavo_answer_iterator_t *iterator, const kavo_cb_arg *arg) {
  if (iterator->initial_state == KAVOQS_RESOLVED) return true;
  const auto bit = static_cast<unsigned>(arg->n_zone);
  return (iterator->first_answers[bit / kBitsPerByte] >> (bit % kBitsPerByte) & 1) != 0;
}

// next_shown returns the first argument from `arg` on whose answer the iterator yields, or null.
[[nodiscard]] kavo_cb_arg *next_shown(const kavo_answer_iterator_t *iterator, kavo_cb_arg *arg) {
  while (arg != nullptr && !shown(iterator, arg)) {
    arg = following(arg);
  }
  return arg;
}

// count_answers returns how many answers a copy takes from the iterator: all of a partly resolved node; of a resolved
// node one for each zone, without the early answers, which come after those.
[[nodiscard]] int count_answers(KAVO kavo, const kavo_answer_iterator_t *iterator) {
  const bool resolved = iterator->initial_state == KAVOQS_RESOLVED;
  int count = 0;
  for (const kavo_cb_arg *arg = next_shown(iterator, iterator->current); arg != nullptr;
       arg = next_shown(iterator, following(arg))) {
    if (resolved && arg->n_zone >= kavo->max_zones) break;
    ++count;
  }
  return count;
}

// make_room grows the caller's array of `length` entries to `count`, where it may.
[[nodiscard]] KAVO_ERR make_room(KAVO_ANSWER **answers, int length, int count, bool alloc) {
  static constexpr char kFunction[] = "kavo_copy_answer";
  const int held = *answers == nullptr ? 0 : std::max(length, 0);
  if (held >= count) return KAVOE_OK;
  if (!alloc) {
    PELK_INFO(kSource, kFunction, "Not enough buffers to copy answers");
    return KAVOE_NOMEM;
  }
  const size_t bytes = static_cast<size_t>(count) * sizeof(KAVO_ANSWER);
  auto *grown = static_cast<KAVO_ANSWER *>(realloc(*answers, bytes));
  if (grown == nullptr) {
    PELK_ERROR(kSource, kFunction, errno, KAVOE_NOMEM, "Unable to allocate %d bytes for answers coping",
               static_cast<int>(bytes));
    return KAVOE_NOMEM;
  }
  std::fill(grown + held, grown + count, KAVO_ANSWER{});
  *answers = grown;
  return KAVOE_OK;
}

// copy_one copies an answer, with its records into the target's own block.
void copy_one(const KAVO_ANSWER &answer, KAVO_ANSWER *target, bool alloc) {
  target->type = answer.type;
  target->actual_size = answer.actual_size;
  target->zone = answer.zone;
  target->cache_code = answer.cache_code;
  target->err_code = answer.err_code;
  if (answer.err_code != KAVOE_OK || answer.actual_size == 0) return;
  target->err_code =
      alloc ? kavo_rr_dup(answer.type, &answer.rr, &target->rr) : kavo_rr_cpy(answer.type, &answer.rr, &target->rr);
}

// leave drops the node of a kavo_query that failed at one of its steps.
[[nodiscard]] KAVO_ERR leave(KAVO kavo, KAVO_QUERY_NODE node, const char *message, KAVO_ERR error) {
  PELK_INFO(kSource, "kavo_query", "%s %d", message, static_cast<int>(error));
  static_cast<void>(kavo_unsubscribe_node(kavo, node));
  return error;
}

}  // namespace

extern "C" {

KAVO_ANSWER_ITERATOR kavo_alloc_answer_iterator(void) {
  auto *iterator = static_cast<KAVO_ANSWER_ITERATOR>(calloc(1, sizeof(kavo_answer_iterator_t)));
  if (iterator == nullptr) {
    PELK_ERROR(kSource, __func__, errno, KAVOE_NOMEM, "Unable to allocate %d bytes for answer iterator",
               static_cast<int>(sizeof(kavo_answer_iterator_t)));
    return nullptr;
  }
  clear(iterator);
  const unsigned size = kavo_answer_map_size(kIteratorZones);
  iterator->first_answers = static_cast<unsigned char *>(calloc(1, size));
  if (iterator->first_answers == nullptr) {
    PELK_ERROR(kSource, __func__, errno, KAVOE_NOMEM, "Unable to allocate %d bytes for answer iterator",
               static_cast<int>(size));
    return iterator;
  }
  iterator->max_zones = kIteratorZones;
  return iterator;
}

void kavo_free_answer_iterator(KAVO_ANSWER_ITERATOR iterator) {
  if (iterator == nullptr) return;
  free(iterator->first_answers);
  free(iterator);
}

KAVO_ERR kavo_set_answer_iterator(KAVO kavo, KAVO_QUERY_NODE node, KAVO_ANSWER_ITERATOR iterator) {
  if (node == nullptr || kavo == nullptr || iterator == nullptr) return KAVOE_BADPAR;
  const KAVO_ERR error = reserve(iterator, kavo->max_zones);
  if (error != KAVOE_OK) return error;
  clear(iterator);
  kavo_table_guard guard(kavo);
  if (guard.error != KAVOE_OK) return kavo_table_no_lock(kSource, __func__, guard.error);
  return set_on(kavo, node, iterator);
}

const KAVO_ANSWER *kavo_get_answer(KAVO kavo, KAVO_ANSWER_ITERATOR iterator) {
  if (iterator == nullptr || kavo == nullptr || iterator->node == nullptr || kavo_is_foreign(kavo)) return nullptr;
  PELK_ASSERT(iterator->node->ctx == kavo, kSource);
  iterator->current = next_shown(iterator, iterator->current);
  if (iterator->current == nullptr) return nullptr;
  if (iterator->current->node != iterator->node) [[unlikely]]
    assert_failed(__func__, "(kavo_query_node*)iterator->node == iterator->current->node");
  const KAVO_ANSWER *answer = &iterator->current->answer;
  iterator->current = following(iterator->current);
  return answer;
}

KAVO_ERR kavo_copy_answer(KAVO kavo, KAVO_QUERY_NODE node, KAVO_ANSWER **answer, int answer_len, int *answer_written,
                          int alloc) {
  if (answer_written != nullptr) *answer_written = 0;
  if (node == nullptr || kavo == nullptr || answer == nullptr || answer_written == nullptr) return KAVOE_BADPAR;
  const Iterator iterator(kavo_alloc_answer_iterator());
  if (iterator == nullptr) {
    PELK_INFO(kSource, __func__, "Answer iterator allocation error");
    return KAVOE_NOMEM;
  }
  KAVO_ERR error = kavo_set_answer_iterator(kavo, node, iterator.get());
  if (error != KAVOE_OK) {
    if (kavo_is_foreign(kavo)) return error;
    PELK_INFO(kSource, __func__, "Answer iterator setting error, code %d", static_cast<int>(error));
    return error;
  }
  // The iterator's answers do not change any more, so the loop below fills as many entries as were counted.
  const int count = count_answers(kavo, iterator.get());
  *answer_written = count;
  error = make_room(answer, answer_len, count, alloc != 0);
  if (error != KAVOE_OK) return error;
  for (int i = 0; i < count; ++i) {
    const KAVO_ANSWER *source = kavo_get_answer(kavo, iterator.get());
    if (source != nullptr) copy_one(*source, *answer + i, alloc != 0);
  }
  return KAVOE_OK;
}

KAVO_ERR kavo_query(KAVO kavo, KAVO_TYPE type, const void *query, int query_len, KAVO_ANSWER **answer, int answer_len,
                    int *answer_written, unsigned int timeout, KAVO_WAIT_LEVEL wait_level, unsigned flags) {
  if (answer_written != nullptr) *answer_written = 0;
  if (kavo == nullptr || answer == nullptr || answer_written == nullptr) return KAVOE_BADPAR;
  struct timeval moment;
  const struct timeval *deadline = kavo_get_deadline(timeout, &moment);
  KAVO_QUERY_NODE node = nullptr;
  KAVO_ERR error = kavo_subscribe_node(kavo, type, query, query_len, flags, deadline, &node);
  if (error != KAVOE_OK) {
    if (kavo_is_foreign(kavo)) return error;
    PELK_INFO(kSource, __func__, "Unable to subscribe node, error %d", static_cast<int>(error));
    return error;
  }
  error = kavo_wait_node(kavo, node, wait_level, deadline);
  if (error != KAVOE_OK) return leave(kavo, node, "Node waiting error, code", error);
  error = kavo_copy_answer(kavo, node, answer, answer_len, answer_written, 1);
  if (error != KAVOE_OK) return leave(kavo, node, "Unable to copy answer, error", error);
  error = kavo_unsubscribe_node(kavo, node);
  if (error != KAVOE_OK) PELK_INFO(kSource, __func__, "Unable to unsubscribe node, error %d", static_cast<int>(error));
  return error;
}

}  // extern "C"
