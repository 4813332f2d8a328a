// kavo.cc - the life of a context: creation, start, stop and release.
//
// The caller's half of the server state is moved here, the thread's half in kavo_srv.cc; mx_srvstate guards every
// change and the thread's handle, and is released before mx_table is taken.
//
//     STOPPED ──open──> STARTING ──thread──> RUNNING ──close──> STOPPING ──thread──> STOPPED
//        ^                 │                    │                   │
//        └──no thread──────┘                    └──thread failed────┴──> ERROR ──open──> STARTING
//
// Between runs the context is at rest, which begins only when the run's thread has been joined, its nodes have failed
// and its transport is closed: somewhat after the state says STOPPED.
//
// A forked child has the record of a run but not its thread. Its locks may be held for ever and its lists be half
// changed, so that the child closes the descriptors, frees what the run did not change, and leaves the rest alone.
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
// `number` is the error number of the system's call that failed, if it was one.
KAVO_ERR init_failed(const char *message, KAVO_ERR error, int number = 0, int line = __builtin_LINE()) {
  pelk_log_error(kSource, "kavo_init_ext", line, number, error, "%s", message);
  return error;
}

KAVO_ERR open_failed(const char *message, KAVO_ERR error, int number = 0, int line = __builtin_LINE()) {
  pelk_log_error(kSource, "kavo_open", line, number, error, "%s", message);
  return error;
}

KAVO_ERR close_failed(const char *message, KAVO_ERR error, int number = 0, int line = __builtin_LINE()) {
  pelk_log_error(kSource, "kavo_close", line, number, error, "%s", message);
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
  int error = pelk_cond_init(&ctx->cond_srvstate);
  if (error != 0) return init_failed("Unable to initialize server condition", KAVOE_THR, error);
  ctx->srv_cond_ready = true;
  error = pelk_mutex_init(&ctx->mx_srvstate);
  if (error != 0) return init_failed("Unable to initialize server mutex", KAVOE_THR, error);
  ctx->srv_mutex_ready = true;
  return KAVOE_OK;
}

void close_end(int *descriptor) {
  if (*descriptor != -1) close(*descriptor);
  *descriptor = -1;
}

void close_pipe(KAVO ctx) {
  close_end(&ctx->qa_pipe.read_end);
  close_end(&ctx->qa_pipe.write_end);
}

// make_pipe gives the context an event pipe of this process's own, in the place of any other; false, with errno set,
// without one.
bool make_pipe(KAVO ctx) {
  std::array<int, 2> ends = {};
  close_pipe(ctx);
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return false;
  ctx->qa_pipe = {pelk_lift(ends[0]), pelk_lift(ends[1])};
  if (ctx->qa_pipe.read_end < 0 || ctx->qa_pipe.write_end < 0) return false;
  const int flags = fcntl(ctx->qa_pipe.read_end, F_GETFL);
  static_cast<void>(fcntl(ctx->qa_pipe.read_end, F_SETFL, flags | O_NONBLOCK));
  ctx->qa_pipe.process = pelk_process();
  ctx->wake.store(0);
  return true;
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
  return make_pipe(ctx) ? KAVOE_OK : init_failed("Unable to initialize server events pipe", KAVOE_FAIL, errno);
}

// ---- release --------------------------------------------------------------------------------------------------------

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
  const KAVO_ERR error = kavo_table_fail_nodes(ctx);
  kavo_table_broadcast(ctx);
  if (error == KAVOE_OK) close_transport(ctx);
  return error;
}

// Caller is a thread that opens or closes the context, or ends a run that failed, from before its first look at the
// state. The last one to leave finds the context at rest, unless a thread of its own is left.
class Caller {
 public:
  explicit Caller(KAVO ctx) : ctx_(ctx), error(enter(ctx)) {}
  ~Caller() {
    if (error == 0) leave();
  }
  Caller(const Caller &) = delete;
  Caller &operator=(const Caller &) = delete;

