// kavo_rest.cc - the end of a run, and the check that a context is at rest.
//
// Runs on the host's threads. mx_srvstate guards the thread's handle and the count of callers, and is released before
// mx_table is taken.
#include "kavo_rest.h"

#include <stdlib.h>

#include <dns_engine.h>
#include <pelk_log.h>
#include <pelk_process.h>
#include <pelk_thread.h>

#include "kavo_query_table.h"
#include "kavo_state.h"
#include "kavo_t.h"
#include "kavo_table_lock.h"
#include "kavo_table_wait.h"

namespace {

[[nodiscard]] int enter(KAVO ctx) {
  const pelk_lock lock(&ctx->mx_srvstate);
  if (lock.error != 0) return lock.error;
  ctx->srv_callers++;
  ctx->process.store(pelk_process());
  return 0;
}

void leave(KAVO ctx) {
  const pelk_lock lock(&ctx->mx_srvstate);
  const KAVO_SRV_STATE state = ctx->srvstate.load();
  const bool ended = (state == KAVOSS_STOPPED || state == KAVOSS_ERROR) && !ctx->srv_joinable;
  if (--ctx->srv_callers == 0 && ended) ctx->process.store(0, std::memory_order_release);
}

// end_run fails what a thread that has ended left in flight, wakes the waiters, whom no other thread would wake, and
// closes the transport.
[[nodiscard]] KAVO_ERR end_run(KAVO ctx) {
  kavo_table_guard guard(ctx);
  if (guard.error != KAVOE_OK) {
    PELK_ERROR("kavo", "kavo_close", 0, KAVOE_SRV, "%s", KAVO_NO_TABLE_LOCK);
    return guard.error;
  }
  const KAVO_ERR error = kavo_table_fail_nodes(ctx);
  kavo_table_broadcast(ctx);
  if (error == KAVOE_OK) kavo_close_transport(ctx);
  return error;
}

}  // namespace

kavo_caller::kavo_caller(KAVO ctx) : ctx_(ctx), error(enter(ctx)) {}

kavo_caller::~kavo_caller() {
  if (error == 0) leave(ctx_);
}

void kavo_close_transport(KAVO ctx) {
  free(ctx->ios);
  ctx->ios = nullptr;
  ctx->nios = 0;
  dns_close(ctx->udns_ctx);
}

KAVO_ERR kavo_reap(KAVO ctx) {
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

void kavo_reap_failed(KAVO ctx) {
  if (ctx->srvstate.load() == KAVOSS_ERROR) static_cast<void>(kavo_reap(ctx));
}

KAVO_ERR kavo_check_at_rest(KAVO kavo, const char *source, const char *function, const char *message, int line) {
  if (kavo == nullptr) return KAVOE_BADPAR;
  if (kavo_is_at_rest(kavo)) return KAVOE_OK;
  if (kavo_is_foreign(kavo)) return KAVOE_SRV;
  if (kavo->srvstate.load() == KAVOSS_ERROR) {
    const pelk_no_cancel whole;
    const kavo_caller caller(kavo);
    if (caller.error == 0) kavo_reap_failed(kavo);
  }
  if (kavo_is_at_rest(kavo)) return KAVOE_OK;
  pelk_log_note(PELK_LOG_WARNING, source, function, line, "%s", message);
  return KAVOE_SRV;
}
