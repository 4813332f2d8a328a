/*
 * dns_types.h - the vocabulary of the DNS engine: record types, classes, statuses, flags, options, times.
 *
 * Plain C11 and C++17; drawn in by <kavo.h>. Domain names come in two forms. A DN is a name in wire form (RFC 1035,
 * section 3.1): labels, each a length byte of 1 to 63 and that many bytes, closed by a zero byte, at most DNS_MAXDN
 * bytes with it. A text is the same name in presentation form, zero-terminated, with "\." and "\DDD" escapes.
 */
#ifndef KAVO_DNS_TYPES_H
#define KAVO_DNS_TYPES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef KAVO_EXPORT
#define KAVO_EXPORT __attribute__((visibility("default")))
#endif

enum {
  DNS_MAXDN = 255,      /* bytes of the longest DN, its closing zero byte included (RFC 1035, 2.3.4) */
  DNS_MAXLABEL = 63,    /* bytes of the longest label */
  DNS_MAXNAME = 1025,   /* bytes that hold any DN as text: every byte escaped as \DDD, dots and the terminator */
  DNS_HSIZE = 12,       /* bytes of a packet's header (RFC 1035, 4.1.1) */
  DNS_MAXPACKET = 65535 /* bytes of the largest DNS message */
};

/* dns_type is a record type's number, dns_class a class's, dns_status an operation's outcome: 0 or above is success. */
typedef int dns_type;
typedef int dns_class;
typedef int dns_status;

/* The record types that the engine itself knows by name. */
enum {
  DNS_T_INVALID = 0,
  DNS_T_A = 1,
  DNS_T_NS = 2,
  DNS_T_CNAME = 5,
  DNS_T_SOA = 6,
  DNS_T_PTR = 12,
  DNS_T_MX = 15,
  DNS_T_TXT = 16,
  DNS_T_AAAA = 28,
  DNS_T_SRV = 33,
  DNS_T_NAPTR = 35,
  DNS_T_KX = 36,
  DNS_T_A6 = 38,
  DNS_T_DNAME = 39,
  DNS_T_OPT = 41,
  DNS_T_ANY = 255
};

enum { DNS_C_IN = 1, DNS_C_ANY = 255 };

/* Response codes (RFC 1035, 4.1.1). */
enum {
  DNS_R_NOERROR = 0,
  DNS_R_FORMERR = 1,
  DNS_R_SERVFAIL = 2,
  DNS_R_NXDOMAIN = 3,
  DNS_R_NOTIMPL = 4,
  DNS_R_REFUSED = 5
};

enum {
  DNS_E_NOERROR = 0,
  DNS_E_FAIL = -1,     /* failed for a reason that no other status names */
  DNS_E_TEMPFAIL = -2, /* no server answered any attempt */
  DNS_E_PROTOCOL = -3, /* the answer cannot be used: malformed, truncated, or an unexpected referral */
  DNS_E_NXDOMAIN = -4, /* the name does not exist */
  DNS_E_NODATA = -5,   /* the name exists and has no records of the type */
  DNS_E_NOMEM = -6,
  DNS_E_BADQUERY = -7, /* the name of the question is malformed */
  DNS_E_INVAL = -8,    /* an argument is null or out of its range */
  DNS_E_RFILE = -9,    /* a file cannot be read */
  DNS_E_WFILE = -10,   /* a file cannot be written */
  DNS_E_SFILE = -11,   /* a position in a file cannot be sought */
  DNS_E_TFILE = -12,   /* a file is cut off, altered or of another format */
  DNS_E_BUSY = -14,
  DNS_E_PERM = -15,     /* not in this state: the context's transport is not open */
  DNS_E_FORMERR = -16,  /* the server found the question malformed */
  DNS_E_SERVFAIL = -17, /* the server failed */
  DNS_E_NOTIMPL = -18,  /* the server does not implement the question */
  DNS_E_REFUSED = -19,  /* the server refuses to answer, or nothing listens there */
  DNS_E_NOBUFS = -20,   /* the caller's buffer is too small */
  DNS_E_CANCEL = -22,   /* the question was cancelled */
  DNS_E_CNLOOP = -23    /* the CNAME chain loops or is longer than DNS_OPT_MAXALIAS */
};

/* dns_flags: of a question (DNS_RCRS, DNS_DCACHE) and of a context (DNS_OPT_FLAGS). */
enum {
  DNS_COOKIES = 16777216,  /* exchange DNS cookies with servers (RFC 7873; a context's flag) */
  DNS_DCACHE = 67108864,   /* first ask the server for what its cache holds */
  DNS_SERVRRB = 134217728, /* start each question at the next server in turn (a context's flag) */
  DNS_RCRS = 268435456     /* ask the server for recursion: the RD bit */
};

/* dns_opt: options of an engine context (dns_set_opt, dns_get_opt). Values are 4 bytes, DNS_OPT_TIMEOUT's a
 * dns_timeval. */
