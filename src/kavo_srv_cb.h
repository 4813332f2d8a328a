// kavo_srv_cb.h - the functions through which the engine reports to the server thread.
#ifndef KAVO_SRV_CB_H
#define KAVO_SRV_CB_H

#include <kavo.h>

// The source name that the log lines of kavo_srv.cc and kavo_srv_cb.cc carry.
inline constexpr char KAVO_SRV_SOURCE[] = "kavo_srv";

// The engine calls, on the server thread: kavo_srv_cb with the outcome of a query whose data is its kavo_cb_arg,
// kavo_srv_dbgcb with what its cache did, kavo_srv_dccb when the check of the direct cache failed.
extern "C" {
void kavo_srv_cb(struct dns_ctx *dnsctx, struct dns_query *qh, void *r, unsigned size, void *data);
void kavo_srv_dbgcb(struct dns_ctx *dnsctx, struct dns_query *qh, int code, void *data, void *udata);
void kavo_srv_dccb(struct dns_ctx *dnsctx, struct dns_query *qh, int code, void *data, void *udata);
}

#endif  // KAVO_SRV_CB_H
