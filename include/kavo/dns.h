/*
 * dns.h - the operations of the DNS engine that a host may call directly.
 *
 * An engine context (struct dns_ctx) is driven by one thread; a kavo context drives its own. A cache (struct dns_cache)
 * may be used by any thread at any time. Nothing here blocks but the lookups dns_resolve_a4 and dns_resolve_p, and
 * dumps, which read and write their file.
 */
#ifndef KAVO_DNS_H
#define KAVO_DNS_H

#include <stddef.h>
#include <stdio.h>
#include <sys/socket.h>

#include <kavo/dns_rr.h>
#include <kavo/dns_types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- memory --------------------------------------------------------------------------------------------------- */

/* dns_free releases a block that the engine handed out to keep, or one from dns_calloc or dns_realloc; null is fine. */
KAVO_EXPORT void dns_free(void *block);

/* ---- contexts ------------------------------------------------------------------------------------------------- */

/* dns_new makes an engine context with the servers and options of the system's resolver file (127.0.0.1 where it names
 * none); with `from`, with those of that context. Returns it, owned by the caller (dns_destroy), or null without
 * memory. */
KAVO_EXPORT struct dns_ctx *dns_new(const struct dns_ctx *from);

/* dns_init prepares the engine (`ctx` null) or a context; with `do_open`, opens its transport too. Returns 0 or a
 * negative status. */
KAVO_EXPORT dns_status dns_init(struct dns_ctx *ctx, int do_open);

/* dns_open opens the context's transport. Returns 0, or a negative status when no socket can be had. */
KAVO_EXPORT dns_status dns_open(struct dns_ctx *ctx);

/* dns_close closes the transport; questions still open are dropped without a callback. The context can be opened again.
 */
KAVO_EXPORT void dns_close(struct dns_ctx *ctx);

/* dns_destroy closes and releases a context; null is fine. Caches installed in it are left alone. */
KAVO_EXPORT void dns_destroy(struct dns_ctx *ctx);

/* dns_dbg_fn is told what a context does. `data` depends on `code` (DNS_D_...) and is valid during the call only. It
 * runs on the thread that drives the context and must not call dns_close or dns_destroy. */
typedef void dns_dbg_fn(struct dns_ctx *ctx, struct dns_query *q, int code, void *data, void *udata);

/* dns_dpkt: what a debug function learns of a packet. */
typedef struct dns_dpkt {
  const unsigned char *dnsd_pkt;     /* the packet */
  unsigned dnsd_plen;                /* its length in bytes */
  const struct sockaddr *dnsd_saloc; /* the local address (UDP: any, and the port), or null */
  const struct sockaddr *dnsd_sarem; /* the remote address, or null */
  int dnsd_proto;                    /* IPPROTO_UDP or IPPROTO_TCP */
  int dnsd_rtt;                      /* milliseconds from request to answer; 0 when unknown */
} dns_dpkt;

/* dns_dcache: the data of DNS_D_CU_AN. */
struct dns_cacher;
typedef struct dns_dcache {
  struct dns_cacher *dnsd_cacher;
  struct dns_cdata *dnsd_cdata; /* the engine's copy of the entry, rewound; the function may walk it */
  dns_status dnsd_status;
} dns_dcache;

KAVO_EXPORT void dns_set_dbgfn(struct dns_ctx *ctx, dns_dbg_fn *fn, void *udata);

/* ---- servers -------------------------------------------------------------------------------------------------- */

/* dns_add_serv appends a server by its address, IPv4 in four decimal octets or IPv6, a link-local one with its
 * interface (fe80::1%eth0), on the port of DNS_OPT_PORT; null empties the list. Returns the new number of servers (0
 * after emptying), or a negative status: DNS_E_INVAL for a text that is no address, DNS_E_NOMEM. An address that the
 * list holds already is appended again. */
KAVO_EXPORT int dns_add_serv(struct dns_ctx *ctx, const char *address);

/* dns_add_serv_s does the same with a socket address, a struct sockaddr_in or sockaddr_in6 (port 0: that of
 * DNS_OPT_PORT). */
KAVO_EXPORT int dns_add_serv_s(struct dns_ctx *ctx, const struct sockaddr *address);

/* ---- synchronous lookups -------------------------------------------------------------------------------------- */

