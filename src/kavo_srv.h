// kavo_srv.h - the server thread: its body, its state, and the functions through which the engine reports to it.
#ifndef KAVO_SRV_H
#define KAVO_SRV_H

#include <dns_engine.h>
#include <kavo.h>
#include <pelk.h>

#include "kavo_t.h"

// The source name that the log lines of kavo_srv.cc and kavo_srv_cb.cc carry.
inline constexpr char KAVO_SRV_SOURCE[] = "kavo_srv";

// kavo_srv is the thread's body; `context` is the KAVO. Returns null.
void *kavo_srv(void *context);

// kavo_srv_set_state tells the state function of a change and makes it.
void kavo_srv_set_state(KAVO ctx, KAVO_SRV_STATE state) PELK_REQUIRES(ctx->mx_srvstate);

// What the engine calls, on the server thread: kavo_srv_cb with the outcome of a question whose data is its
// kavo_cb_arg, kavo_srv_dbgcb with what its cache did, kavo_srv_dccb when the check of the direct cache failed.
extern "C" {
void kavo_srv_cb(struct dns_ctx *dnsctx, struct dns_query *qh, void *r, unsigned size, void *data);
void kavo_srv_dbgcb(struct dns_ctx *dnsctx, struct dns_query *qh, int code, void *data, void *udata);
void kavo_srv_dccb(struct dns_ctx *dnsctx, struct dns_query *qh, int code, void *data, void *udata);
}

#endif  // KAVO_SRV_H
