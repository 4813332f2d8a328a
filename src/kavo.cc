// kavo.cc - the life of a context: creation, opening, closing and release.
//
// Runs on the host's threads. mx_srvstate guards every change of the state and is released before mx_table is taken.
//
// A forked child has the record of a run but not its thread. The run's locks may be held for ever and its lists be half
// changed, so the child closes the descriptors, frees what the run did not change, and leaves the rest alone.
#include <errno.h>
#include <stdlib.h>

#include <new>

#include <dns_engine.h>
#include <pelk_log.h>
#include <pelk_process.h>
#include <pelk_thread.h>

#include "kavo_args.h"
#include "kavo_caches.h"
#include "kavo_dns.h"
#include "kavo_event_pipe.h"
#include "kavo_query_table.h"
#include "kavo_rest.h"
#include "kavo_srv.h"
#include "kavo_srv_cb.h"
#include "kavo_state.h"
#include "kavo_t.h"
#include "kavo_zonesmap.h"

namespace {

constexpr char kSource[] = "kavo";

constexpr int kMaxZones = 8;  // of each type, where the host does not say
constexpr uint32_t kMinCacheDelay = 1000;
constexpr uint32_t kDnsPort = 53;

// init_failed, open_failed and close_failed log a failure with the line of their caller, and return its result.
// `number` is the error number of the system call that failed, if it was one.
[[nodiscard]] KAVO_ERR init_failed(const char *message, KAVO_ERR error, int number = 0, int line = __builtin_LINE()) {
  pelk_log_error(kSource, "kavo_init_ext", line, number, error, "%s", message);
  return error;
}

[[nodiscard]] KAVO_ERR open_failed(const char *message, KAVO_ERR error, int number = 0, int line = __builtin_LINE()) {
  pelk_log_error(kSource, "kavo_open", line, number, error, "%s", message);
  return error;
}

[[nodiscard]] KAVO_ERR close_failed(const char *message, KAVO_ERR error, int number = 0, int line = __builtin_LINE()) {
  pelk_log_error(kSource, "kavo_close", line, number, error, "%s", message);
  return error;
}

// ---- creation -------------------------------------------------------------------------------------------------------

[[nodiscard]] KAVO_ERR init_engine(KAVO ctx) {
  if (dns_init(nullptr, 0) < 0) return KAVOE_DNS;
  ctx->udns_ctx = dns_new(nullptr);
  if (ctx->udns_ctx == nullptr) return KAVOE_DNS;
  return dns_init(ctx->udns_ctx, 0) < 0 ? KAVOE_DNS : KAVOE_OK;
}

[[nodiscard]] KAVO_ERR init_server_locks(KAVO ctx) {
  int error = pelk_cond_init(&ctx->cond_srvstate);
  if (error != 0) return init_failed("Unable to initialize server condition", KAVOE_THR, error);
  ctx->srv_cond_ready = true;
  error = pelk_mutex_init(&ctx->mx_srvstate);
  if (error != 0) return init_failed("Unable to initialize server mutex", KAVOE_THR, error);
  ctx->srv_mutex_ready = true;
  return KAVOE_OK;
}

// init_context builds the parts of a context, in order. The parts before a failure stay, to be released.
[[nodiscard]] KAVO_ERR init_context(KAVO ctx, int table_size, int cache_size, int max_zones) {
  ctx->max_zones = max_zones;
  KAVO_ERR error = kavo_table_init(ctx, table_size, kavo_cancel_query);
  if (error != KAVOE_OK) return init_failed("Unable to initialize query table", error);
  error = kavo_zonesmap_init_ordinary(&ctx->zonesmap, max_zones);
  if (error != KAVOE_OK) return init_failed("Unable to initialize zonesmap", error);
  error = init_engine(ctx);
  if (error != KAVOE_OK) return init_failed("Unable to initialize DNS transport", error);
  if (cache_size > 0) {
    error = kavo_caches_init(ctx, cache_size);
    if (error != KAVOE_OK) return error;
  }
  dns_set_dbgfn(ctx->udns_ctx, kavo_srv_dbgcb, ctx);
  dns_set_dbgev(ctx->udns_ctx, DNS_DE_CACHE);  // packets are for a host that traces
  error = init_server_locks(ctx);
  if (error != KAVOE_OK) return error;
  ctx->min_cache_delay = kMinCacheDelay;
  ctx->dns_port = kDnsPort;
  if (kavo_event_pipe_open(&ctx->qa_pipe)) return KAVOE_OK;
  return init_failed("Unable to initialize server events pipe", KAVOE_FAIL, errno);
}

// ---- release --------------------------------------------------------------------------------------------------------

// release frees a context, whole or as far as its creation came. No other thread uses it.
void release(KAVO ctx) {
  kavo_event_pipe_close(&ctx->qa_pipe);
  kavo_caches_destroy(ctx);
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

// ---- opening --------------------------------------------------------------------------------------------------------

[[nodiscard]] KAVO_ERR open_transport(KAVO ctx) {
  free(ctx->ios);
  ctx->ios = static_cast<struct dns_ios *>(calloc(1, sizeof *ctx->ios));
  ctx->nios = ctx->ios == nullptr ? 0 : 1;
  if (ctx->ios == nullptr)
    return open_failed("Unable to allocate buffer to store DNS transport sockets", KAVOE_NOMEM, errno);
  dns_set_dcfn(ctx->udns_ctx, kavo_srv_dccb);
  errno = 0;  // a failure below may set none
  if (dns_open(ctx->udns_ctx) >= 0) return KAVOE_OK;
  const int reason = errno;
  kavo_close_transport(ctx);
  return open_failed("Unable to open DNS transport", KAVOE_DNS, reason);
}

// own_pipe makes sure that the event pipe is this process's own: a context that was at rest when it was forked shares
// one with its parent.
[[nodiscard]] KAVO_ERR own_pipe(KAVO ctx) {
  if (ctx->qa_pipe.process == pelk_process() || kavo_event_pipe_open(&ctx->qa_pipe)) return KAVOE_OK;
  return open_failed("Unable to initialize server events pipe", KAVOE_FAIL, errno);
}

void count_zones(KAVO ctx) {
  for (int slot = 0; slot < KAVO_ZONES_SLOTS; ++slot) {
    const kavo_zones *list = ctx->zonesmap.zones[slot];
    ctx->zone_counts[slot].store(list == nullptr ? 0 : list->count, std::memory_order_relaxed);
  }
}

// start_thread starts the server thread; without one the context is stopped again.
[[nodiscard]] KAVO_ERR start_thread(KAVO ctx) PELK_REQUIRES(ctx->mx_srvstate) {
  kavo_set_state(ctx, KAVOSS_STARTING);
  const int error = pelk_thread_create(&ctx->srv_tid, kavo_srv, ctx);
  if (error == 0) {
    ctx->srv_joinable = true;
    return KAVOE_OK;
  }
  kavo_close_transport(ctx);
  kavo_set_state(ctx, KAVOSS_STOPPED);
  return open_failed("Unable to create server thread", KAVOE_THR, error);
}

// no_lock logs that the server's state cannot be locked.
[[nodiscard]] KAVO_ERR no_lock(int error) {
  static_cast<void>(open_failed("Unable to lock server state", KAVOE_THR, error));
  return KAVOE_SRV;
}

[[nodiscard]] KAVO_ERR start(KAVO ctx) {
  pelk_lock lock(&ctx->mx_srvstate);
  if (lock.error != 0) return no_lock(lock.error);
  const KAVO_SRV_STATE state = ctx->srvstate.load();
  if (state == KAVOSS_RUNNING) return open_failed("Invalid server state (already running)", KAVOE_SRV);
  if (state == KAVOSS_STARTING || state == KAVOSS_STOPPING || ctx->srv_callers > 1 || ctx->srv_joinable)
    return open_failed("Invalid server state (already starting or stopping)", KAVOE_SRV);
  KAVO_ERR error = own_pipe(ctx);
  if (error == KAVOE_OK) error = open_transport(ctx);
  if (error != KAVOE_OK) return error;
  count_zones(ctx);
  error = start_thread(ctx);
  if (error != KAVOE_OK) return error;
  while (ctx->srvstate.load() == KAVOSS_STARTING)
    pelk_cond_wait(&ctx->cond_srvstate, &ctx->mx_srvstate);
  if (ctx->srvstate.load() != KAVOSS_ERROR) return KAVOE_OK;
  return open_failed("Server starting error", KAVOE_SRV);
}

// ---- closing --------------------------------------------------------------------------------------------------------

// stop_thread tells the thread to end, and waits until the thread answers.
[[nodiscard]] KAVO_ERR stop_thread(KAVO ctx) PELK_REQUIRES(ctx->mx_srvstate) {
  kavo_set_state(ctx, KAVOSS_STOPPING);
  if (!kavo_event_pipe_send(&ctx->qa_pipe))
    return close_failed("Unable to send event to a server (via pipe)", KAVOE_FAIL, errno);
  while (ctx->srvstate.load() == KAVOSS_STOPPING)
    pelk_cond_wait(&ctx->cond_srvstate, &ctx->mx_srvstate);
  return ctx->srvstate.load() == KAVOSS_STOPPED ? KAVOE_OK : close_failed("Server stopping error", KAVOE_SRV);
}

// ended answers kavo_close for a context without a run.
[[nodiscard]] KAVO_ERR ended(KAVO_SRV_STATE state) {
  if (state == KAVOSS_ERROR) return close_failed("Server thread error", KAVOE_SRV);
  PELK_INFO(kSource, "kavo_close", "Server is already stopped");
  return KAVOE_OK;
}

[[nodiscard]] KAVO_ERR stop(KAVO ctx) {
  const pelk_lock lock(&ctx->mx_srvstate);
  if (lock.error != 0) return close_failed("Unable to lock server state", KAVOE_SRV, lock.error);
  const KAVO_SRV_STATE state = ctx->srvstate.load();
  return state == KAVOSS_STOPPED || state == KAVOSS_ERROR ? ended(state) : stop_thread(ctx);
}

// ---- forked children ------------------------------------------------------------------------------------------------

// The records of a parent's contexts that were freed in this process. They stay, with everything that they point to.
constinit std::atomic<KAVO> abandoned_records = nullptr;

// abandon closes what a parent's context has open in this process.
void abandon(KAVO ctx) {
  kavo_event_pipe_close(&ctx->qa_pipe);
  dns_abandon(ctx->udns_ctx);
}

// free_abandoned frees what no run changes; the rest stays until the process ends.
void free_abandoned(KAVO ctx) {
  abandon(ctx);
  kavo_zonesmap_free(&ctx->zonesmap);
  ctx->next_abandoned = abandoned_records.load();
  while (!abandoned_records.compare_exchange_weak(ctx->next_abandoned, ctx)) {
  }
}

// may_be_freed returns whether no thread works on a context but its own, which was told to stop or has failed.
[[nodiscard]] bool may_be_freed(KAVO ctx) {
  const pelk_lock lock(&ctx->mx_srvstate);
  return lock.error == 0 && ctx->srv_callers == 0 && ctx->srvstate.load() != KAVOSS_RUNNING;
}

}  // namespace

KAVO_ERR kavo_init_ext(KAVO *kavo, int table_size, int cache_size, int max_zones, int do_open) {
  if (max_zones <= 0 || table_size <= 0 || kavo == nullptr) return KAVOE_BADPAR;
  const pelk_no_cancel whole;
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
  if (kavo_is_foreign(kavo)) return KAVOE_SRV;
  if (kavo_is_running(kavo)) {
    PELK_WARN(kSource, __func__, "Attempt to open already opened context");
    return KAVOE_OK;
  }
  const pelk_no_cancel whole;
  const kavo_caller caller(kavo);
  if (caller.error != 0) return no_lock(caller.error);
  kavo_reap_failed(kavo);
  return start(kavo);
}

KAVO_ERR kavo_close(KAVO kavo) {
  if (kavo == nullptr) return KAVOE_BADPAR;
  const pelk_no_cancel whole;
  if (kavo_is_foreign(kavo)) {
    abandon(kavo);
    return KAVOE_OK;
  }
  if (kavo_is_at_rest(kavo)) return ended(kavo->srvstate.load());
  const kavo_caller caller(kavo);
  if (caller.error != 0) return close_failed("Unable to lock server state", KAVOE_SRV, caller.error);
  const KAVO_ERR error = stop(kavo);
  if (error == KAVOE_OK) return kavo_reap(kavo);
  kavo_reap_failed(kavo);
  return error;
}

KAVO_ERR kavo_free(KAVO kavo) {
  if (kavo == nullptr) return KAVOE_BADPAR;
  const pelk_no_cancel whole;
  if (kavo_is_foreign(kavo)) {
    free_abandoned(kavo);
    return KAVOE_OK;
  }
  if (!may_be_freed(kavo)) {
    PELK_WARN(kSource, __func__, "Attempt to free opened context");
    return KAVOE_SRV;
  }
  // A thread that kavo_close could not tell to stop reads the pipe's end instead.
  if (kavo->srvstate.load() == KAVOSS_STOPPING) kavo_event_pipe_hang_up(&kavo->qa_pipe);
  if (kavo_reap(kavo) == KAVOE_SRV) return KAVOE_SRV;
  release(kavo);
  return KAVOE_OK;
}

int kavo_set_srvstate_chg_cb(KAVO kavo, kavo_srvstate_chg_fn *fn, void *uctx) {
  const KAVO_ERR refused =
      kavo_check_at_rest(kavo, kSource, __func__, "Attempt to set server state callback for already opened context");
  if (refused != KAVOE_OK) return static_cast<int>(refused);
  const pelk_lock lock(&kavo->mx_srvstate);
  if (lock.error != 0) {
    PELK_ERROR(kSource, __func__, lock.error, KAVOE_THR, "Unable to lock server state");
    return KAVOE_THR;
  }
  kavo->srvstate_chg_cb = fn;
  kavo->srvstate_chg_cb_uctx = uctx;
  return KAVOE_OK;
}
