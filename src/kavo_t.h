// kavo_t.h - the context record, which every area of the library is handed.
//
// The owners of the fields: kavo.cc makes and releases the record, kavo_state.cc moves the server's state, kavo_srv.cc
// is the server thread's, kavo_query_table.cc and kavo_args.cc keep the table and the pool of arguments. The zones map,
// the options and the caches have no lock: they change only while the context is at rest, from the end of one run to
// the beginning of the next. A field that a lock guards says so.
#ifndef KAVO_T_H
#define KAVO_T_H

#include <stdint.h>

#include <atomic>

#include <kavo.h>
#include <pelk_sync.h>
#include <pelk_thread.h>
#include <shash.h>

#include "kavo_event_pipe.h"
#include "kavo_spare_blocks.h"
#include "kavo_zonesmap.h"

struct kavo_arg_chunk;
struct kavo_cb_arg;

// Bytes in which the server thread rebuilds an answer from an expired cache entry: the packet, and one record's data.
inline constexpr unsigned KAVO_PBUF_SIZE = 4096;
inline constexpr unsigned KAVO_RRBUF_SIZE = 1024;

// kavo_cancel_fn drops a node's queries in flight, with mx_table held.
using kavo_cancel_fn = KAVO_ERR(KAVO ctx, KAVO_QUERY_NODE node);

// kavo_lookup: the key that kavo_table_add looks up, which is in no node. The key comparison takes the flags of this
// key from here, and the flags of any other key from its node.
struct kavo_lookup {
  const uint8_t *key = nullptr;
  uint32_t flags = 0;
};

// kavo_args_end: the node that an argument was last appended to, of those that had some before, and the end of its
// chain. A node's early answers come one after the other, so that only the first walks the chain. The node may be gone.
struct kavo_args_end {
  const struct kavo_query_node_t *node = nullptr;
  kavo_cb_arg *last = nullptr;
};

struct kavo_t {
  struct dns_ctx *udns_ctx = nullptr;  // the server thread's alone while it runs
  kavo_event_pipe qa_pipe;
  // The process that opened the context, from the beginning of kavo_open to the end of the run; 0 at rest.
  std::atomic<uint64_t> process = 0;
  struct dns_ios *ios = nullptr;  // the server thread's socket list while it runs
  uint32_t nios = 0;
  uint32_t now = 0;  // when the server thread last read the clock: kavo_time_milli
  kavo_zonesmap zonesmap;
  // The lengths of its lists in this run, for subscribers that do not know yet, under mx_table, that the run lasts.
  std::atomic<int32_t> zone_counts[KAVO_ZONES_SLOTS] = {};

  pelk_mutex_t mx_table;
  pelk_cond_t cond_table;
  // A permit for each node that may still be taken into use. An epoch of it is the time from the end of one run to the
  // end of the next.
  pelk_sem_t sem_free_node;
  bool table_ready = false;  // the table, its locks and its semaphore must be released
  uint32_t table_size = 0;
  kavo_cancel_fn *cancel = nullptr;  // given to the table at its creation
  shash_table query_table PELK_GUARDED_BY(mx_table) = {};
  kavo_lookup lookup PELK_GUARDED_BY(mx_table);
  uint64_t table_pmotion PELK_GUARDED_BY(mx_table) = 0;   // table_motion when the statistics were last logged
  uint64_t table_motion PELK_GUARDED_BY(mx_table) = 0;    // additions that reached the table
  uint64_t table_overflow PELK_GUARDED_BY(mx_table) = 0;  // additions that found no node free
  uint64_t table_reused PELK_GUARDED_BY(mx_table) = 0;    // additions that joined a node
  std::atomic<uint64_t> table_dropped = 0;                // additions whose deadline passed before a node was free
  uint32_t table_nfree PELK_GUARDED_BY(mx_table) = 0;
  std::atomic<uint32_t> event = 0;                      // bits of nodes whose waiters the next broadcast wakes
  uint32_t list_waiters PELK_GUARDED_BY(mx_table) = 0;  // threads that wait for nodes of a list of the host's
  kavo_spare_blocks spare_blocks PELK_GUARDED_BY(mx_table);
  kavo_arg_chunk *arg_chunks PELK_GUARDED_BY(mx_table) = nullptr;
  kavo_cb_arg *free_arg PELK_GUARDED_BY(mx_table) = nullptr;
  int free_arg_count PELK_GUARDED_BY(mx_table) = 0;
  kavo_args_end args_end PELK_GUARDED_BY(mx_table);

  // mx_srvstate guards every change of the state, the state function and its calls, and the thread's start and end. It
  // is never held while mx_table is taken.
  pelk_mutex_t mx_srvstate;
  pelk_cond_t cond_srvstate;
  bool srv_cond_ready = false;
  bool srv_mutex_ready = false;
  std::atomic<KAVO_SRV_STATE> srvstate = KAVOSS_STOPPED;
  pelk_thread_t srv_tid PELK_GUARDED_BY(mx_srvstate) = {};
  bool srv_joinable PELK_GUARDED_BY(mx_srvstate) = false;  // no thread has joined srv_tid yet
  unsigned srv_callers PELK_GUARDED_BY(mx_srvstate) = 0;   // threads that open, close or reap
  kavo_srvstate_chg_fn *srvstate_chg_cb PELK_GUARDED_BY(mx_srvstate) = nullptr;
  void *srvstate_chg_cb_uctx PELK_GUARDED_BY(mx_srvstate) = nullptr;

  std::atomic<uint32_t> syncid = 0;  // numbers the sync nodes
  uint32_t min_cache_delay = 0;
  uint32_t close_fast = 0;
  uint32_t dns_port = 0;
  int32_t max_zones = 0;        // fixed at creation
  uint32_t scratch = 0;         // the sink of option values that are kept nowhere else
  dns_dbg_fn *trace = nullptr;  // the host's view of the traffic; changes only at rest
  void *trace_data = nullptr;
  struct dns_cache *cache = nullptr;
  struct dns_cache *rcache = nullptr;  // may be the same object as `cache`
  KAVO next_abandoned = nullptr;       // among the parent process's contexts that a child has freed

  alignas(8) uint8_t pbuf[KAVO_PBUF_SIZE] = {};
  alignas(8) uint8_t rrbuf[KAVO_RRBUF_SIZE] = {};
};

#endif  // KAVO_T_H