/*
 * dns_resolve_p asks the context's servers (and its cache, where it has one) for the records of `name`, a text, and
 * waits for the answer as long as the context's timeout and number of attempts allow. The calling thread drives the
 * context meanwhile: the context must be open, no other thread may drive it, and it must not be calling back. DNS_RCRS
 * is set whatever `flags` say. Returns the block that `parse` (one of dns_parse_*) makes of the answer, the caller's
 * own, released with dns_free; or null, and dns_get_status says why: DNS_E_NXDOMAIN, DNS_E_NODATA, DNS_E_TEMPFAIL when
 * no server answered, an error of a server or of the answer, DNS_E_BADQUERY for a text that is no name, DNS_E_INVAL,
 * DNS_E_PERM on a context that is not open, DNS_E_NOMEM, DNS_E_CANCEL.
 */
KAVO_EXPORT void *dns_resolve_p(struct dns_ctx *ctx, const char *name, dns_class cls, dns_type typ, unsigned flags,
                                dns_parse_fn *parse);

/* dns_resolve_a4 does the same for IPv4 addresses. */
KAVO_EXPORT dns_rr_a4 *dns_resolve_a4(struct dns_ctx *ctx, const char *name, unsigned flags);

/* dns_get_status returns the status of the context's last operation or question. */
KAVO_EXPORT dns_status dns_get_status(const struct dns_ctx *ctx);

/* ---- caches --------------------------------------------------------------------------------------------------- */

/*
 * A cacher is how the engine reaches a cache: four operations on entries. The built-in cache is one; a host that brings
 * its own puts a dns_cacher at the head of its record. Every operation may be called from any thread.
 *
 * get looks up the key of `entry` (name without regard to letter case, class, type). Above 0: found, and `entry` now
 * holds its records and its remaining TTL (negative once expired). 0: not there, or expired and neither DNS_CR_EXPIRED
 * nor the entry's flag DNS_CD_FORCE_EXPIRED asks for such. Below 0: a status.
 *
 * put stores a copy of `entry` in the place of any older one; it lives for the entry's TTL from `now`. 0 or a status.
 *
 * del removes the key's entry. 0 or above, or a status.
 *
 * getopt and setopt read and set an option (DNS_CROPT_...) of `size` bytes (4). 0 or a status.
 */
struct dns_cacher;
typedef struct dns_cacher_ops {
  int (*get)(struct dns_cacher *cacher, struct dns_cdata *entry, dns_time now);
  int (*put)(struct dns_cacher *cacher, const struct dns_cdata *entry, dns_time now);
  int (*del)(struct dns_cacher *cacher, const struct dns_cdata *entry, dns_time now);
  int (*getopt)(struct dns_cacher *cacher, int opt, void *value, unsigned size);
  int (*setopt)(struct dns_cacher *cacher, int opt, const void *value, unsigned size);
} dns_cacher_ops;
struct dns_cacher {
  const dns_cacher_ops *dnscr_ops;
};

/* dns_cache_init makes a cache of at most `size` bytes, allocated as they are used. When they are used up, entries that
 * were not looked up for long are evicted. Returns it, owned by the caller (dns_cache_destroy), or null without memory.
 */
KAVO_EXPORT struct dns_cache *dns_cache_init(uint64_t size);
KAVO_EXPORT struct dns_cacher *dns_cache_cacher(struct dns_cache *cache);
KAVO_EXPORT void dns_cache_destroy(struct dns_cache *cache);

/* dns_rr: one record on its way in or out of a cache entry or a packet. */
typedef struct dns_rr {
  unsigned char dnsrr_dn[DNS_MAXDN]; /* the owner name */
  dns_class dnsrr_cls;
  dns_type dnsrr_typ;
  int32_t dnsrr_ttl;         /* seconds */
  unsigned dnsrr_dsz;        /* bytes of data; for dns_cdata_nextrr, in: bytes of the caller's buffer */
  unsigned char *dnsrr_dptr; /* the data's first byte */
  unsigned char *dnsrr_dend; /* the byte after its last */
} dns_rr;

/* dns_cdata: a cache entry outside a cache, a key with its records. dns_cdata_init makes an empty one with room for
 * about `size` bytes of records (it grows as needed); null without memory. */
KAVO_EXPORT struct dns_cdata *dns_cdata_init(unsigned size);
KAVO_EXPORT void dns_cdata_free(struct dns_cdata *entry);