 private:
  static int enter(KAVO ctx) {
    const pelk_lock lock(&ctx->mx_srvstate);
    if (lock.error != 0) return lock.error;
    ctx->srv_callers++;
    ctx->process.store(pelk_process());
    return 0;
  }
  void leave() {
    const pelk_lock lock(&ctx_->mx_srvstate);
    const KAVO_SRV_STATE state = ctx_->srvstate.load();
    const bool ended = (state == KAVOSS_STOPPED || state == KAVOSS_ERROR) && !ctx_->srv_joinable;
    if (--ctx_->srv_callers == 0 && ended) ctx_->process.store(0, std::memory_order_release);
  }
  const KAVO ctx_;

 public:
  const int error;
};

bool is_at_rest(KAVO ctx) {
  return ctx->process.load(std::memory_order_acquire) == 0;
}

// reap waits for the thread's end, unless somebody has, and ends its run.
KAVO_ERR reap(KAVO ctx) {
  pelk_thread_t thread = {};
  {
    const pelk_lock lock(&ctx->mx_srvstate);
    if (lock.error != 0 || !ctx->srv_joinable) return KAVOE_OK;
    if (pelk_thread_is_self(ctx->srv_tid)) return KAVOE_SRV;  // called back, in a run that has failed
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
    return open_failed("Unable to allocate buffer to store DNS transport sockets", KAVOE_NOMEM, errno);
  dns_set_dcfn(ctx->udns_ctx, kavo_srv_dccb);
  errno = 0;  // what fails below may have no call's reason
  if (dns_open(ctx->udns_ctx) >= 0) return KAVOE_OK;
  const int reason = errno;
  close_transport(ctx);
  return open_failed("Unable to open DNS transport", KAVOE_DNS, reason);
}

// own_pipe sees that the event pipe is this process's own: a context that was at rest when it was forked shares one
// with its parent.
KAVO_ERR own_pipe(KAVO ctx) {
  if (ctx->qa_pipe.process == pelk_process() || make_pipe(ctx)) return KAVOE_OK;
  return open_failed("Unable to initialize server events pipe", KAVOE_FAIL, errno);
}

void count_zones(KAVO ctx) {
  for (int slot = 0; slot < KAVO_ZONES_SLOTS; ++slot) {
    const kavo_zones *list = ctx->zonesmap.zones[slot];
    ctx->zone_counts[slot].store(list == nullptr ? 0 : list->count, std::memory_order_relaxed);
  }
}

// start_thread starts the server thread; without one the context is stopped again.
KAVO_ERR start_thread(KAVO ctx) PELK_REQUIRES(ctx->mx_srvstate) {
  kavo_srv_set_state(ctx, KAVOSS_STARTING);
  const int error = pelk_thread_create(&ctx->srv_tid, kavo_srv, ctx);
  if (error == 0) {
    ctx->srv_joinable = true;
    return KAVOE_OK;
  }
  close_transport(ctx);
  kavo_srv_set_state(ctx, KAVOSS_STOPPED);
  return open_failed("Unable to create server thread", KAVOE_THR, error);
}

// no_lock logs that the server's state cannot be locked.
KAVO_ERR no_lock(int error) {
  open_failed("Unable to lock server state", KAVOE_THR, error);
  return KAVOE_SRV;
}

KAVO_ERR start(KAVO ctx) {
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

// stop_thread has the thread end, and waits until it says that it does.
KAVO_ERR stop_thread(KAVO ctx) PELK_REQUIRES(ctx->mx_srvstate) {
  kavo_srv_set_state(ctx, KAVOSS_STOPPING);
  if (!kavo_send_event(ctx)) return close_failed("Unable to send event to a server (via pipe)", KAVOE_FAIL, errno);
  while (ctx->srvstate.load() == KAVOSS_STOPPING)
    pelk_cond_wait(&ctx->cond_srvstate, &ctx->mx_srvstate);
  return ctx->srvstate.load() == KAVOSS_STOPPED ? KAVOE_OK : close_failed("Server stopping error", KAVOE_SRV);
}

// ended tells of a context that there is nothing to stop in.
KAVO_ERR ended(KAVO_SRV_STATE state) {
  if (state == KAVOSS_ERROR) return close_failed("Server thread error", KAVOE_SRV);
  PELK_INFO(kSource, "kavo_close", "Server is already stopped");
  return KAVOE_OK;
}

KAVO_ERR stop(KAVO ctx) {
  const pelk_lock lock(&ctx->mx_srvstate);
  if (lock.error != 0) return close_failed("Unable to lock server state", KAVOE_SRV, lock.error);
  const KAVO_SRV_STATE state = ctx->srvstate.load();
  return state == KAVOSS_STOPPED || state == KAVOSS_ERROR ? ended(state) : stop_thread(ctx);
}

// ---- forked children ------------------------------------------------------------------------------------------------

// The records of a parent's contexts that were freed in this process. They stay, with all that leads on from them.
constinit std::atomic<KAVO> abandoned_records = nullptr;

// abandon closes what a parent's context has open in this process.
void abandon(KAVO ctx) {
  close_pipe(ctx);
  dns_abandon(ctx->udns_ctx);
}

// free_abandoned frees what no run changes. The rest goes with the process.
void free_abandoned(KAVO ctx) {
  abandon(ctx);
  kavo_zonesmap_free(&ctx->zonesmap);
  ctx->next_abandoned = abandoned_records.load();
  while (!abandoned_records.compare_exchange_weak(ctx->next_abandoned, ctx)) {
  }
}

// may_be_freed returns whether no thread is at work on a context but its own, which was told to stop, or has failed.
bool may_be_freed(KAVO ctx) {
  const pelk_lock lock(&ctx->mx_srvstate);
  return lock.error == 0 && ctx->srv_callers == 0 && ctx->srvstate.load() != KAVOSS_RUNNING;
}

}  // namespace

bool kavo_is_of_another_process(const kavo_t *ctx) {
  const uint64_t process = ctx->process.load(std::memory_order_relaxed);
  return process != 0 && process != pelk_process();
}

KAVO_ERR kavo_check_at_rest(KAVO kavo, const char *source, const char *function, const char *message, int line) {
  if (is_at_rest(kavo)) return KAVOE_OK;
  if (kavo_is_foreign(kavo)) return KAVOE_SRV;
  if (kavo->srvstate.load() == KAVOSS_ERROR) {
    const pelk_no_cancel whole;
    const Caller caller(kavo);
    if (caller.error == 0) reap_failed(kavo);
  }
  if (is_at_rest(kavo)) return KAVOE_OK;
  pelk_log_note(PELK_LOG_WARNING, source, function, line, "%s", message);
  return KAVOE_SRV;
}

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
  const Caller caller(kavo);
  if (caller.error != 0) return no_lock(caller.error);
  reap_failed(kavo);
  return start(kavo);
}

KAVO_ERR kavo_close(KAVO kavo) {
  if (kavo == nullptr) return KAVOE_BADPAR;
  const pelk_no_cancel whole;
  if (kavo_is_foreign(kavo)) {
    abandon(kavo);
    return KAVOE_OK;
  }
  if (is_at_rest(kavo)) return ended(kavo->srvstate.load());
  const Caller caller(kavo);
  if (caller.error != 0) return close_failed("Unable to lock server state", KAVOE_SRV, caller.error);
  const KAVO_ERR error = stop(kavo);
  if (error == KAVOE_OK) return reap(kavo);
  reap_failed(kavo);
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
  if (kavo->srvstate.load() == KAVOSS_STOPPING) close_end(&kavo->qa_pipe.write_end);
  if (reap(kavo) == KAVOE_SRV) return KAVOE_SRV;
  release(kavo);
  return KAVOE_OK;
}

int kavo_set_srvstate_chg_cb(KAVO kavo, kavo_srvstate_chg_fn *fn, void *uctx) {
  if (kavo == nullptr) return KAVOE_BADPAR;
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
