// kavo_t.h - the context record, which every area of the library is handed.
//
// The areas' owners: kavo.cc makes and releases the record and moves the server's state; kavo_srv.cc is the server
// thread's; kavo_query_table.cc keeps the table, the counters and the pool. The zones map, the options and the caches
// have no lock: they change only while no server thread runs. What a lock guards says so.
#ifndef KAVO_T_H
#define KAVO_T_H

#include <stdint.h>
#include <sys/time.h>

#include <atomic>

#include <dns_engine.h>
#include <kavo.h>
#include <pelk.h>
#include <shash.h>

#include "kavo_zonesmap.h"

struct kavo_arg_chunk;
struct kavo_cb_arg;

// Bytes in which the server thread rebuilds an answer from an expired cache entry: the packet, and one record's data.
inline constexpr unsigned KAVO_PBUF_SIZE = 4096;
inline constexpr unsigned KAVO_RRBUF_SIZE = 1024;

// kavo_event_pipe: how callers wake the server thread. The read end does not block.
struct kavo_event_pipe {
  int read_end = -1;
  int write_end = -1;
};

// kavo_lookup: the key that kavo_table_add looks up, which lies in no node. The key comparison takes the flags of such
// a key from here, and those of any other from its node.
struct kavo_lookup {
  const uint8_t *key = nullptr;
  uint32_t flags = 0;
};

// kavo_args_end: where arguments were appended last: the node and its chain's end. A node's early answers come one
// after the other, and none of them has to walk the chain. The node may be gone.
struct kavo_args_end {
  const struct kavo_query_node_t *node = nullptr;
  kavo_cb_arg *last = nullptr;
};

// kavo_spare_blocks: blocks of nodes that have left the table, by the sizes of the keys that they hold, for the nodes
// to come.
inline constexpr unsigned KAVO_SPARE_CLASSES = 25;
struct kavo_spare_blocks {
  struct kavo_spare_block *first[KAVO_SPARE_CLASSES];
  unsigned count[KAVO_SPARE_CLASSES];
};

struct kavo_t {
  struct dns_ctx *udns_ctx = nullptr;  // the server thread's alone while it runs
  kavo_event_pipe qa_pipe;
  std::atomic<bool> wake_pending = false;  // a byte is in the pipe, or about to be, that the server has not answered
  struct dns_ios *ios = nullptr;           // the server thread's socket list while it runs
  uint32_t nios = 0;
  uint32_t now = 0;  // when the server thread last looked at the clock: kavo_time_milli
  kavo_zonesmap zonesmap = {};

  pelk_mutex_t mx_table = {};
  pelk_cond_t cond_table = {};
  pelk_sem_t sem_free_node = {};  // a permit for each node that may still be taken into use
  bool table_ready = false;       // the table, its locks and its semaphore are there to be released
  uint32_t table_size = 0;
  shash_table query_table PELK_GUARDED_BY(mx_table) = {};
  kavo_lookup lookup PELK_GUARDED_BY(mx_table);
  uint64_t table_pmotion PELK_GUARDED_BY(mx_table) = 0;   // table_motion when the statistics were last logged
  uint64_t table_motion PELK_GUARDED_BY(mx_table) = 0;    // additions that reached the table
  uint64_t table_overflow PELK_GUARDED_BY(mx_table) = 0;  // additions that found no node free
  uint64_t table_reused PELK_GUARDED_BY(mx_table) = 0;    // additions that joined a node
  std::atomic<uint64_t> table_dropped = 0;                // additions whose deadline passed before a node was free
  uint32_t table_nfree PELK_GUARDED_BY(mx_table) = 0;
  std::atomic<uint32_t> event =
      0;  // bits of nodes that have come since the last broadcast to a state that was waited for
  kavo_spare_blocks spare_blocks PELK_GUARDED_BY(mx_table) = {};
  kavo_arg_chunk *arg_chunks PELK_GUARDED_BY(mx_table) = nullptr;
  kavo_cb_arg *free_arg PELK_GUARDED_BY(mx_table) = nullptr;
  int free_arg_count PELK_GUARDED_BY(mx_table) = 0;
  kavo_args_end args_end PELK_GUARDED_BY(mx_table);

  // mx_srvstate guards every change of the state, the state function and its calls and the thread's start and end. It
  // is never held while mx_table is taken.
  pelk_mutex_t mx_srvstate = {};
  pelk_cond_t cond_srvstate = {};
  bool srv_cond_ready = false;
  bool srv_mutex_ready = false;
  std::atomic<KAVO_SRV_STATE> srvstate = KAVOSS_STOPPED;
  pelk_thread_t srv_tid PELK_GUARDED_BY(mx_srvstate) = {};
  bool srv_joinable PELK_GUARDED_BY(mx_srvstate) = false;  // srv_tid is a thread that nobody has joined
  kavo_srvstate_chg_fn *srvstate_chg_cb PELK_GUARDED_BY(mx_srvstate) = nullptr;
  void *srvstate_chg_cb_uctx PELK_GUARDED_BY(mx_srvstate) = nullptr;

  std::atomic<uint32_t> syncid = 0;  // numbers the sync nodes
  uint32_t min_cache_delay = 0;
  uint32_t close_fast = 0;
  uint32_t dns_port = 0;
  int32_t max_zones = 0;        // fixed at creation
  uint32_t scratch = 0;         // the sink of option values that are kept nowhere else
  dns_dbg_fn *trace = nullptr;  // the host's view of the traffic; changes only while no server thread runs
  void *trace_data = nullptr;
  struct dns_cache *cache = nullptr;
  struct dns_cache *rcache = nullptr;  // may be the same object as `cache`

  alignas(8) uint8_t pbuf[KAVO_PBUF_SIZE] = {};
  alignas(8) uint8_t rrbuf[KAVO_RRBUF_SIZE] = {};
};

// kavo_is_configurable tells whether no server thread runs, so that the calling thread may change what one works with.
// The run of a thread that has failed is ended first: until then the thread may still drive the engine, and its
// questions lie there.
[[nodiscard]] bool kavo_is_configurable(KAVO kavo);

// kavo_time_milli returns a moment in whole milliseconds, rounded, modulo 2^32; kavo_milli_delay what lies between two
// of them, 0 when it is below 0.
[[nodiscard]] uint32_t kavo_time_milli(const struct timeval &moment);
[[nodiscard]] inline unsigned kavo_milli_delay(uint32_t start, uint32_t finish) {
  const auto delay = static_cast<int32_t>(finish - start);
  return delay < 0 ? 0 : static_cast<unsigned>(delay);
}

#endif  // KAVO_T_H
