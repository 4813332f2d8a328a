// kavo.cc - the life of a context: creation, start, stop and release.
//
// The caller's half of the server state is moved here, the thread's half in kavo_srv.cc; mx_srvstate guards every
// change and the thread's handle, and is released before mx_table is taken.
//
//     STOPPED ──open──> STARTING ──thread──> RUNNING ──close──> STOPPING ──thread──> STOPPED
//        ^                 │                    │                   │
//        └──no thread──────┘                    └──thread failed────┴──> ERROR ──open──> STARTING
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <new>

#include "kavo_query_table.h"
#include "kavo_srv.h"
#include "kavo_t.h"
#include "kavo_zonesmap.h"

namespace {

constexpr char kSource[] = "kavo";

constexpr int kMaxZones = 8;  // of each type, where the host does not say
constexpr uint32_t kMinCacheDelay = 1000;
constexpr uint32_t kDnsPort = 53;

// init_failed, open_failed and close_failed log a failure with the line that calls them, and return its result.
KAVO_ERR init_failed(const char *message, KAVO_ERR error, int line = __builtin_LINE()) {
  pelk_log_error(kSource, "kavo_init_ext", line, errno, error, "%s", message);
  return error;
}

KAVO_ERR open_failed(const char *message, KAVO_ERR code, KAVO_ERR result, int line = __builtin_LINE()) {
  pelk_log_error(kSource, "kavo_open", line, errno, code, "%s", message);
  return result;
}

KAVO_ERR close_failed(const char *message, KAVO_ERR error, int line = __builtin_LINE()) {
  pelk_log_error(kSource, "kavo_close", line, errno, error, "%s", message);
  return error;
}

// ---- creation -------------------------------------------------------------------------------------------------------

KAVO_ERR init_engine(KAVO ctx) {
  if (dns_init(nullptr, 0) < 0) return KAVOE_DNS;
  ctx->udns_ctx = dns_new(nullptr);
  if (ctx->udns_ctx == nullptr) return KAVOE_DNS;
  return dns_init(ctx->udns_ctx, 0) < 0 ? KAVOE_DNS : KAVOE_OK;
}

// init_cache makes one cache for answers and referrals.
KAVO_ERR init_cache(KAVO ctx, int cache_size) {
  struct dns_cache *cache = dns_cache_init(static_cast<uint64_t>(cache_size));
  if (cache == nullptr) return init_failed("Unable to initialize cache", KAVOE_DNS);
  struct dns_cacher *cacher = dns_cache_cacher(cache);
  PELK_ASSERT(cacher, kSource);
  if (dns_set_cache(ctx->udns_ctx, DNS_CU_ANS | DNS_CU_REF, cacher) != 0) {
    dns_cache_destroy(cache);
    return KAVOE_DNS;
  }
  ctx->cache = cache;
  ctx->rcache = cache;
  return KAVOE_OK;
}

KAVO_ERR init_server_locks(KAVO ctx) {
  if (pelk_cond_init(&ctx->cond_srvstate) != 0) return init_failed("Unable to initialize server condition", KAVOE_THR);
  ctx->srv_cond_ready = true;
  if (pelk_mutex_init(&ctx->mx_srvstate) != 0) return init_failed("Unable to initialize server mutex", KAVOE_THR);
  ctx->srv_mutex_ready = true;
  return KAVOE_OK;
}

KAVO_ERR init_pipe(KAVO ctx) {
  std::array<int, 2> ends = {};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return init_failed("Unable to initialize server events pipe", KAVOE_FAIL);
  ctx->qa_pipe = {ends[0], ends[1]};
  const int flags = fcntl(ctx->qa_pipe.read_end, F_GETFL);
  static_cast<void>(fcntl(ctx->qa_pipe.read_end, F_SETFL, flags | O_NONBLOCK));
  return KAVOE_OK;
}

// init_context builds what a context consists of, in order. What was built before a failure stays, to be released.
KAVO_ERR init_context(KAVO ctx, int table_size, int cache_size, int max_zones) {
  ctx->max_zones = max_zones;
  KAVO_ERR error = kavo_table_init(ctx, table_size);
  if (error != KAVOE_OK) return init_failed("Unable to initialize query table", error);
  error = kavo_zonesmap_init_ordinary(&ctx->zonesmap, max_zones);
  if (error != KAVOE_OK) return init_failed("Unable to initialize zonesmap", error);
  error = init_engine(ctx);
  if (error != KAVOE_OK) return init_failed("Unable to initialize DNS transport", error);
  if (cache_size > 0) {
    error = init_cache(ctx, cache_size);
    if (error != KAVOE_OK) return error;
  }
  dns_set_dbgfn(ctx->udns_ctx, kavo_srv_dbgcb, ctx);
  dns_set_dbgev(ctx->udns_ctx, DNS_DE_CACHE);  // packets are for a host that traces
  error = init_server_locks(ctx);
  if (error != KAVOE_OK) return error;
  ctx->min_cache_delay = kMinCacheDelay;
  ctx->dns_port = kDnsPort;
  return init_pipe(ctx);
}

// ---- release --------------------------------------------------------------------------------------------------------

void close_end(int *descriptor) {
  if (*descriptor != -1) close(*descriptor);
  *descriptor = -1;
}

void close_pipe(KAVO ctx) {
  close_end(&ctx->qa_pipe.read_end);
  close_end(&ctx->qa_pipe.write_end);
}

void destroy_caches(KAVO ctx) {
  if (ctx->cache != nullptr) dns_cache_destroy(ctx->cache);
  if (ctx->rcache != nullptr && ctx->rcache != ctx->cache) dns_cache_destroy(ctx->rcache);
  ctx->cache = nullptr;
  ctx->rcache = nullptr;
}

// release frees a context, whole or as far as its creation came. No thread uses it.
void release(KAVO ctx) {
  close_pipe(ctx);
  destroy_caches(ctx);
  if (ctx->udns_ctx != nullptr) dns_destroy(ctx->udns_ctx);
  ctx->udns_ctx = nullptr;
  free(ctx->ios);
  kavo_zonesmap_free(&ctx->zonesmap);
  kavo_table_destroy(ctx);
  kavo_args_release(ctx);
  if (ctx->srv_cond_ready) pelk_cond_destroy(&ctx->cond_srvstate);
  if (ctx->srv_mutex_ready) pelk_mutex_destroy(&ctx->mx_srvstate);
  delete ctx;
}

// ---- the end of a run -----------------------------------------------------------------------------------------------

// fail_node moves a node in flight to ERROR and drops the server thread's hold on it.
KAVO_ERR fail_node(KAVO ctx, kavo_query_node_t *node) PELK_REQUIRES(ctx->mx_table) {
  const KAVO_ERR moved = kavo_table_change_state(ctx, node, KAVOQS_ERROR);
  if (moved != KAVOE_OK) {
    PELK_ERROR(kSource, "kavo_close", errno, moved, "Unable to change node state, target state %d", KAVOQS_ERROR);
    return moved;
  }
  const KAVO_ERR dropped = kavo_table_unsubscribe_node(ctx, node);
  if (dropped != KAVOE_OK) PELK_INFO(kSource, "kavo_close", "Unable to unsubscribe query node, error %d", dropped);
  return dropped;
}

// fail_nodes fails every node in flight. The list of WAIT holds the DCFAIL and PRESOLVED nodes too.
KAVO_ERR fail_nodes(KAVO ctx) PELK_REQUIRES(ctx->mx_table) {
  for (const kavo_query_state state : {KAVOQS_NEW, KAVOQS_SUBMITTED, KAVOQS_WAIT}) {
    STAT_RANGEITEM cursor = {};
    PSTAT_RANGEITEM list = kavo_table_state_list(ctx, state, &cursor);
    while (kavo_query_node_t *node = kavo_table_list_item(ctx, list)) {
      const KAVO_ERR error = fail_node(ctx, node);
      if (error != KAVOE_OK) return error;
    }
  }
  return KAVOE_OK;
}

void close_transport(KAVO ctx) {
  free(ctx->ios);
  ctx->ios = nullptr;
  ctx->nios = 0;
  dns_close(ctx->udns_ctx);
}

// end_run fails what a thread that has ended left in flight, wakes the waiters, which no thread would do any more, and
// closes the transport.
KAVO_ERR end_run(KAVO ctx) {
  kavo_table_guard guard(ctx);
  if (guard.error != KAVOE_OK) {
    close_failed("Unable to lock query table", KAVOE_SRV);
    return guard.error;
  }
  const KAVO_ERR error = fail_nodes(ctx);
  kavo_table_broadcast(ctx);
  if (error == KAVOE_OK) close_transport(ctx);
  return error;
}

// reap waits for the thread's end, unless somebody has, and ends its run.
KAVO_ERR reap(KAVO ctx) {
  pelk_thread_t thread = {};
  {
    const pelk_lock lock(&ctx->mx_srvstate);
    if (lock.error != 0 || !ctx->srv_joinable) return KAVOE_OK;
    ctx->srv_joinable = false;
    thread = ctx->srv_tid;
  }
  pelk_thread_join(thread);
  return end_run(ctx);
}

void reap_failed(KAVO ctx) {
  if (ctx->srvstate.load() == KAVOSS_ERROR) static_cast<void>(reap(ctx));
}

// ---- opening --------------------------------------------------------------------------------------------------------

KAVO_ERR open_transport(KAVO ctx) {
  free(ctx->ios);
  ctx->ios = static_cast<struct dns_ios *>(calloc(1, sizeof *ctx->ios));
  ctx->nios = ctx->ios == nullptr ? 0 : 1;
  if (ctx->ios == nullptr)
    return open_failed("Unable to allocate buffer to store DNS transport sockets", KAVOE_NOMEM, KAVOE_NOMEM);
  dns_set_dcfn(ctx->udns_ctx, kavo_srv_dccb);
  if (dns_open(ctx->udns_ctx) >= 0) return KAVOE_OK;
  open_failed("Unable to open DNS transport", KAVOE_DNS, KAVOE_DNS);
  close_transport(ctx);
  return KAVOE_DNS;
}

// start_thread starts the server thread; without one the context is stopped again.
KAVO_ERR start_thread(KAVO ctx) PELK_REQUIRES(ctx->mx_srvstate) {
  kavo_srv_set_state(ctx, KAVOSS_STARTING);
  if (pelk_thread_create(&ctx->srv_tid, kavo_srv, ctx) == 0) {
    ctx->srv_joinable = true;
    return KAVOE_OK;
  }
  open_failed("Unable to create server thread", KAVOE_THR, KAVOE_THR);
  close_transport(ctx);
  kavo_srv_set_state(ctx, KAVOSS_STOPPED);
  return KAVOE_THR;
}

KAVO_ERR start(KAVO ctx) {
  pelk_lock lock(&ctx->mx_srvstate);
  if (lock.error != 0) return open_failed("Unable to lock server state", KAVOE_THR, KAVOE_SRV);
  const KAVO_SRV_STATE state = ctx->srvstate.load();
  if (state == KAVOSS_RUNNING) return open_failed("Invalid server state (already running)", KAVOE_SRV, KAVOE_SRV);
  if (state == KAVOSS_STARTING || state == KAVOSS_STOPPING)
    return open_failed("Invalid server state (already starting or stopping)", KAVOE_SRV, KAVOE_SRV);
  KAVO_ERR error = open_transport(ctx);
  if (error != KAVOE_OK) return error;
  error = start_thread(ctx);
  if (error != KAVOE_OK) return error;
  while (ctx->srvstate.load() == KAVOSS_STARTING)
    pelk_cond_wait(&ctx->cond_srvstate, &ctx->mx_srvstate);
  if (ctx->srvstate.load() != KAVOSS_ERROR) return KAVOE_OK;
  return open_failed("Server starting error", KAVOE_SRV, KAVOE_SRV);
}

// ---- closing --------------------------------------------------------------------------------------------------------

bool send_stop(KAVO ctx) {
  const uint8_t event = 0;
  ssize_t written = 0;
  do {
    written = write(ctx->qa_pipe.write_end, &event, sizeof event);
  } while (written < 0 && errno == EINTR);
  return written == sizeof event;
}

// stop_thread has the thread end, and waits until it says that it does.
KAVO_ERR stop_thread(KAVO ctx) PELK_REQUIRES(ctx->mx_srvstate) {
  kavo_srv_set_state(ctx, KAVOSS_STOPPING);
  if (!send_stop(ctx)) return close_failed("Unable to send event to a server (via pipe)", KAVOE_FAIL);
  while (ctx->srvstate.load() == KAVOSS_STOPPING)
    pelk_cond_wait(&ctx->cond_srvstate, &ctx->mx_srvstate);
  return ctx->srvstate.load() == KAVOSS_STOPPED ? KAVOE_OK : close_failed("Server stopping error", KAVOE_SRV);
}

KAVO_ERR stop(KAVO ctx) {
  const pelk_lock lock(&ctx->mx_srvstate);
  if (lock.error != 0) return close_failed("Unable to lock server state", KAVOE_SRV);
  const KAVO_SRV_STATE state = ctx->srvstate.load();
  if (state == KAVOSS_STOPPED) {
    PELK_INFO(kSource, "kavo_close", "Server is already stopped");
    return KAVOE_OK;
  }
  return state == KAVOSS_ERROR ? close_failed("Server thread error", KAVOE_SRV) : stop_thread(ctx);
}

}  // namespace