/* Setters. They return 0, or DNS_E_INVAL for a null entry or a malformed name. */
KAVO_EXPORT int dns_cdata_setdn(struct dns_cdata *entry, const unsigned char *dn);
KAVO_EXPORT int dns_cdata_setcls(struct dns_cdata *entry, dns_class cls);
KAVO_EXPORT int dns_cdata_settyp(struct dns_cdata *entry, dns_type typ);
KAVO_EXPORT int dns_cdata_setttl(struct dns_cdata *entry, int32_t ttl);
KAVO_EXPORT int dns_cdata_setflags(struct dns_cdata *entry, unsigned flags);
KAVO_EXPORT int dns_cdata_setrcode(struct dns_cdata *entry, int rcode);

/* dns_cdata_dn copies the entry's name into `dn`; `*size` is the buffer's bytes in, the name's out. 0 or DNS_E_NOBUFS.
 */
KAVO_EXPORT int dns_cdata_dn(const struct dns_cdata *entry, unsigned char *dn, unsigned *size);
KAVO_EXPORT dns_class dns_cdata_cls(const struct dns_cdata *entry);
KAVO_EXPORT dns_type dns_cdata_typ(const struct dns_cdata *entry);
KAVO_EXPORT int32_t dns_cdata_ttl(const struct dns_cdata *entry); /* remaining seconds; negative once expired */
KAVO_EXPORT unsigned dns_cdata_flags(const struct dns_cdata *entry);
KAVO_EXPORT int dns_cdata_rcode(const struct dns_cdata *entry);
KAVO_EXPORT unsigned dns_cdata_nrr(const struct dns_cdata *entry); /* records, CNAMEs included */
KAVO_EXPORT unsigned dns_cdata_numan(
    const struct dns_cdata *entry); /* answers: the records, or 1 for a negative answer */
KAVO_EXPORT unsigned dns_cdata_nalias(const struct dns_cdata *entry); /* CNAME records of a question for another type */

/* dns_cdata_addrr appends a record. Names in its data may be compressed against `packet`, in which the data must lie;
 * with a null packet they must not be. 0, DNS_E_PROTOCOL for data that its type does not allow, DNS_E_NOMEM,
 * DNS_E_INVAL. */
struct dns_parse;
KAVO_EXPORT int dns_cdata_addrr(struct dns_cdata *entry, const dns_rr *rr, const struct dns_parse *packet);

/* dns_cdata_nextrr copies the next record into `rr`, its data into the buffer of dnsrr_dsz bytes at dnsrr_dptr. 1 for a
 * record, 0 after the last one, DNS_E_NOBUFS for data longer than the buffer. dns_cdata_rewind starts again. */
KAVO_EXPORT int dns_cdata_nextrr(struct dns_cdata *entry, dns_rr *rr);
KAVO_EXPORT void dns_cdata_rewind(struct dns_cdata *entry);

/* ---- printing --------------------------------------------------------------------------------------------------- */

/* dns_printpkt prints a packet of `size` bytes for people to read: its header, questions and records, laid out as by
 * dig, with bytes escaped that are not printable. 0; DNS_E_PROTOCOL for a packet that is truncated or malformed, which
 * is printed up to the fault; DNS_E_INVAL. */
KAVO_EXPORT int dns_printpkt(FILE *stream, const unsigned char *packet, unsigned size);

/* dns_printrr prints a record in master-file form: above `level` 0 as a line, a TTL below 0 as 0; at 0 its data alone,
 * without a newline. Names in its data must not be compressed, as dns_cdata_nextrr gives them. 0 or DNS_E_INVAL. */
KAVO_EXPORT int dns_printrr(FILE *stream, int level, const dns_rr *rr);

/* ---- cache dumps ------------------------------------------------------------------------------------------------ */

/*
 * A dump keeps the entries of caches in a file, in a format of the engine's own: a magic number and a version, each
 * cache with the caller's user data, network byte order, absolute times, checksums throughout, and an end mark that
 * is written last. A dump context (struct dns_cdump) is used by one thread at a time; the caches may be used by any
 * thread meanwhile. The context has a descriptor of its own for the file: the caller may close its own once init has
 * returned. `now` is what dns_gettime gave; what had expired by then is neither saved nor loaded, unless the cache
 * returns expired entries (DNS_CR_EXPIRED).
 *
 * A file that is cut off, altered or something else is refused with DNS_E_TFILE. One whose writer was killed has no end
 * mark and is refused before anything of it is loaded; of a cache whose section is damaged nothing is loaded. A large
 * file is read with the help of up to three threads, as the processors allow, which end before the call returns.
 */
