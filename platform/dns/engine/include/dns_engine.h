// dns_engine.h - the engine's operations for the library above it: queries, the loop that drives them, options,
// servers.
//
// One thread drives a context through dns_timeouts, dns_sockio and dns_ioevent; every other operation on a context is
// made by that thread or while none drives it. Exceptions: the dns_get_serv_* statistics and everything on caches, from
// any thread at any time.
//
// A query lives from dns_submit_dn_serv to its one callback, or to dns_cancel. No callback runs inside either of the
// two: a submission only queues, and the next dns_timeouts looks into the cache and sends packets.
#ifndef DNS_ENGINE_H
#define DNS_ENGINE_H

#include <stdint.h>

#include <address.h>
#include <cacher.h>
#include <kavo/dns.h>

extern "C" {

// ---- memory --------------------------------------------------------------------------------------------------------

void *dns_calloc(size_t count, size_t size);
void *dns_realloc(void *block, size_t size);

// ---- time ----------------------------------------------------------------------------------------------------------

extern const dns_timeval dns_tv_infinite;  // an infinite span
extern const dns_timeval dns_tv_zero;

// dns_gettimeofday stores the current moment. It starts at the wall clock and then keeps the pace of a clock that is
// never set, so that a step of the wall clock neither ends every attempt at once nor delays one.
void dns_gettimeofday(dns_timeval *now);

// dns_gettime returns the wall clock's moment, and stores it where `now` is not null.
dns_time dns_gettime(dns_time *now);

// ---- forked children -----------------------------------------------------------------------------------------------

// dns_abandon closes the descriptors, and releases the packet buffers, of a context that a thread of the parent process
// drove when this process was forked. That thread may have been inside any function, so nothing else of the context can
// be used or released. A second call is fine.
void dns_abandon(struct dns_ctx *ctx);

// ---- options, caches, functions ------------------------------------------------------------------------------------

// 0; DNS_E_INVAL for an unknown option, a wrong size or a value out of range; DNS_E_BUSY for a new port of the
// context's servers while queries are open; DNS_E_NOMEM.
dns_status dns_set_opt(struct dns_ctx *ctx, int opt, const void *value, unsigned size);
dns_status dns_get_opt(const struct dns_ctx *ctx, int opt, void *value, unsigned size);

// dns_set_cache installs a cacher (null: none) for the uses in `use` (DNS_CU_ANS, DNS_CU_REF); dns_get_cache returns
// the one installed for the lowest use in `use`. 0; DNS_E_INVAL without a use.
dns_status dns_set_cache(struct dns_ctx *ctx, unsigned use, struct dns_cacher *cacher);
struct dns_cacher *dns_get_cache(const struct dns_ctx *ctx, unsigned use);

// dns_set_dbgev says which events the debug function is called for, any of DNS_DE_CACHE (what the cache holds for a
// query) and DNS_DE_PKT (packets); both at first. Each packet's event costs time even if the function ignores it.
enum { DNS_DE_CACHE = 1, DNS_DE_PKT = 2 };
void dns_set_dbgev(struct dns_ctx *ctx, unsigned events);

using dns_dc_fn = void(struct dns_ctx *ctx, struct dns_query *q, int code, void *data, void *udata);
void dns_set_dcfn(struct dns_ctx *ctx, dns_dc_fn *fn);

// ---- servers -------------------------------------------------------------------------------------------------------

// dns_add_serv_p is dns_add_serv with a port; 0 is that of DNS_OPT_PORT.
int dns_add_serv_p(struct dns_ctx *ctx, const char *address, unsigned port);

// dns_get_serv copies the socket addresses of the IPv4 servers (16 bytes each); `size` is the buffer's bytes in and the
// bytes used, or needed, out. The number of such servers, or DNS_E_NOBUFS. dns_get_serv_ss copies those of all servers;
// `count` is the buffer's entries in and the number of servers out.
int dns_get_serv(const struct dns_ctx *ctx, struct sockaddr *addresses, unsigned *size);
int dns_get_serv_ss(const struct dns_ctx *ctx, struct sockaddr_storage *addresses, unsigned *count);

// dns_add_expserv_s also takes answers from `address`, of either family (port 0: any), for queries sent to other
// servers; null empties the list. The new number of such addresses, or a negative status.
int dns_add_expserv_s(struct dns_ctx *ctx, const struct sockaddr *address);

// dns_set_cost_zone names the zone whose A records give servers their costs (null: none) where the best is chosen, with
// DNS_OPT_BSC_SIZE above 0: for 192.0.2.1 that of 1.2.0.192.ZONE, for an IPv6 address that of its 32 nibbles in
// reverse, where 127.0.h.l adds h * 256 + l milliseconds. 0, or DNS_E_BADQUERY for a text that is no name.
dns_status dns_set_cost_zone(struct dns_ctx *ctx, const char *zone);

// Statistics of one server, of either family, kept since the context's first query to it: round-trip times in
// milliseconds, the moment of the last answer (seconds since 2000-01-01 UTC), packets sent, queries answered, attempts
// that timed out; its window, the queries that wait for room in it or for DNS_OPT_RATE, the attempts that timed out
// because too much was sent. DNS_E_INVAL for a server that the context has not queried.
dns_status dns_get_serv_avgrtt(struct dns_ctx *ctx, const struct sockaddr *server, int *value);
dns_status dns_get_serv_lastrtt(struct dns_ctx *ctx, const struct sockaddr *server, int *value);
dns_status dns_get_serv_last_check(struct dns_ctx *ctx, const struct sockaddr *server, int *value);
dns_status dns_get_serv_nqsent(struct dns_ctx *ctx, const struct sockaddr *server, uint64_t *value);
dns_status dns_get_serv_nused(struct dns_ctx *ctx, const struct sockaddr *server, uint64_t *value);
dns_status dns_get_serv_ntimeout(struct dns_ctx *ctx, const struct sockaddr *server, uint64_t *value);
dns_status dns_get_serv_window(struct dns_ctx *ctx, const struct sockaddr *server, int *value);
dns_status dns_get_serv_nwaiting(struct dns_ctx *ctx, const struct sockaddr *server, int *value);
dns_status dns_get_serv_noverload(struct dns_ctx *ctx, const struct sockaddr *server, uint64_t *value);

// dns_get_ndropped stores how many answers the system has dropped at the context's sockets, so far as it was noticed.
dns_status dns_get_ndropped(struct dns_ctx *ctx, uint64_t *value);

// ---- queries -------------------------------------------------------------------------------------------------------

// dns_query_fn receives a query's outcome: dns_get_status is its status; `result` the parsed block of `size` bytes, or
// null, which stays the engine's and is valid until the function returns. The query is over: its handle is valid during
// the call only. The function may submit and cancel queries; it must not close or destroy the context.
using dns_query_fn = void(struct dns_ctx *ctx, struct dns_query *q, void *result, unsigned size, void *data);

enum { DNS_MAXSERV = 16 };  // servers of one query

// dns_submit_dn_serv queues a query. `servers` are the addresses that it goes to (null: the context's servers), at most
// DNS_MAXSERV; port 0 is that of DNS_OPT_PORT. With a null parser the callback gets no result. Returns the handle, or
// null: the context's status is then DNS_E_INVAL, DNS_E_BADQUERY, DNS_E_NOMEM, or DNS_E_PERM on a context that is not
// open.
struct dns_query *dns_submit_dn_serv(struct dns_ctx *ctx, const unsigned char *dn, dns_class cls, dns_type typ,
                                     unsigned flags, const dns::Address *servers, unsigned nserv, dns_parse_fn *parse,
                                     dns_query_fn *callback, void *data);

// dns_cancel drops a query; its callback never runs.
void dns_cancel(struct dns_ctx *ctx, struct dns_query *q);

void dns_set_status(struct dns_ctx *ctx, dns_status status);
void dns_set_sflags(struct dns_ctx *ctx, unsigned flags);
unsigned dns_get_sflags(const struct dns_ctx *ctx);

void *dns_qudata(const struct dns_query *q);
dns_query_fn *dns_qcbck(const struct dns_query *q);
const unsigned char *dns_qdn(const struct dns_query *q);
dns_type dns_qtyp(const struct dns_query *q);
dns_class dns_qcls(const struct dns_query *q);
dns_parse_fn *dns_qparse(const struct dns_query *q);

// ---- the loop ------------------------------------------------------------------------------------------------------

// dns_timeouts does what is due at `now`: sends, retransmits, gives up, calls back. Returns the span until it is due
// again, at most `longest`; exactly dns_tv_infinite once no query is open.
dns_timeval dns_timeouts(struct dns_ctx *ctx, dns_timeval longest, dns_timeval now);

struct dns_ios {
  int32_t dnsio_sock;
  uint32_t dnsio_events;
};

// dns_sockio fills up to `capacity` records with the sockets and the events they wait for; returns how many there are
// (possibly more than the capacity), or a negative status.
int dns_sockio(struct dns_ctx *ctx, struct dns_ios *sockets, unsigned capacity);

// dns_ioevent reads or writes one socket that is ready, and calls back.
void dns_ioevent(struct dns_ctx *ctx, const struct dns_ios *socket, dns_timeval now);

// dns_active returns the number of open queries.
int dns_active(const struct dns_ctx *ctx);

}  // extern "C"

inline bool operator==(const dns_timeval &a, const dns_timeval &b) {
  return a.dnstv_sec == b.dnstv_sec && a.dnstv_usec == b.dnstv_usec;
}

#endif  // DNS_ENGINE_H
