// kavo_table_add.cc - how a question comes to its node.
//
// Runs on the host's threads. A question joins the node that asks it already, or takes a free one. Waiting for a free
// node happens outside the lock, on a semaphore with one permit for each node that may be taken. A node that is taken
// thus always finds room in the hash table, where an item of the free list gives way when there is none.
#include "kavo_table_add.h"

#include <errno.h>
#include <string.h>

#include <dns_wire.h>
#include <pelk_log.h>

#include "kavo_args.h"
#include "kavo_node.h"
#include "kavo_query_table.h"
#include "kavo_table_lock.h"
#include "kavo_types.h"
#include "kavo_zonesmap.h"

namespace {

constexpr char kSource[] = "kavo_query_table";
constexpr char kAdd[] = "kavo_table_add";  // the operation that every line logged here belongs to
constexpr char kNoLock[] = "Unable to lock table";

// A line of statistics is due after more than kStatMany additions since the last line, or after more than kStatFew that
// are at least a tenth of the total at the last line.
constexpr uint64_t kStatFew = 10;
constexpr uint64_t kStatShare = 10;
constexpr uint64_t kStatMany = 500;

// Question is what a caller asks: the node's key, and the flags that belong to the node's identity too.
struct Question {
  KAVO_TYPE type = KAVOT_INVALID;
  uint32_t flags = 0;
  uint32_t hash = 0;
  uint32_t run = 0;  // in which it is asked
  uint16_t key_size = 0;
  uint8_t key[KAVO_KEY_SIZE_MAX];  // the first key_size bytes are set
};

// build_key writes the key of a question, whose type is set; false for a name or servers that no key holds.
[[nodiscard]] bool build_key(const unsigned char *dn, const kavo_sa *serv, unsigned nserv, Question *question) {
  const uint32_t number = question->type;
  const unsigned dnlen = dns_dnlen(dn);
  const unsigned servers = serv == nullptr ? 0 : nserv;
  if (dnlen < 1 || dnlen > DNS_MAXDN || servers > KAVO_SA_MAX) return false;
  memcpy(question->key, &number, sizeof number);
  memcpy(question->key + KAVO_KEY_DN, dn, dnlen);
  if (servers != 0) memcpy(question->key + KAVO_KEY_DN + dnlen, serv, servers * sizeof *serv);
  question->key_size = static_cast<uint16_t>(KAVO_KEY_DN + dnlen + servers * sizeof *serv);
  return true;
}

// hash_key works out the hash of a question's key before the lock is taken: the table's secret never changes.
uint32_t hash_key(KAVO ctx, const Question &question) PELK_NO_ANALYSIS {
  return shash_hash(&ctx->query_table, question.key, question.key_size);
}

[[nodiscard]] kavo_query_node_t *find_node(KAVO ctx, const Question &question) PELK_REQUIRES(ctx->mx_table) {
  ctx->lookup = {question.key, question.flags};
  shash_item *item = shash_search(&ctx->query_table, question.key, question.key_size, question.hash);
  ctx->lookup = {};
  return item == nullptr ? nullptr : kavo_node_of_key(ctx, item->pKey);
}

// join_node adds a caller's hold to a node that is in use; false for one that is free or has failed.
[[nodiscard]] bool join_node(KAVO ctx, kavo_query_node_t *node) PELK_REQUIRES(ctx->mx_table) {
  if (node == nullptr || node->state < KAVOQS_SYNCWAIT || node->state > KAVOQS_SYNCSIG) return false;
  ctx->table_reused++;
  return kavo_table_subscribe_node(node) == KAVOE_OK;
}

// insert_node makes a node for a question and files it in the list of `state`.
[[nodiscard]] KAVO_ERR insert_node(KAVO ctx, const Question &question, kavo_query_state state, kavo_query_node_t **node)
    PELK_REQUIRES(ctx->mx_table) {
  void *block = kavo_spare_blocks_get(&ctx->spare_blocks, kavo_key_distance(ctx), question.key_size);
  auto *fresh = static_cast<kavo_query_node_t *>(block);
  if (fresh == nullptr) {
    PELK_ERROR(kSource, kAdd, errno, KAVOE_NOMEM, "Unable to allocate %d bytes for query node",
               static_cast<int>(kavo_key_distance(ctx) + question.key_size));
    return KAVOE_NOMEM;
  }
  uint8_t *place = kavo_node_key_place(ctx, fresh);
  memcpy(place, question.key, question.key_size);
  const rindex_t range = static_cast<rindex_t>(kavo_state2range(state));
  fresh->hashitem = shash_insert(&ctx->query_table, place, question.key_size, question.hash, range);
  if (fresh->hashitem == nullptr) {
    kavo_spare_blocks_put(&ctx->spare_blocks, block, question.key_size);
    PELK_ERROR(kSource, kAdd, 0, KAVOE_FAIL, "Node insertion error");
    return KAVOE_FAIL;
  }
  *node = fresh;
  return KAVOE_OK;
}

// take_block finds the block of a question that no node in use asks: the free one that has its key, or a new one. A
// failed node that still has holders leaves the index, so that its question can be asked anew while they read it.
[[nodiscard]] KAVO_ERR take_block(KAVO ctx, const Question &question, kavo_query_node_t *found, kavo_query_state state,
                                  kavo_query_node_t **node) PELK_REQUIRES(ctx->mx_table) {
  if (found != nullptr && found->client_count == 0) {
    *node = found;
    return kavo_table_move(ctx, found, kavo_state2range(state));
  }
  if (found != nullptr) shash_unindex(&ctx->query_table, found->hashitem);
  return insert_node(ctx, question, state, node);
}

void log_statistics(KAVO ctx) PELK_REQUIRES(ctx->mx_table) {
  const uint64_t added = ctx->table_motion - ctx->table_pmotion;
  const bool due = added > kStatMany || (added > kStatFew && added >= ctx->table_pmotion / kStatShare);
  if (!due) return;
  ctx->table_pmotion = ctx->table_motion;
  pelk_syslog(PELK_LOG_INFO, "KAVO info: table stat: motion %llu, overflow %llu, reused %llu, dropped %llu",
              static_cast<unsigned long long>(ctx->table_motion), static_cast<unsigned long long>(ctx->table_overflow),
              static_cast<unsigned long long>(ctx->table_reused),
              static_cast<unsigned long long>(ctx->table_dropped.load(std::memory_order_relaxed)));
}

// arm_node gives a new node its arguments and its two holds, the caller's and the server thread's.
[[nodiscard]] KAVO_ERR arm_node(KAVO ctx, KAVO_TYPE type, kavo_query_node_t *node) PELK_REQUIRES(ctx->mx_table) {
  const size_t zones = kavo_zonesmap_zones(&ctx->zonesmap, type).size();
  node->client_count = 2;
  if (zones != 0 && kavo_table_get_args(ctx, node, static_cast<int>(zones)) != nullptr) return KAVOE_OK;
  PELK_ERROR(kSource, kAdd, errno, KAVOE_NOMEM, "Unable to get arguments buffer for new node");
  node->state = KAVOQS_ERROR;
  node->client_count = 0;
  static_cast<void>(kavo_table_move(ctx, node, KAVO_RANGE_FREE));
  kavo_table_give_back(ctx);
  return KAVOE_NOMEM;
}

// take_node makes the node of a question, with a permit that is counted. A failure gives the permit back.
[[nodiscard]] KAVO_ERR take_node(KAVO ctx, const Question &question, kavo_query_node_t *found, kavo_query_node_t **node)
    PELK_REQUIRES(ctx->mx_table) {
  const kavo_query_state state = question.type == KAVOT_SYNC ? KAVOQS_SYNCWAIT : KAVOQS_NEW;
  kavo_query_node_t *taken = nullptr;
  const KAVO_ERR error = take_block(ctx, question, found, state, &taken);
  if (error != KAVOE_OK) {
    kavo_table_give_back(ctx);
    return error;
  }
  log_statistics(ctx);
  taken->ctx = ctx;
  taken->state = state;
  taken->wanted = KAVOQS_NOBODY;
  taken->flags = question.flags;
  taken->client_count = 1;
  if (question.type != KAVOT_SYNC) {
    const KAVO_ERR armed = arm_node(ctx, question.type, taken);
    if (armed != KAVOE_OK) return armed;
  }
  *node = taken;
  return KAVOE_OK;
}

// try_permit takes a permit if one is free, without waiting.
[[nodiscard]] bool try_permit(KAVO ctx) {
  const struct timeval past = {};
  return pelk_sem_wait_deadline(&ctx->sem_free_node, &past) == 0;
}

// wait_permit takes a permit when one becomes free; KAVOE_SRV when the run ends first.
[[nodiscard]] KAVO_ERR wait_permit(KAVO ctx, const struct timeval *deadline, uint32_t run) {
  const int error = pelk_sem_wait_epoch(&ctx->sem_free_node, deadline, run);
  if (error == 0) return KAVOE_OK;
  if (error == ECANCELED) return KAVOE_SRV;
  if (error == PELK_TIMEDOUT) {
    ctx->table_dropped.fetch_add(1, std::memory_order_relaxed);
    return KAVOE_TIMEOUT;
  }
  PELK_ERROR(kSource, kAdd, error, KAVOE_THR, "Semaphore waiting error");
  return KAVOE_THR;
}

// is_on returns whether the run that a subscription began in is still on. A thread that finds so with the lock held
// adds its node before the run's end fails what is left, and zones and servers are unchanged since the subscription
// began.
[[nodiscard]] bool is_on(KAVO ctx, uint32_t run) PELK_REQUIRES(ctx->mx_table) {
  return ctx->srvstate.load() == KAVOSS_RUNNING && kavo_table_run(ctx) == run;
}

// Added is what became of a question: it joined a node in use, took a node, or must wait for a permit.
enum class Added { joined, taken, full, failed };

// add_at_once serves a question that needs no wait: its node is in use, or a permit is free.
[[nodiscard]] Added add_at_once(KAVO ctx, const Question &question, kavo_query_node_t **node, KAVO_ERR *error) {
  kavo_table_guard guard(ctx);
  *error = guard.error != KAVOE_OK ? kavo_table_no_lock(kSource, kAdd, guard.error, kNoLock) : KAVOE_OK;
  if (*error == KAVOE_OK && !is_on(ctx, question.run)) *error = KAVOE_SRV;
  if (*error != KAVOE_OK) return Added::failed;
  ctx->table_motion++;
  kavo_query_node_t *found = find_node(ctx, question);
  if (join_node(ctx, found)) {
    *node = found;
    return Added::joined;
  }
  if (ctx->table_nfree == 0) ctx->table_overflow++;
  if (ctx->table_nfree == 0 || !try_permit(ctx)) return Added::full;
  ctx->table_nfree--;
  *error = take_node(ctx, question, found, node);
  return *error == KAVOE_OK ? Added::taken : Added::failed;
}

// add_with_permit serves a question after the wait for its permit. Another caller may have asked the same meanwhile.
[[nodiscard]] Added add_with_permit(KAVO ctx, const Question &question, kavo_query_node_t **node, KAVO_ERR *error) {
  kavo_table_guard guard(ctx);
  *error = guard.error != KAVOE_OK ? kavo_table_no_lock(kSource, kAdd, guard.error, kNoLock) : KAVOE_OK;
  if (*error == KAVOE_OK && !is_on(ctx, question.run)) *error = KAVOE_SRV;
  if (*error != KAVOE_OK) {
    pelk_sem_post(&ctx->sem_free_node);
    return Added::failed;
  }
  ctx->table_nfree--;
  kavo_query_node_t *found = find_node(ctx, question);
  if (join_node(ctx, found)) {
    kavo_table_give_back(ctx);
    *node = found;
    return Added::joined;
  }
  *error = take_node(ctx, question, found, node);
  return *error == KAVOE_OK ? Added::taken : Added::failed;
}

// announce wakes the server thread for a new node. Where it cannot, the caller's hold is dropped; the node stays the
// server's, which submits it when it next wakes.
[[nodiscard]] KAVO_ERR announce(KAVO ctx, kavo_query_node_t *node) {
  if (kavo_event_pipe_wake(&ctx->qa_pipe)) return KAVOE_OK;
  PELK_ERROR(kSource, kAdd, errno, KAVOE_FAIL, "Unable to send event to a server via pipe");
  kavo_table_guard guard(ctx);
  if (guard.error == KAVOE_OK) kavo_table_unsubscribe_node(ctx, node);
  return KAVOE_FAIL;
}

}  // namespace

KAVO_ERR kavo_table_add(KAVO ctx, KAVO_TYPE type, const unsigned char *dn, const kavo_sa *serv, unsigned nserv,
                        const struct timeval *deadline, unsigned flags, uint32_t run, KAVO_QUERY_NODE *query_node) {
  if (query_node == nullptr || ctx == nullptr || dn == nullptr || !kavo_type_makes_node(type)) return KAVOE_BADPAR;
  Question question;
  question.type = type;
  question.flags = flags;
  question.run = run;
  if (!build_key(dn, serv, nserv, &question)) return KAVOE_BADPAR;
  question.hash = hash_key(ctx, question);
  *query_node = nullptr;
  kavo_query_node_t *node = nullptr;
  KAVO_ERR error = KAVOE_OK;
  Added added = add_at_once(ctx, question, &node, &error);
  if (added == Added::full) {
    error = wait_permit(ctx, deadline, run);
    if (error != KAVOE_OK) return error;
    added = add_with_permit(ctx, question, &node, &error);
  }
  if (added == Added::failed) return error;
  if (added == Added::taken && type != KAVOT_SYNC) {
    error = announce(ctx, node);
    if (error != KAVOE_OK) return error;
  }
  *query_node = node;
  return KAVOE_OK;
}