struct dns_cdump;

/* dns_cdump_save_init begins a dump at the position of `fd`, which is open for writing. Returns the context, released
 * by dns_cdump_save_finish, or null for another descriptor and without memory. */
KAVO_EXPORT struct dns_cdump *dns_cdump_save_init(int fd, dns_time now);

/* dns_cdump_save_cache appends a cache, with `size` bytes (at most 256) of user data. An entry that is in the cache all
 * the while is saved; one that comes or goes meanwhile may be. The order of last use is not kept. 0; DNS_E_WFILE;
 * DNS_E_FAIL. After a failure the dump cannot be completed any more: everything returns the same status. DNS_E_INVAL:
 * nothing has happened. */
KAVO_EXPORT int dns_cdump_save_cache(struct dns_cdump *dump, struct dns_cache *cache, const void *udata, unsigned size);

/* dns_cdump_save_finish completes the file, unless the saving failed, and releases the context in any case. 0, or the
 * status of what failed: the file then is no dump. The file is not synchronized with its disk. */
KAVO_EXPORT int dns_cdump_save_finish(struct dns_cdump *dump);

/* dns_cdump_load_init begins to load the dump from the position of `fd` to the end of its file, which must be a regular
 * one open for reading. Returns the context, released by dns_cdump_load_finish, or null for another descriptor and
 * without memory. */
KAVO_EXPORT struct dns_cdump *dns_cdump_load_init(int fd, dns_time now);

/* dns_cdump_first_cache and dns_cdump_next_cache move to the first cache of the dump or the next one, and read it
 * through. 1: it is there and whole; 0: the dump holds no more; DNS_E_TFILE; DNS_E_RFILE; DNS_E_INVAL, also for a next
 * one before the first or after a failure. */
KAVO_EXPORT int dns_cdump_first_cache(struct dns_cdump *dump);
KAVO_EXPORT int dns_cdump_next_cache(struct dns_cdump *dump);

/* dns_cdump_get_udata copies the current cache's user data into `buffer`. Returns their bytes, which `stored` (null
 * allowed) receives too; DNS_E_NOBUFS when `size` is less, with `stored` set; DNS_E_INVAL without a current cache. */
KAVO_EXPORT int dns_cdump_get_udata(const struct dns_cdump *dump, void *buffer, unsigned size, unsigned *stored);

/* dns_cdump_load_cache puts the current cache's entries into `cache`, each as old as it is. What the cache has that is
 * as new stays. Negative answers are left out where it keeps none, and so are entries too large for it. 0; DNS_E_NODATA
 * when it kept none; DNS_E_NOMEM; DNS_E_RFILE; DNS_E_TFILE when the file was changed since dns_cdump_next_cache, or its
 * entries are none that a cache could hold; DNS_E_FAIL; DNS_E_INVAL. */
KAVO_EXPORT int dns_cdump_load_cache(struct dns_cdump *dump, struct dns_cache *cache);

/* dns_cdump_next_entry makes `entry` hold the next entry of the current cache: its key, response code and records, and
 * what was left of its TTLs at the context's `now`, below 0 for one that had expired by then. It returns all entries of
 * the file, in no order. The walk begins with dns_cdump_first_cache or dns_cdump_next_cache, and again with
 * dns_cdump_load_cache. 1; 0 after the last entry; DNS_E_NOMEM; DNS_E_RFILE; DNS_E_TFILE as dns_cdump_load_cache;
 * DNS_E_INVAL without a current cache. After a failure the walk stays where it is. */
KAVO_EXPORT int dns_cdump_next_entry(struct dns_cdump *dump, struct dns_cdata *entry);

/* dns_cdump_load_finish releases the context. 0, or DNS_E_INVAL. */
KAVO_EXPORT int dns_cdump_load_finish(struct dns_cdump *dump);

#ifdef __cplusplus
}
#endif

#endif /* KAVO_DNS_H */
