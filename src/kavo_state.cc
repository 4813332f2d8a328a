// kavo_state.cc - the state of a context, as far as the header does not define it.
//
// Any thread may ask for the state. The threads that open and close the context and the server thread set it.
#include "kavo_state.h"

#include <pelk_log.h>

bool kavo_is_of_another_process(const kavo_t *ctx) {
  const uint64_t process = ctx->process.load(std::memory_order_relaxed);
  return process != 0 && process != pelk_process();
}

KAVO_ERR kavo_not_running(KAVO kavo, const char *source, const char *function, const char *message, int line) {
  if (!kavo_is_foreign(kavo)) pelk_log_note(PELK_LOG_INFO, source, function, line, "%s", message);
  return KAVOE_SRV;
}

void kavo_set_state(KAVO ctx, KAVO_SRV_STATE state) {
  const KAVO_SRV_STATE before = ctx->srvstate.load();
  if (ctx->srvstate_chg_cb != nullptr) ctx->srvstate_chg_cb(ctx, before, state, ctx->srvstate_chg_cb_uctx);
  ctx->srvstate.store(state);
  if (before == KAVOSS_RUNNING) pelk_sem_interrupt(&ctx->sem_free_node);
}

int kavo_srv_is_running(KAVO kavo) {
  return kavo != nullptr && kavo_is_running(kavo) ? 1 : 0;
}
