// kavo_t.h - the context record, which every area of the library is handed.
//
// The areas' owners: kavo.cc makes and releases the record and moves the server's state; kavo_srv.cc is the server
// thread's; kavo_query_table.cc keeps the table, the counters and the pool. The zones map, the options and the caches
// have no lock: they change only while the context is at rest, from the end of one run to the beginning of the next.
// What a lock guards says so.
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

// kavo_event_pipe: how callers wake the server thread. The read end does not block. A forked child that opens the
// context makes itself another one.
struct kavo_event_pipe {
  int read_end = -1;
  int write_end = -1;
  uint64_t process = 0;  // that made it
};

// kavo_lookup: the key that kavo_table_add looks up, which lies in no node. The key comparison takes the flags of such
// a key from here, and those of any other from its node.
struct kavo_lookup {
  const uint8_t *key = nullptr;
  uint32_t flags = 0;
};

// kavo_args_end: where an argument was last appended to a node that had some: the node and its chain's end. A node's
// early answers come one after the other, so that the first of them alone walks the chain. The node may be gone.
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
  std::atomic<uint64_t> wake = 0;  // bit 0: a byte is in the pipe; the rest counts how often the server has emptied it
  // The process that opened the context, from the beginning of kavo_open to the end of the run; 0 at rest.
  std::atomic<uint64_t> process = 0;
  struct dns_ios *ios = nullptr;  // the server thread's socket list while it runs
  uint32_t nios = 0;
  uint32_t now = 0;  // when the server thread last looked at the clock: kavo_time_milli
  kavo_zonesmap zonesmap = {};
  // The lengths of its lists in this run, for subscribers that have not seen under mx_table that the run still lasts.
  std::atomic<int32_t> zone_counts[KAVO_ZONES_SLOTS] = {};

  pelk_mutex_t mx_table = {};
  pelk_cond_t cond_table = {};
  // A permit for each node that may still be taken into use. An epoch of it is the time from the end of one run to the
  // end of the next.
  pelk_sem_t sem_free_node = {};
  bool table_ready = false;  // the table, its locks and its semaphore are there to be released
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
  uint32_t list_waiters PELK_GUARDED_BY(mx_table) = 0;  // threads that wait for nodes of a list of the host's
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
  KAVO next_abandoned = nullptr;       // among those of a parent process that a child has freed

  alignas(8) uint8_t pbuf[KAVO_PBUF_SIZE] = {};
  alignas(8) uint8_t rrbuf[KAVO_RRBUF_SIZE] = {};
};

// kavo_is_foreign tells whether the context's run is a parent process's, so that its server thread is not here and its
// locks may be held by threads that are not: every operation on it is refused before it takes one, and without a line
// in the log, whose sink may be stuck just so.
[[nodiscard, gnu::cold]] bool kavo_is_of_another_process(const kavo_t *ctx);
[[nodiscard]] inline bool kavo_is_foreign(const kavo_t *ctx) {
  // Of a context that runs the first look tells.
  return ctx->process.load(std::memory_order_relaxed) != pelk_process_noted() && kavo_is_of_another_process(ctx);
}

[[nodiscard]] inline bool kavo_is_running(const kavo_t *ctx) {
  return ctx->srvstate.load() == KAVOSS_RUNNING && !kavo_is_foreign(ctx);
}

// kavo_check_running returns KAVOE_OK for a context that runs; for any other KAVOE_SRV, with `message` in the log.
[[nodiscard]] KAVO_ERR kavo_not_running(KAVO kavo, const char *source, const char *function, const char *message,
                                        int line);
[[nodiscard]] inline KAVO_ERR kavo_check_running(KAVO kavo, const char *source, const char *function,
                                                 const char *message, int line = __builtin_LINE()) {
  return kavo_is_running(kavo) ? KAVOE_OK : kavo_not_running(kavo, source, function, message, line);
}

// kavo_check_at_rest returns KAVOE_OK for a context at rest, so that the calling thread may change what a server thread
// works with; for any other KAVOE_SRV, with `message` in the log as a warning. The run of a thread that has failed is
// ended first.
[[nodiscard]] KAVO_ERR kavo_check_at_rest(KAVO kavo, const char *source, const char *function, const char *message,
                                          int line = __builtin_LINE());

// kavo_wake_server has the server thread look for new nodes and at the state; false when it cannot.
[[nodiscard]] bool kavo_wake_server(KAVO ctx);
// kavo_send_event writes a byte to the event pipe.
[[nodiscard]] bool kavo_send_event(KAVO ctx);

// kavo_time_milli returns a moment in whole milliseconds, rounded, modulo 2^32; kavo_milli_delay what lies between two
// of them, 0 when it is below 0.
[[nodiscard]] uint32_t kavo_time_milli(const struct timeval &moment);
[[nodiscard]] inline unsigned kavo_milli_delay(uint32_t start, uint32_t finish) {
  const auto delay = static_cast<int32_t>(finish - start);
  return delay < 0 ? 0 : static_cast<unsigned>(delay);
}

#endif  // KAVO_T_H