bool kavo_is_configurable(KAVO kavo) {
  if (kavo_srv_is_running(kavo) != 0) return false;
  reap_failed(kavo);
  return true;
}

KAVO_ERR kavo_init_ext(KAVO *kavo, int table_size, int cache_size, int max_zones, int do_open) {
  if (max_zones <= 0 || table_size <= 0 || kavo == nullptr) return KAVOE_BADPAR;
  *kavo = new (std::nothrow) kavo_t{};
  if (*kavo == nullptr) {
    PELK_ERROR(kSource, __func__, errno, 0, "Unable to allocate %d bytes to store KAVO context",
               static_cast<int>(sizeof(kavo_t)));
    return KAVOE_NOMEM;
  }
  const KAVO_ERR error = init_context(*kavo, table_size, cache_size, max_zones);
  if (error != KAVOE_OK) {
    release(*kavo);
    *kavo = nullptr;
    return error;
  }
  return do_open != 0 ? kavo_open(*kavo) : KAVOE_OK;
}

KAVO_ERR kavo_init(KAVO *kavo, int table_size, int cache_size, int do_open) {
  return kavo_init_ext(kavo, table_size, cache_size, kMaxZones, do_open);
}

KAVO_ERR kavo_open(KAVO kavo) {
  if (kavo == nullptr) return KAVOE_BADPAR;
  if (kavo_srv_is_running(kavo) != 0) {
    PELK_WARN(kSource, __func__, "Attempt to open already opened context");
    return KAVOE_OK;
  }
  reap_failed(kavo);
  return start(kavo);
}

