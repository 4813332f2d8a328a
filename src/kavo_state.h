// kavo_state.h - the state of a context: whose run it has, whether it runs, whether it is at rest.
//
//     STOPPED ──open──> STARTING ──thread──> RUNNING ──close──> STOPPING ──thread──> STOPPED
//        ^                 │                    │                   │
//        └──no thread──────┘                    └──thread failed────┴──> ERROR ──open──> STARTING
//
// Between runs the context is at rest. Rest begins only when the run's thread has been joined, its nodes have failed
// and its transport is closed: somewhat after the state has become STOPPED.
#ifndef KAVO_STATE_H
#define KAVO_STATE_H

#include <atomic>

#include <kavo.h>
#include <pelk_process.h>

#include "kavo_t.h"

// kavo_is_foreign returns whether the context's run is a parent process's. Its server thread is then not here, and its
// locks may be held by threads that are not: every operation on the context is refused before it takes a lock, and
// without a line in the log, whose sink may be stuck in the same way.
[[nodiscard, gnu::cold]] bool kavo_is_of_another_process(const kavo_t *ctx);
[[nodiscard]] inline bool kavo_is_foreign(const kavo_t *ctx) {
  // The first comparison decides for a context that runs here.
  return ctx->process.load(std::memory_order_relaxed) != pelk_process_noted() && kavo_is_of_another_process(ctx);
}

[[nodiscard]] inline bool kavo_is_running(const kavo_t *ctx) {
  return ctx->srvstate.load() == KAVOSS_RUNNING && !kavo_is_foreign(ctx);
}

[[nodiscard]] inline bool kavo_is_at_rest(const kavo_t *ctx) {
  return ctx->process.load(std::memory_order_acquire) == 0;
}

// kavo_check_running returns KAVOE_OK for a context that runs; for any other KAVOE_SRV, with `message` in the log.
[[nodiscard]] KAVO_ERR kavo_not_running(KAVO kavo, const char *source, const char *function, const char *message,
                                        int line = __builtin_LINE());
[[nodiscard]] inline KAVO_ERR kavo_check_running(KAVO kavo, const char *source, const char *function,
                                                 const char *message, int line = __builtin_LINE()) {
  return kavo_is_running(kavo) ? KAVOE_OK : kavo_not_running(kavo, source, function, message, line);
}

// kavo_set_state tells the state function of a change and makes it. The end of RUNNING ends the run for subscribers:
// those that wait for a permit are sent away.
void kavo_set_state(KAVO ctx, KAVO_SRV_STATE state) PELK_REQUIRES(ctx->mx_srvstate);

#endif  // KAVO_STATE_H