enum {
  DNS_OPT_FLAGS = 0,
  DNS_OPT_TIMEOUT = 1,  /* the longest timeout of an attempt */
  DNS_OPT_NTRIES = 4,   /* the most attempts of a query */
  DNS_OPT_NDOTS = 5,    /* stored without effect: the engine queries names as they are given */
  DNS_OPT_UDPSIZE = 6,  /* bytes of the largest UDP answer that is asked for */
  DNS_OPT_PORT = 7,     /* the port of servers that are named without one, those of the resolver file too */
  DNS_OPT_MAXLOOP = 8,  /* referrals followed for one question */
  DNS_OPT_MAXALIAS = 9, /* CNAMEs followed for one question */
  DNS_OPT_BSC_SIZE = 11,
  DNS_OPT_BSC_UPDTIME = 12,
  DNS_OPT_BSC_NBEST = 14,
  DNS_OPT_MINTTL = 15, /* seconds below which no answer's TTL falls */
  DNS_OPT_WINDOW = 16, /* the most queries under way to one server by UDP, 1 to 4096 (4096 until it is set) */
  DNS_OPT_RATE = 17    /* the most queries a second to one server by UDP, 0 (until it is set) for no limit */
};

/* dns_cacher_opt and the bits of DNS_CROPT_FLAGS. */
enum {
  DNS_CROPT_FLAGS = 0,
  DNS_CROPT_DEFTTL = 1, /* seconds that a negative answer without a SOA record is kept; 0: it is not kept */
  DNS_CROPT_MINTTL = 2  /* seconds that an answer is kept at least */
};
enum {
  DNS_CR_EXPIRED = 1, /* lookups return expired entries too, for three days (RFC 8767) */
  DNS_CR_NCACHE = 2   /* negative answers are kept (RFC 2308) */
};

/* What a cache is installed for (dns_set_cache); bits. */
enum { DNS_CU_ANS = 1, DNS_CU_REF = 2 };

/* Flags of one cache lookup (dns_cdata_setflags). */
enum { DNS_CD_FORCE_EXPIRED = 4096 };

/* Status flags of a delivery (dns_set_sflags). */
enum { DNS_SF_CACHED = 1 };

/* dns_section: the sections of a packet. */
enum { DNS_S_QD = 0, DNS_S_AN = 1, DNS_S_NS = 2, DNS_S_AR = 3, DNS_S_ALL = 4 };

/* dns_dcode: events that a context's debug function is told. The subsystem is in bits 16 to 23. */
enum {
  DNS_D_SYS = 16711680,      /* the bits of the subsystem: 0 packets, 1 cache use */
  DNS_D_PKT_REQ = 0,         /* a request was sent; the data of every DNS_D_PKT_ event is a dns_dpkt */
  DNS_D_PKT_RPAN = 1,        /* an answer */
  DNS_D_PKT_RPCNAME = 4,     /* a CNAME whose target the answer does not hold */
  DNS_D_PKT_RPNS = 5,        /* a referral */
  DNS_D_PKT_RPINV = 32768,   /* malformed, or not an answer to the query whose id it has */
  DNS_D_PKT_NOREQ = 32769,   /* no open query that it could answer */
  DNS_D_PKT_RFINV = 32770,   /* recursion flags that cannot be accepted */
  DNS_D_PKT_LAME = 32771,    /* a lame referral */
  DNS_D_PKT_TC = 32772,      /* truncated: the TC bit is set */
  DNS_D_PKT_NEDNS0 = 32773,  /* the server does not understand EDNS0 */
  DNS_D_PKT_SERVERR = 32774, /* the server answered with an error */
  DNS_D_PKT_NOQR = 32775,    /* a request where an answer was due */
  DNS_D_PKT_INVSOA = 32776,  /* a negative answer with a SOA record that does not cover the name */
  DNS_D_CU_AN = 65536,       /* the cache holds an entry for the question; the data is a dns_dcache */
  DNS_D_CU_NOAN = 65537      /* the cache holds none; no data */
};

/* Codes of the direct-cache function (dns_set_dcfn). */
enum { DNS_DC_CHFAIL = 1 };

/* Events of an engine socket (dns_ios). */
enum { DNS_IO_IN = 1, DNS_IO_OUT = 2 };

/* dns_timeval: a moment or a span. As a moment it counts from 1970-01-01 00:00:00 UTC and never runs backwards. */
typedef struct dns_timeval {
  int32_t dnstv_sec;
  int32_t dnstv_usec; /* 0 to 999999 */
} dns_timeval;

/* dns_time: a moment in whole seconds since 2000-01-01 00:00:00 UTC, on the system's wall clock. */
typedef int64_t dns_time;

struct dns_ctx;
struct dns_query;
struct dns_cache;
struct dns_cdata;

#ifdef __cplusplus
}
#endif

#endif /* KAVO_DNS_TYPES_H */