KAVO_ERR kavo_close(KAVO kavo) {
  if (kavo == nullptr) return KAVOE_BADPAR;
  const KAVO_ERR error = stop(kavo);
  if (error == KAVOE_OK) return reap(kavo);
  reap_failed(kavo);
  return error;
}

KAVO_ERR kavo_free(KAVO kavo) {
  if (kavo == nullptr) return KAVOE_BADPAR;
  if (kavo_srv_is_running(kavo) != 0) {
    PELK_WARN(kSource, __func__, "Attempt to free opened context");
    return KAVOE_SRV;
  }
  // A thread that kavo_close could not tell to stop reads the pipe's end instead.
  if (kavo->srvstate.load() == KAVOSS_STOPPING) close_end(&kavo->qa_pipe.write_end);
  static_cast<void>(reap(kavo));
  release(kavo);
  return KAVOE_OK;
}

int kavo_set_srvstate_chg_cb(KAVO kavo, kavo_srvstate_chg_fn *fn, void *uctx) {
  if (kavo == nullptr) return KAVOE_BADPAR;
  if (kavo_srv_is_running(kavo) != 0) {
    PELK_WARN(kSource, __func__, "Attempt to set server state callback for already opened context");
    return KAVOE_SRV;
  }
  const pelk_lock lock(&kavo->mx_srvstate);
  if (lock.error != 0) {
    PELK_ERROR(kSource, __func__, errno, KAVOE_THR, "Unable to lock server state");
    return KAVOE_THR;
  }
  kavo->srvstate_chg_cb = fn;
  kavo->srvstate_chg_cb_uctx = uctx;
  return KAVOE_OK;
}
