/*
 * dns_rr.h - record blocks: what the answers to a question look like in memory.
 *
 * A block is one allocation that holds a record structure, the array of its entries, the texts that the entries point
 * to, and the canonical and the query name; every pointer in it points into the same block. A block is therefore never
 * copied with memcpy: kavo_rr_cpy and kavo_rr_dup rebuild the pointers. Every layout begins with the two fields of
 * dns_rr_mem, and every layout but the packet's with the six fields of dns_rr_null.
 */
#ifndef KAVO_DNS_RR_H
#define KAVO_DNS_RR_H

#include <netinet/in.h>
#include <stdint.h>

#include <kavo/dns_types.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct dns_rr_mem {
  uint32_t dnsm_size;    /* bytes allocated for the block */
  uint32_t dnsm_written; /* bytes of the block in use, from its first byte; 0 in a fresh block */
} dns_rr_mem;

/* DNS_RR_HEAD: the six fields common to the layouts below, under each one's prefix. */
#define DNS_RR_HEAD(prefix)                                                                               \
  uint32_t prefix##_size;    /* as dnsm_size */                                                           \
  uint32_t prefix##_written; /* as dnsm_written */                                                        \
  char *prefix##_cname;      /* the answer's canonical name: where the CNAME chain ends */                \
  char *prefix##_qname;      /* the name that was asked; may be the same pointer as the canonical name */ \
  int32_t prefix##_ttl;      /* seconds; the least of the records' and the chain's */                     \
  int32_t prefix##_nrr       /* number of entries */

typedef struct dns_rr_null {
  DNS_RR_HEAD(dnsn);
} dns_rr_null;

typedef struct dns_rr_a4 {
  DNS_RR_HEAD(dnsa4);
  struct in_addr *dnsa4_addr;
} dns_rr_a4;

typedef struct dns_rr_a6 {
  DNS_RR_HEAD(dnsa6);
  struct in6_addr *dnsa6_addr;
} dns_rr_a6;

/* dns_txt: one TXT record, its character-strings joined. A block of dns_parse_txt has a zero byte after each text, not
 * counted in len; a block of dns_parse_etxt has none. Either may hold any bytes. */
typedef struct dns_txt {
  int32_t len;
  char *txt;
} dns_txt;

typedef struct dns_rr_txt {
  DNS_RR_HEAD(dnstxt);
  dns_txt *dnstxt_txt;
} dns_rr_txt;

typedef struct dns_mx {
  int32_t priority;
  char *name;
} dns_mx;

typedef struct dns_rr_mx {
  DNS_RR_HEAD(dnsmx);
  dns_mx *dnsmx_mx;
} dns_rr_mx;

typedef struct dns_rr_ptr {
  DNS_RR_HEAD(dnsptr);
  char **dnsptr_ptr;
} dns_rr_ptr;

typedef struct dns_rr_cname {
  DNS_RR_HEAD(dnscname);
  char **dnscname_cnames;
} dns_rr_cname;

typedef struct dns_rr_ns {
  DNS_RR_HEAD(dnsns);
  char **dnsns_ns;
} dns_rr_ns;

typedef struct dns_srv {
  int32_t priority;
  int32_t weight;
  int32_t port;
  char *name;
} dns_srv;

typedef struct dns_rr_srv {
  DNS_RR_HEAD(dnssrv);
  dns_srv *dnssrv_srv;
} dns_rr_srv;

/* dns_rr_pkt: a raw packet, its bytes in the block itself. dnspkt_written counts the head and the packet. */
#if defined(__clang__) && defined(__cplusplus)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wc99-extensions" /* the packet's bytes, which C++ has no name for */
#endif
typedef struct dns_rr_pkt {
  uint32_t dnspkt_size;
  uint32_t dnspkt_written;
  uint32_t dnspkt_psize; /* bytes of the packet */
  __extension__ unsigned char dnspkt_pkt[];
} dns_rr_pkt;
#if defined(__clang__) && defined(__cplusplus)
#pragma clang diagnostic pop
#endif

/*
 * A record parser turns an answer packet into a block.
 *
 *   ctx, q   the engine context and the question, or null where a host parses a packet of its own
 *   qdn      the name that was asked
 *   pkt, end the packet's first byte and the one after its last
 *   cur      the position after the question section
 *   result   out: the block. With `size` 0 the block is in memory of `ctx`, valid until the next parse or until the
 *            callback that was given it returns. With `size` above 0, *result points at a buffer of that many bytes,
 *            and the block is laid out there.
 *
 * Records outside the CNAME chain of `qdn` are ignored. An answer without records of the type gives a block with
 * both names and no entries. Returns the block's size in bytes, or a negative status: DNS_E_PROTOCOL for a packet that
 * is malformed, DNS_E_CNLOOP for a chain that loops, DNS_E_NOBUFS where the block does not fit `size`, DNS_E_NOMEM,
 * DNS_E_INVAL. Never reads outside [pkt, end). May be called from any thread; with a `ctx`, from its thread only.
 */
typedef int dns_parse_fn(struct dns_ctx *ctx, struct dns_query *q, const unsigned char *qdn, const unsigned char *pkt,
                         const unsigned char *cur, const unsigned char *end, void **result, unsigned size);

KAVO_EXPORT dns_parse_fn dns_parse_a4;
KAVO_EXPORT dns_parse_fn dns_parse_a6;
KAVO_EXPORT dns_parse_fn dns_parse_txt;
KAVO_EXPORT dns_parse_fn dns_parse_etxt;
KAVO_EXPORT dns_parse_fn dns_parse_mx;
KAVO_EXPORT dns_parse_fn dns_parse_ptr;
KAVO_EXPORT dns_parse_fn dns_parse_cname;
KAVO_EXPORT dns_parse_fn dns_parse_ns;
KAVO_EXPORT dns_parse_fn dns_parse_srv;
KAVO_EXPORT dns_parse_fn dns_parse_pkt;

#ifdef __cplusplus
}
#endif

#endif /* KAVO_DNS_RR_H */
