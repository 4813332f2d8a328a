/*
 * kavo.h - the public interface of kavo, which asks DNS-based lists and ordinary DNS many questions at once.
 *
 * A host creates a context and configures it before opening it. Any number of threads then ask questions. At the end
 * the host closes the context and frees it:
 *
 *     KAVO kavo;
 *     KAVO_QUERY_NODE node;
 *     struct timeval deadline;
 *     kavo_init(&kavo, 1000, 1 << 20, 0);
 *     kavo_add_zone(kavo, KAVOT_BL_IP, "list.example");
 *     kavo_open(kavo);
 *     kavo_get_deadline(2000, &deadline);
 *     kavo_subscribe_node_p(kavo, KAVOT_BL_IP, "192.0.2.1", KAVOQF_RECURSIVE, &deadline, &node);
 *     kavo_wait_node(kavo, node, KAVOWT_FULL, &deadline);
 *     ... read the answers with an iterator, or copy them ...
 *     kavo_unsubscribe_node(kavo, node);
 *     kavo_close(kavo);
 *     kavo_free(kavo);
 *
 * kavo_query does everything between open and close in one call.
 *
 * Conventions, which hold wherever a function does not say otherwise:
 *
 * Results. A function returns a KAVO_ERR, 0 (KAVOE_OK) for success, unless it returns a name, a count, a handle or
 * nothing. A null context or a null required argument gives KAVOE_BADPAR, or null or 0 where no code can be returned.
 * What is handed out through a parameter is defined after success only.
 *
 * Ownership. The context owns everything it creates. A node handle is valid from subscribing to unsubscribing; answers
 * read in place are valid for the same time. Copies of answers and their record blocks belong to the caller, who
 * releases blocks with kavo_rr_free and arrays of answers with free. A text that a function returns is a constant, or
 * belongs to the context and is valid until the context is freed. Arguments are read during the call only.
 *
 * Threads. Each open context runs one server thread, which alone talks to DNS. Subscribing, waiting, reading and
 * unsubscribing may be done from any thread at any time; an iterator belongs to one thread at a time. Configuration
 * (options, zones, servers, caches, callbacks) is made by one thread while the context is at rest; from the beginning
 * of kavo_open until kavo_close has returned it is refused with KAVOE_SRV. kavo_open, kavo_close and kavo_free of one
 * context must not overlap, and no thread may use a context that is being freed. Two contexts have nothing in common.
 *
 * Cancellation. No call of the library is a cancellation point (pthread_cancel), even where it calls a function of the
 * host's that has one: a thread that is cancelled during a call ends after it. The exceptions are dns_printpkt,
 * dns_printrr, and kavo_cache_... on a cacher of the host's own. Asynchronous cancellability must be off.
 *
 * Processes. A context that is open when the process forks stays the parent's and works on there. In the child every
 * call on the context fails at once (KAVOE_SRV; null, 0 or KAVOT_INVALID where no code is returned), but for kavo_close
 * and kavo_free. These two close the context's descriptors in the child, without effect on the parent, and release the
 * memory that the parent's threads cannot have been changing. The rest stays until the child ends, and can be reached,
 * so that no memory checker takes it for lost. A cache that was in use in the parent must not be touched in the child.
 * A context that was at rest, without a call on it, is the child's own too: parent and child can each configure, open
 * and free it. Workers that were forked with one context draw random numbers of their own.
 *
 * Descriptors. The library never takes a descriptor of the standard streams (0 to 2), even where the host has closed
 * it. All descriptors of the library are closed on exec.
 *
 * Callbacks. The server-state function and the functions of a node-list iterator run with a lock held and must not call
 * the library. Any thread may call the log function, several at a time, with locks held; the log function must not call
 * the library either.
 *
 * Null. A null deadline means no deadline. A null array of servers means the context's servers.
 *
 * Time. A deadline is a moment of the system's wall clock (seconds and microseconds since 1970-01-01 UTC), made by
 * kavo_get_deadline from milliseconds. Timeouts and measured times are milliseconds, times to live seconds.
 *
 * Names. A DN is a domain name in wire form: labels, each a length byte of 1 to 63 and that many bytes, closed by a
 * zero byte, at most 255 bytes with it. A DN handed in must be well formed.
 */
#ifndef KAVO_H
#define KAVO_H

#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <kavo/dns.h>
#include <kavo/dns_rr.h>
#include <kavo/dns_types.h>

/* In C++ the enumerations have a fixed type, so that a value outside the list is a value like any other. */
#ifdef __cplusplus
#define KAVO_ENUM_UNSIGNED : unsigned int
#define KAVO_ENUM_SIGNED : int
extern "C" {
#else
#define KAVO_ENUM_UNSIGNED
#define KAVO_ENUM_SIGNED
#endif

/* ---- constants -------------------------------------------------------------------------------------------------- */

/* KAVO_ERR: the outcome of an operation. kavo_strerror gives each code's text. */
typedef enum KAVO_ERR KAVO_ENUM_UNSIGNED {
  KAVOE_OK = 0,
  KAVOE_FAIL = 1,     /* failed for a reason that no other code names */
  KAVOE_NOMEM = 2,    /* no memory, or a buffer or a limit is too small */
  KAVOE_FILE = 3,     /* a file cannot be read or written, or is malformed */
  KAVOE_THR = 4,      /* a thread, lock or semaphore failed */
  KAVOE_DNS = 5,      /* the DNS engine or a server failed, or nothing listens at any server */
  KAVOE_BADPAR = 6,   /* an argument is null, malformed or out of its range; in an answer: no name to ask */
  KAVOE_TIMEOUT = 7,  /* the deadline passed, or no server answered in time */
  KAVOE_SRV = 8,      /* the context is in the wrong state: not running, or running where it must not be */
  KAVOE_NXDOM = 9,    /* the name does not exist; for a list question: not listed */
  KAVOE_NOZONES = 10, /* no zones are configured for the type */
  KAVOE_NODATA = 11,  /* the name has no records of the type, or no answer has arrived yet */
  KAVOE_NOPARSER = 12 /* answers of the type can be had as raw packets only */
} KAVO_ERR;

/*
 * KAVO_TYPE: the type of a question, and of a record block. DNS types keep their DNS numbers; any number from
 * KAVOT_DNS_MIN to KAVOT_DNS_MAX may be asked. The list types are asked once in every zone that is configured for them.
 */
typedef enum KAVO_TYPE KAVO_ENUM_UNSIGNED {
  KAVOT_INVALID = 0,

  KAVOT_DNS_MIN = 1,
  /* clang-format off */
  KAVOT_DNS_A = 1, KAVOT_DNS_NS = 2, KAVOT_DNS_MD = 3, KAVOT_DNS_MF = 4, KAVOT_DNS_CNAME = 5, KAVOT_DNS_SOA = 6,
  KAVOT_DNS_MB = 7, KAVOT_DNS_MG = 8, KAVOT_DNS_MR = 9, KAVOT_DNS_NULL = 10, KAVOT_DNS_WKS = 11, KAVOT_DNS_PTR = 12,
  KAVOT_DNS_HINFO = 13, KAVOT_DNS_MINFO = 14, KAVOT_DNS_MX = 15, KAVOT_DNS_TXT = 16, KAVOT_DNS_RP = 17,
  KAVOT_DNS_AFSDB = 18, KAVOT_DNS_X25 = 19, KAVOT_DNS_ISDN = 20, KAVOT_DNS_RT = 21, KAVOT_DNS_NSAP = 22,
  KAVOT_DNS_NSAP_PTR = 23, KAVOT_DNS_SIG = 24, KAVOT_DNS_KEY = 25, KAVOT_DNS_PX = 26, KAVOT_DNS_GPOS = 27,
  KAVOT_DNS_AAAA = 28, KAVOT_DNS_LOC = 29, KAVOT_DNS_NXT = 30, KAVOT_DNS_EID = 31, KAVOT_DNS_NIMLOC = 32,
  KAVOT_DNS_SRV = 33, KAVOT_DNS_ATMA = 34, KAVOT_DNS_NAPTR = 35, KAVOT_DNS_KX = 36, KAVOT_DNS_CERT = 37,
  KAVOT_DNS_A6 = 38, KAVOT_DNS_DNAME = 39, KAVOT_DNS_SINK = 40, KAVOT_DNS_OPT = 41, KAVOT_DNS_APL = 42,
  KAVOT_DNS_DS = 43, KAVOT_DNS_SSHFP = 44, KAVOT_DNS_IPSECKEY = 45, KAVOT_DNS_RRSIG = 46, KAVOT_DNS_NSEC = 47,
  KAVOT_DNS_DNSKEY = 48, KAVOT_DNS_DHCID = 49, KAVOT_DNS_NSEC3 = 50, KAVOT_DNS_NSEC3PARAM = 51, KAVOT_DNS_HIP = 55,
  KAVOT_DNS_NINFO = 56, KAVOT_DNS_RKEY = 57, KAVOT_DNS_TALINK = 58, KAVOT_DNS_SPF = 99, KAVOT_DNS_UINFO = 100,
  KAVOT_DNS_UID = 101, KAVOT_DNS_GID = 102, KAVOT_DNS_UNSPEC = 103, KAVOT_DNS_TKEY = 249, KAVOT_DNS_TSIG = 250,
  KAVOT_DNS_IXFR = 251, KAVOT_DNS_AXFR = 252, KAVOT_DNS_MAILB = 253, KAVOT_DNS_MAILA = 254, KAVOT_DNS_ANY = 255,
  KAVOT_DNS_URI = 256, KAVOT_DNS_TA = 32768, KAVOT_DNS_DLV = 32769,
  /* clang-format on */
  KAVOT_DNS_MAX = 65536,

  KAVOT_BL_MIN = 65537,
  KAVOT_BL_IP = 65537,      /* is an IPv4 address listed: A records */
  KAVOT_BL_DOM = 65538,     /* is a domain listed: A records */
  KAVOT_BL_IP_TXT = 65539,  /* why an IPv4 address is listed: TXT records */
  KAVOT_BL_DOM_TXT = 65540, /* why a domain is listed: TXT records */
  KAVOT_BL_A6 = 65541,      /* AAAA records of a name in the list's zone; the others alike */
  KAVOT_BL_MX = 65542,
  KAVOT_BL_SRV = 65543,
  KAVOT_BL_CNAME = 65544,
  KAVOT_BL_NS = 65545,
  KAVOT_BL_MAX = 65545,

  KAVOT_SP_MIN = 131073,
  KAVOT_DNS_ETXT = 131073, /* TXT records whose texts may hold any bytes and are not terminated */
  KAVOT_SYNC = 131074,     /* a sync node */
  KAVOT_PKT = 131075,      /* a raw packet; the type of the answers to questions with KAVOQF_PKT */
  KAVOT_SP_MAX = 131075,

  KAVOQT_INVALID = 0,
  KAVOQT_BL_IP = 65537,
  KAVOQT_BL_DOM = 65538,
  KAVOQT_BL_IP_TXT = 65539,
  KAVOQT_BL_DOM_TXT = 65540,
  KAVOQT_BL_A6 = 65541,
  KAVOQT_BL_MX = 65542,
  KAVOQT_BL_SRV = 65543,
  KAVOQT_BL_CNAME = 65544,
  KAVOQT_BL_NS = 65545,
  KAVOQT_DNS_A = 1,
  KAVOQT_DNS_NS = 2,
  KAVOQT_DNS_CNAME = 5,
  KAVOQT_DNS_PTR = 12,
  KAVOQT_DNS_MX = 15,
  KAVOQT_DNS_TXT = 16,
  KAVOQT_DNS_A6 = 28, /* IPv6 addresses: AAAA */
  KAVOQT_DNS_SRV = 33,
  KAVOQT_DNS_ETXT = 131073,
  KAVOQT_SYNC = 131074
} KAVO_TYPE;
typedef KAVO_TYPE KAVO_QUERY_TYPE;

/* KAVO_SRV_STATE: the states of a context's server thread. */
typedef enum KAVO_SRV_STATE KAVO_ENUM_UNSIGNED {
  KAVOSS_STOPPED = 1,
  KAVOSS_STARTING = 2,
  KAVOSS_RUNNING = 3, /* the only state in which questions can be asked */
  KAVOSS_STOPPING = 4,
  KAVOSS_ERROR = 5 /* the thread failed; the context can be configured, opened again or freed */
} KAVO_SRV_STATE;

/* KAVO_OPT: options of a context (kavo_set_opt), with their ranges. */
typedef enum KAVO_OPT KAVO_ENUM_UNSIGNED {
  KAVOOPT_NXDOM_TTL = 0,         /* seconds for which a negative answer without a TTL is cached; 0 to 2147483647 */
  KAVOOPT_MIN_CACHE_DELAY = 1,   /* kept for the host; 0 to 65535 */
  KAVOOPT_DNS_PORT = 2,          /* the port of the system's servers and of those named without one; 1 to 65535 */
  KAVOOPT_CLOSE_FAST = 3,        /* 1: kavo_close fails the questions in flight at once; 0: it waits for them */
  KAVOOPT_MAX_LOOP = 4,          /* referrals followed for one question; 1 to 65536 */
  KAVOOPT_MAX_ALIAS = 5,         /* CNAMEs followed for one question; 1 to 65536 */
  KAVOOPT_MAX_PACKET = 6,        /* bytes of the largest UDP answer that is asked for; 512 to 4096 */
  KAVOOPT_TIMEOUT = 7,           /* seconds of the longest timeout of one attempt; 1 to 300 */
  KAVOOPT_NTRIES = 8,            /* attempts of one query; 1 to 50 */
  KAVOOPT_NDOTS = 9,             /* kept only: names are asked as given; 0 to 1000 */
  KAVOOPT_DNSREC_CACHESIZE = 10, /* bytes of a referral cache of its own; 0 changes nothing */
  KAVOOPT_BSC_SIZE = 11,         /* servers whose statistics are kept for the choice of the best; 0 (off) to 262144 */
  KAVOOPT_BSC_UPDTIME = 12,      /* seconds between refreshes of that choice; 0 to 86400 */
  KAVOOPT_BSC_NBEST = 13,        /* servers that the choice is made from; 1 to 128 */
  KAVOOPT_SERV_RRB = 14,         /* 1: start each query at the next server in turn; 0: in list order */
  KAVOOPT_MIN_TTL = 15,          /* seconds below which no answer's TTL falls; 0 to 2147483647 */
  KAVOOPT_CH_REXPRD = 16,        /* 1: an expired cache entry is delivered as an early answer; 0: not */
  KAVOOPT_TIMEOUT_MSEC = 17,     /* KAVOOPT_TIMEOUT in milliseconds; 1 to 300000 */
  KAVOOPT_WINDOW = 18,           /* the most queries under way to one server by UDP; 1 to 4096 (4096 until it is set) */
  KAVOOPT_RATE = 19              /* the most queries a second to one server by UDP, retransmissions included;
                                    0 (until it is set: no limit) to 1000000. By TCP there is no limit */
} KAVO_OPT;

/* KAVO_WAIT_LEVEL: how far a node must have come for a wait to end. A failed node ends every wait. */
typedef enum KAVO_WAIT_LEVEL KAVO_ENUM_SIGNED {
  KAVOWT_NONE = -2,  /* its queries are with the DNS engine */
  KAVOWT_CACHE = -1, /* the cache has been looked at and holds no answer */
  KAVOWT_DCACHE = 0, /* the check of the direct cache has failed */
  KAVOWT_FIRST = 1,  /* an answer has arrived */
  KAVOWT_FULL = 2    /* every answer has arrived */
} KAVO_WAIT_LEVEL;

/* KAVO_CACHE_CODE: the cache's part in an answer. */
typedef enum KAVO_CACHE_CODE KAVO_ENUM_UNSIGNED {
  KAVOCC_UNKNOWN = 0,
  KAVOCC_EXISTS = 1,  /* answered from a live cache entry */
  KAVOCC_OLD = 2,     /* an early answer from an expired entry; the real one follows */
  KAVOCC_NEXISTS = 3, /* answered by a server */
  KAVOCC_ERROR = 4
} KAVO_CACHE_CODE;

/* KAVO_CACHE_TYPE: what a cache is used for; bits. */
typedef enum KAVO_CACHE_TYPE KAVO_ENUM_UNSIGNED {
  KAVOCT_ANS = 1, /* answers */
  KAVOCT_REF = 2, /* referrals */
  KAVOCT_FULL = 3
} KAVO_CACHE_TYPE;

/* Flags of a question. Of a caller's flags the low 16 bits are used. */
enum {
  KAVOQF_RECURSIVE = 1, /* ask the servers for recursion; ignored where a question has servers of its own */
  KAVOQF_PKT = 2        /* answers are raw packets (KAVOT_PKT) instead of parsed records */
};

enum {
  KAVO_MAX_SERV = 16 /* servers of one question */
};

/* ---- records ---------------------------------------------------------------------------------------------------- */

typedef struct kavo_t *KAVO;
typedef struct kavo_query_node_t *KAVO_QUERY_NODE;
typedef struct kavo_answer_iterator_t *KAVO_ANSWER_ITERATOR;
typedef struct dns_cacher *KAVO_CACHE;
typedef struct kavo_zonesmap kavo_zonesmap; /* the zones of a context; what it holds is the library's */

/* KAVO_RR: a pointer to one record block, under the layout of its type. */
typedef union KAVO_RR {
  dns_rr_mem *rr_mem;
  dns_rr_null *rr_null;
  dns_rr_a4 *rr_a;
  dns_rr_a6 *rr_a6;
  dns_rr_txt *rr_txt;
  dns_rr_mx *rr_mx;
  dns_rr_ptr *rr_ptr;
  dns_rr_cname *rr_cname;
  dns_rr_srv *rr_srv;
  dns_rr_ns *rr_ns;
  dns_rr_pkt *rr_pkt;
} KAVO_RR;

/* KAVO_ANSWER: one answer of one zone. Records are there when err_code is KAVOE_OK and actual_size is not 0. */
typedef struct KAVO_ANSWER {
  KAVO_TYPE type;    /* the question's type, or KAVOT_PKT */
  KAVO_ERR err_code; /* this zone's outcome; KAVOE_FAIL while it has none */
  KAVO_CACHE_CODE cache_code;
  uint32_t actual_size; /* bytes of the record block in use; 0 without records */
  int32_t zone;         /* the zone's number (kavo_zonesmap_zone); 0 for questions without zones */
  KAVO_RR rr;
  uint32_t query_time; /* milliseconds from asking to the answer */
} KAVO_ANSWER;

/* KAVO_NODELIST_ITERATOR: how kavo_wait_nodelist walks over a list of the host's. Each function is given `ctx`. */
typedef struct KAVO_NODELIST_ITERATOR {
  void *ctx;
  unsigned int (*count)(void *ctx);    /* the number of nodes */
  void (*rewind)(void *ctx);           /* go to the first node */
  int (*advance)(void *ctx);           /* go to the next node; 0 when there is none */
  KAVO_QUERY_NODE (*value)(void *ctx); /* the node at this place; null ends the list */
} KAVO_NODELIST_ITERATOR;

/* kavo_srvstate_chg_fn is told of every change of the server's state before it is made, with the state's lock held. */
typedef void kavo_srvstate_chg_fn(KAVO kavo, KAVO_SRV_STATE old_state, KAVO_SRV_STATE new_state, void *uctx);

/* ---- logging ---------------------------------------------------------------------------------------------------- */

enum {
  KAVO_LOG_CRIT = 1,    /* an assertion failed: a fault of this library or misuse of its handles */
  KAVO_LOG_ERR = 2,     /* an allocation, a lock, a file or the DNS engine failed */
  KAVO_LOG_WARNING = 3, /* an operation was refused, or was given a useless value */
  KAVO_LOG_INFO = 4,    /* a caller's error as met in normal use; statistics */
  KAVO_LOG_DEBUG = 5
};

/* kavo_log_fn receives one line without its newline; `line` is valid during the call only. */
typedef void kavo_log_fn(int level, const char *line, void *uctx);

/* kavo_set_log_cb sends every line of the whole process to `fn` from now on, with `uctx` as its last argument. Null
 * restores the default: KAVO_LOG_WARNING and graver go to standard error, the rest is dropped. Any thread may call it;
 * a line that another thread is writing meanwhile may still go the old way. Each new pair of function and argument
 * takes a few bytes for good. */
KAVO_EXPORT void kavo_set_log_cb(kavo_log_fn *fn, void *uctx);

/* ---- context ---------------------------------------------------------------------------------------------------- */

/*
 * kavo_init_ext creates a context.
 *
 *   kavo        out: the context, the caller's until kavo_free; null after a failure past the check of the arguments
 *   table_size  the number of questions that can be held at once, at least 1
 *   cache_size  bytes of the answer cache; 0 or less: no cache
 *   max_zones   the number of zones that one type may have, at least 1
 *   do_open     not 0: open it at once. The context then exists even when opening fails.
 *
 * Servers are those of the system's resolver file. Returns KAVOE_OK; KAVOE_BADPAR; KAVOE_NOMEM; KAVOE_THR; KAVOE_DNS;
 * KAVOE_FAIL without descriptors for the event pipe; with `do_open` the result of kavo_open.
 */
KAVO_EXPORT KAVO_ERR kavo_init_ext(KAVO *kavo, int table_size, int cache_size, int max_zones, int do_open);

/* kavo_init is kavo_init_ext with 8 zones for each type. */
KAVO_EXPORT KAVO_ERR kavo_init(KAVO *kavo, int table_size, int cache_size, int do_open);

/* kavo_open opens the transport and starts the server thread; returns when the thread runs. A running context stays as
 * it is (KAVOE_OK, a warning). A context whose thread failed is cleaned up first: its questions in flight fail.
 * KAVOE_NOMEM; KAVOE_DNS without sockets; KAVOE_THR without a thread (the context is stopped); KAVOE_FAIL without
 * descriptors of a forked child's own; KAVOE_SRV. */
KAVO_EXPORT KAVO_ERR kavo_open(KAVO kavo);

/* kavo_close stops the server thread and returns when the thread has ended: after every question in flight has its
 * outcome, or at once with KAVOOPT_CLOSE_FAST. Questions without an outcome fail; nodes stay the callers' until they
 * unsubscribe. A stopped context is fine. KAVOE_SRV for a context whose thread failed (it is cleaned up); KAVOE_FAIL
 * when the thread cannot be told. */
KAVO_EXPORT KAVO_ERR kavo_close(KAVO kavo);

/* kavo_free releases a context and everything it owns: nodes, iterators' answers and texts are gone. KAVOE_SRV, with
 * the context left whole, while it runs and while another thread opens or closes it. */
KAVO_EXPORT KAVO_ERR kavo_free(KAVO kavo);

/* kavo_set_srvstate_chg_cb installs the server-state function (null: none) with its last argument. It runs on the
 * thread that opens or closes and on the server thread. 0; KAVOE_BADPAR; KAVOE_SRV while running; KAVOE_THR. */
KAVO_EXPORT int kavo_set_srvstate_chg_cb(KAVO kavo, kavo_srvstate_chg_fn *fn, void *uctx);

/* kavo_srv_is_running returns 1 while the state is KAVOSS_RUNNING, else 0; 0 for null. Any thread. */
KAVO_EXPORT int kavo_srv_is_running(KAVO kavo);

/* kavo_add_args makes room for the answers of `count` more queries (at least 1) ahead of need. Without memory nothing
 * happens. Any thread. */
KAVO_EXPORT void kavo_add_args(KAVO kavo, int count);

/* kavo_free_args releases that room again. Nothing happens on a context that is not at rest or while a node is held. */
KAVO_EXPORT void kavo_free_args(KAVO kavo);

/* ---- options ---------------------------------------------------------------------------------------------------- */

/* kavo_set_opt sets an option to a value of its range (KAVO_OPT). KAVOE_BADPAR for an unknown option or a value out of
 * range; KAVOE_SRV while running; KAVOE_DNS when the engine or the cache refuses: the option is then unchanged. */
KAVO_EXPORT KAVO_ERR kavo_set_opt(KAVO kavo, KAVO_OPT opt, uint32_t value);

/* kavo_opt_name returns an option's name, such as "negative_ttl", or null for an unknown one. Any thread. */
KAVO_EXPORT const char *kavo_opt_name(KAVO_OPT opt);

/* ---- information ------------------------------------------------------------------------------------------------ */

/* kavo_strerror returns a code's text, or null for a value that is no code. Any thread. */
KAVO_EXPORT const char *kavo_strerror(KAVO_ERR errnum);

/* kavo_typename returns a type's name, such as "DNS_MX" or "BL_IP", or null for a type without one. Any thread. */
KAVO_EXPORT const char *kavo_typename(KAVO_TYPE type);

/* kavo_name2type returns the type with a name, letter case ignored, or KAVOT_INVALID. Any thread. */
KAVO_EXPORT KAVO_TYPE kavo_name2type(const char *name);

/* kavo_isparseable returns 1 for a type whose answers can be had as records, 0 for any other. Any thread. */
KAVO_EXPORT int kavo_isparseable(KAVO_TYPE type);

/* kavo_version returns the version, a byte each for its four numbers, the first in the highest. kavo_rev returns the
 * revision. Any thread. */
KAVO_EXPORT uint32_t kavo_version(void);
KAVO_EXPORT uint32_t kavo_rev(void);

/* kavo_nactive returns the number of nodes in use, sync nodes included; any thread. A null context gives 6 and a lock
 * that fails its code, which cannot be told from a count. */
KAVO_EXPORT uint32_t kavo_nactive(KAVO kavo);

/* kavo_set_ext_cache installs a cache of the host's for the uses in `use`; null: none. A cache of the context's own
 * that has no use left is destroyed; a cache of its own that the host hands back stays the context's. The host's cache
 * stays the host's and must outlive the context or be taken out of it first. KAVOE_SRV while running; KAVOE_DNS when
 * the engine refuses. */
KAVO_EXPORT KAVO_ERR kavo_set_ext_cache(KAVO kavo, KAVO_CACHE_TYPE use, KAVO_CACHE cacher);

/* kavo_get_ext_cache returns the cache installed for a use, the context's own included, or null. The cache stays its
 * owner's. */
KAVO_EXPORT KAVO_CACHE kavo_get_ext_cache(KAVO kavo, KAVO_CACHE_TYPE use);

/* kavo_set_cost_zone names the zone that gives servers their costs where the best is chosen (KAVOOPT_BSC_SIZE above 0);
 * null: none. The A record 127.0.h.l of 1.2.0.192.ZONE adds h * 256 + l milliseconds to the cost of 192.0.2.1; an
 * IPv6 server's record has the 32 nibbles of its address in reverse. 0;
 * KAVOE_BADPAR; KAVOE_SRV while running; KAVOE_DNS for no name. */
KAVO_EXPORT int kavo_set_cost_zone(KAVO kavo, const char *zone);

/* kavo_add_expserv accepts answers from `addr` to queries that were sent elsewhere; null forgets all such addresses. 0;
 * KAVOE_BADPAR; KAVOE_SRV while running; KAVOE_DNS. */
KAVO_EXPORT int kavo_add_expserv(KAVO kavo, const struct in_addr *addr);

/* kavo_add_expserv_s does so for a struct sockaddr_in or sockaddr_in6; port 0: any. */
KAVO_EXPORT KAVO_ERR kavo_add_expserv_s(KAVO kavo, const struct sockaddr *addr);

/* ---- subscribing ------------------------------------------------------------------------------------------------ */

/*
 * A subscription asks a question and hands out its node with one hold, which kavo_unsubscribe_node drops. Callers that
 * ask the same question (type, name up to letter case, servers in their order, flags) share one node and its packets.
 *
 *   query_type  the question's type
 *   dn          the name as a DN; for a list type without its zone, which is appended
 *   serv, nserv the servers to ask instead of the context's, at most KAVO_MAX_SERV: IPv4 socket addresses of 16 bytes
 *               each, or for the functions in _ss those of either family in a struct sockaddr_storage each; port 0 is
 *               KAVOOPT_DNS_PORT's
 *   flags       KAVOQF_...
 *   deadline    how long to wait for a free node when the table is full; not a limit on the answer. The wait ends too
 *               when the context is closed: KAVOE_SRV
 *   node        out: the node
 *
 * All of them return KAVOE_OK; KAVOE_BADPAR (also for too many servers, for one of another family, and for a link-local
 * one without its sin6_scope_id); KAVOE_SRV when the context is not running; KAVOE_NOZONES for a list type without
 * zones; KAVOE_NOPARSER for a type that can only be asked with KAVOQF_PKT; KAVOE_TIMEOUT when no node became free;
 * KAVOE_NOMEM; KAVOE_THR; KAVOE_FAIL. Any thread; they block only while the table is full.
 */
KAVO_EXPORT KAVO_ERR kavo_subscribe_node_dn(KAVO kavo, KAVO_TYPE query_type, const unsigned char *dn, unsigned flags,
                                            const struct timeval *deadline, KAVO_QUERY_NODE *node);

/* kavo_subscribe_node_serv_ext and kavo_subscribe_node_serv_ss ask the given servers, never with recursion;
 * kavo_subscribe_node_serv without flags. */
KAVO_EXPORT KAVO_ERR kavo_subscribe_node_serv_ext(KAVO kavo, KAVO_TYPE query_type, const unsigned char *dn,
                                                  const struct sockaddr *serv, unsigned nserv, unsigned flags,
                                                  const struct timeval *deadline, KAVO_QUERY_NODE *node);
KAVO_EXPORT KAVO_ERR kavo_subscribe_node_serv(KAVO kavo, KAVO_TYPE query_type, const unsigned char *dn,
                                              const struct sockaddr *serv, unsigned nserv,
                                              const struct timeval *deadline, KAVO_QUERY_NODE *node);
KAVO_EXPORT KAVO_ERR kavo_subscribe_node_serv_ss(KAVO kavo, KAVO_TYPE query_type, const unsigned char *dn,
                                                 const struct sockaddr_storage *serv, unsigned nserv, unsigned flags,
                                                 const struct timeval *deadline, KAVO_QUERY_NODE *node);

/* kavo_subscribe_node_dcache_ext and kavo_subscribe_node_dcache_ss ask the server `dcserv` (null: the context's
 * servers) for what its cache holds first; kavo_subscribe_node_dcache without flags. KAVOWT_DCACHE waits for that check
 * to fail. */
KAVO_EXPORT KAVO_ERR kavo_subscribe_node_dcache_ext(KAVO kavo, KAVO_TYPE query_type, const unsigned char *dn,
                                                    const struct sockaddr *dcserv, unsigned flags,
                                                    const struct timeval *deadline, KAVO_QUERY_NODE *node);
KAVO_EXPORT KAVO_ERR kavo_subscribe_node_dcache(KAVO kavo, KAVO_TYPE query_type, const unsigned char *dn,
                                                const struct sockaddr *dcserv, const struct timeval *deadline,
                                                KAVO_QUERY_NODE *node);
KAVO_EXPORT KAVO_ERR kavo_subscribe_node_dcache_ss(KAVO kavo, KAVO_TYPE query_type, const unsigned char *dn,
                                                   const struct sockaddr_storage *dcserv, unsigned flags,
                                                   const struct timeval *deadline, KAVO_QUERY_NODE *node);

/* kavo_subscribe_node takes the subject as bytes: for KAVOT_BL_IP, KAVOT_BL_IP_TXT and KAVOT_DNS_PTR the 4 bytes of an
 * IPv4 address in network order, else a name as text of 1 to 255 bytes. */
KAVO_EXPORT KAVO_ERR kavo_subscribe_node(KAVO kavo, KAVO_TYPE query_type, const void *query, int query_len,
                                         unsigned flags, const struct timeval *deadline, KAVO_QUERY_NODE *node);

/* kavo_subscribe_node_p takes the subject as text: a dotted IPv4 address for those three types, else a name. */
KAVO_EXPORT KAVO_ERR kavo_subscribe_node_p(KAVO kavo, KAVO_TYPE query_type, const char *query, unsigned flags,
                                           const struct timeval *deadline, KAVO_QUERY_NODE *node);

/* kavo_unsubscribe_node drops one hold; the caller no longer uses the handle. The server thread has a hold of its own
 * until the question's outcome is known: a node without callers keeps its place in the table until then, and its
 * answers reach the cache. KAVOE_BADPAR for a node without a caller's hold. Any thread, also after closing. A node that
 * is held over a closing is not asked any more, and a list question's node is not handed out again once zones have
 * changed. */
KAVO_EXPORT KAVO_ERR kavo_unsubscribe_node(KAVO kavo, KAVO_QUERY_NODE node);

/* kavo_node_type returns the type of a held node's question; KAVOT_INVALID for null, for a node that is not held and on
 * a context that is not running. Any thread. */
KAVO_EXPORT KAVO_TYPE kavo_node_type(KAVO kavo, KAVO_QUERY_NODE node);

/* kavo_node_qdn copies the name that a held node asks (without a zone) into `qdn`, a buffer of `size` bytes, and the
 * name's length into `written` (null allowed), also when the name does not fit: KAVOE_NOMEM. KAVOE_BADPAR for a sync
 * node, a node that is not held and a context that is not running. Any thread. */
KAVO_EXPORT KAVO_ERR kavo_node_qdn(KAVO kavo, KAVO_QUERY_NODE node, unsigned char *qdn, unsigned size,
                                   unsigned *written);

/* Statistics of the server at `sa`, a struct sockaddr_in or sockaddr_in6 (port 0: KAVOOPT_DNS_PORT's), since the
 * context first asked it: the average and the last round-trip time (milliseconds), the moment of the last check
 * (seconds since 1970-01-01 UTC), the packets sent to the server, the answers taken from it, the attempts that timed
 * out. KAVOE_BADPAR also for a server that was not asked yet. Any thread. */
KAVO_EXPORT KAVO_ERR kavo_get_serv_avgrtt(KAVO kavo, const struct sockaddr *sa, int *value);
KAVO_EXPORT KAVO_ERR kavo_get_serv_lastrtt(KAVO kavo, const struct sockaddr *sa, int *value);
KAVO_EXPORT KAVO_ERR kavo_get_serv_last_check(KAVO kavo, const struct sockaddr *sa, int *value);
KAVO_EXPORT KAVO_ERR kavo_get_serv_nqsent(KAVO kavo, const struct sockaddr *sa, uint64_t *value);
KAVO_EXPORT KAVO_ERR kavo_get_serv_nused(KAVO kavo, const struct sockaddr *sa, uint64_t *value);
KAVO_EXPORT KAVO_ERR kavo_get_serv_ntimeout(KAVO kavo, const struct sockaddr *sa, uint64_t *value);

/* Statistics of what limits the queries to the server at `sa`, as above: its window, which is how many queries may be
 * under way to it by UDP now; the queries that wait for room in it or for the rate (KAVOOPT_RATE) to let them leave;
 * and, of the attempts that timed out, those that were lost because the server was sent too much. The latter do not
 * count towards KAVOOPT_NTRIES, within bounds. */
KAVO_EXPORT KAVO_ERR kavo_get_serv_window(KAVO kavo, const struct sockaddr *sa, int *value);
KAVO_EXPORT KAVO_ERR kavo_get_serv_nwaiting(KAVO kavo, const struct sockaddr *sa, int *value);
KAVO_EXPORT KAVO_ERR kavo_get_serv_noverload(KAVO kavo, const struct sockaddr *sa, uint64_t *value);

/* kavo_get_ndropped stores how many answers the system has dropped at the context's own sockets since kavo_init, as
 * their receive buffers were full. Drops are noticed when an attempt times out, whose loss then does not count towards
 * KAVOOPT_NTRIES, within bounds. KAVOE_BADPAR. Any thread. */
KAVO_EXPORT KAVO_ERR kavo_get_ndropped(KAVO kavo, uint64_t *value);

/* ---- waiting ---------------------------------------------------------------------------------------------------- */

/*
 * kavo_wait_node waits until a node that the caller holds has come to `wait_level`. A node that failed ends the wait
 * too, and reading its answers tells so. A sync node ends the wait once for each signal.
 *
 * The three waits return KAVOE_OK; KAVOE_TIMEOUT once `deadline` has passed (the nodes stay held); KAVOE_BADPAR, also
 * for a node that is not held; KAVOE_SRV when the context is not running; KAVOE_THR. Any thread; they block.
 */
KAVO_EXPORT KAVO_ERR kavo_wait_node(KAVO kavo, KAVO_QUERY_NODE node, KAVO_WAIT_LEVEL wait_level,
                                    const struct timeval *deadline);

/* kavo_wait_multiple_nodes waits for all of an array of `len` nodes (`full` not 0), or for any of them. It stores the
 * node that ended a wait for any in `resolved` (null allowed), else null. It consumes every signal in the array. */
KAVO_EXPORT KAVO_ERR kavo_wait_multiple_nodes(KAVO kavo, KAVO_QUERY_NODE *nodes, int len, KAVO_WAIT_LEVEL wait_level,
                                              int full, const struct timeval *deadline, KAVO_QUERY_NODE *resolved);

/* kavo_wait_nodelist waits for all or any of the nodes of a host's list. A wait for all is for as many nodes as the
 * list counts at the beginning. The list may change during the wait, which looks at it again whenever a node's state
 * has changed. A wait for any consumes the signal of the node that ended it, and no other. */
KAVO_EXPORT KAVO_ERR kavo_wait_nodelist(KAVO kavo, KAVO_NODELIST_ITERATOR *iterator, KAVO_WAIT_LEVEL wait_level,
                                        int full, const struct timeval *deadline);

/* ---- answers ---------------------------------------------------------------------------------------------------- */

/* kavo_alloc_answer_iterator returns an iterator that is not set, the caller's (kavo_free_answer_iterator), or null. */
KAVO_EXPORT KAVO_ANSWER_ITERATOR kavo_alloc_answer_iterator(void);
KAVO_EXPORT void kavo_free_answer_iterator(KAVO_ANSWER_ITERATOR iterator);

/* kavo_set_answer_iterator puts an iterator before the first answer of a held node. If the node still lacks answers,
 * the iterator yields those that have arrived by now. KAVOE_NODATA before the first answer; KAVOE_SRV for a node that
 * failed; KAVOE_FAIL for a sync node; KAVOE_NOMEM; KAVOE_THR; KAVOE_BADPAR. */
KAVO_EXPORT KAVO_ERR kavo_set_answer_iterator(KAVO kavo, KAVO_QUERY_NODE node, KAVO_ANSWER_ITERATOR iterator);

/* kavo_get_answer returns the next answer, zones in their order and early answers after them, or null after the last.
 * The answer stays the library's and is valid while the caller holds the node. */
KAVO_EXPORT const KAVO_ANSWER *kavo_get_answer(KAVO kavo, KAVO_ANSWER_ITERATOR iterator);

/*
 * kavo_copy_answer copies a held node's answers into the array `*answer` of `answer_len` entries.
 *
 *   answer_written  out: the entries filled; where the array is too short, the entries needed
 *   alloc           not 0: the array (may be null) and the entries' blocks grow as needed and belong to the caller.
 *                   0: they must be large enough; an entry whose block is too small gets the code KAVOE_NOMEM.
 *
 * KAVOE_OK, also when entries carry errors; KAVOE_NOMEM when the array is too short; else as kavo_set_answer_iterator.
 */
KAVO_EXPORT KAVO_ERR kavo_copy_answer(KAVO kavo, KAVO_QUERY_NODE node, KAVO_ANSWER **answer, int answer_len,
                                      int *answer_written, int alloc);

/*
 * kavo_query subscribes, waits, copies with `alloc` and unsubscribes in one call.
 *
 *   query, query_len  the subject, as for kavo_subscribe_node
 *   timeout           milliseconds for the whole call; 4294967295: no limit
 *
 * The caller owns the array and its blocks; both may be handed in again. Returns the result of the step that failed.
 * Any thread; blocks.
 */
KAVO_EXPORT KAVO_ERR kavo_query(KAVO kavo, KAVO_TYPE type, const void *query, int query_len, KAVO_ANSWER **answer,
                                int answer_len, int *answer_written, unsigned int timeout, KAVO_WAIT_LEVEL wait_level,
                                unsigned flags);

/* ---- deadlines and sync nodes ----------------------------------------------------------------------------------- */

/* kavo_get_deadline stores the moment `timeout` milliseconds from now and returns `deadline`; for 4294967295 it returns
 * null, no deadline. Counts from 2147483648 on are negative: the moment has passed. Any thread. */
KAVO_EXPORT struct timeval *kavo_get_deadline(unsigned int timeout, struct timeval *deadline);

/* kavo_time_milli_timeval stores a span of milliseconds as seconds and microseconds, both of its sign. KAVOE_BADPAR. */
KAVO_EXPORT KAVO_ERR kavo_time_milli_timeval(int milliseconds, struct timeval *result);

/* kavo_time_deadline stores the moment `timeout` from now, or the farthest one that a time value holds; for a span that
 * is not valid, now. KAVOE_BADPAR for null. */
KAVO_EXPORT KAVO_ERR kavo_time_deadline(const struct timeval *timeout, struct timeval *deadline);

/* kavo_time_milli_delay returns the milliseconds from `start` to `finish`, 0 when `finish` is earlier or either is
 * null. */
KAVO_EXPORT unsigned int kavo_time_milli_delay(const struct timeval *start, const struct timeval *finish);

/* kavo_subscribe_syncnode hands out a node that asks nothing: it ends a wait when another thread signals it. `deadline`
 * is as for subscriptions. KAVOE_BADPAR; KAVOE_SRV when the context is not running; KAVOE_TIMEOUT when no node became
 * free; KAVOE_NOMEM; KAVOE_FAIL; KAVOE_THR. The node is unsubscribed like any other; it still works when the context is
 * opened again. */
KAVO_EXPORT KAVO_ERR kavo_subscribe_syncnode(KAVO kavo, const struct timeval *deadline, KAVO_QUERY_NODE *node);

/* kavo_signal_syncnode signals a held sync node: one wait for it ends, now or when it comes. KAVOE_BADPAR for any other
 * node. Any thread. */
KAVO_EXPORT KAVO_ERR kavo_signal_syncnode(KAVO kavo, KAVO_QUERY_NODE node);

/* ---- names and types -------------------------------------------------------------------------------------------- */

/* These keep no state; any thread. `dnsiz` and `ddnsiz` are bytes of the buffer before them. */

/* kavo_dns_a4todn writes an address as DN, octets in reverse: 192.0.2.1 gives 1.2.0.192. Returns its length or 0. */
KAVO_EXPORT int kavo_dns_a4todn(const struct in_addr *addr, unsigned char *dn, int dnsiz);

/* kavo_dns_a6todn writes an IPv6 address as DN, its 32 nibbles in reverse (RFC 5782, section 2.4; RFC 3596): 65 bytes.
 * Returns its length or 0. */
KAVO_EXPORT int kavo_dns_a6todn(const struct in6_addr *addr, unsigned char *dn, int dnsiz);

/* kavo_dns_ptodn converts a name of `len` bytes (0: up to its terminator). Returns the DN's length, 0 or less for text
 * that is no name or does not fit. */
KAVO_EXPORT int kavo_dns_ptodn(const char *name, unsigned len, unsigned char *dn, int dnsiz);

/* kavo_dns_dnlen returns a DN's length, its closing zero byte included. */
KAVO_EXPORT unsigned kavo_dns_dnlen(const unsigned char *dn);

/* kavo_dns_dntodn copies a DN. Returns its length, 0 when it does not fit. */
KAVO_EXPORT unsigned kavo_dns_dntodn(const unsigned char *sdn, unsigned char *ddn, unsigned ddnsiz);

/* kavo_dns_dnequal returns not 0 when two DNs name the same domain, letter case ignored. */
KAVO_EXPORT unsigned kavo_dns_dnequal(const unsigned char *dn1, const unsigned char *dn2);

/* kavo_dns_ptoa4 reads a dotted IPv4 address. Above 0 on success, 0 for text that is none. */
KAVO_EXPORT int kavo_dns_ptoa4(const char *p, struct in_addr *addr);

/* kavo_convert_type returns the DNS type that questions of a type ask for, or DNS_T_INVALID, with a warning, for a type
 * that asks for none; kavo_convert_type_r returns the type of a DNS type. */
KAVO_EXPORT dns_type kavo_convert_type(KAVO_TYPE type);
KAVO_EXPORT KAVO_TYPE kavo_convert_type_r(dns_type type);

/* kavo_convert_status returns the code for an engine status; kavo_dns_status returns the code of the last engine
 * operation made for the context (only while it is not running). */
KAVO_EXPORT KAVO_ERR kavo_convert_status(dns_status err);
KAVO_EXPORT KAVO_ERR kavo_dns_status(KAVO kavo);

/* kavo_get_parser returns the record parser for a type's answers, the raw packet's with KAVOQF_PKT, or null. */
KAVO_EXPORT dns_parse_fn *kavo_get_parser(KAVO_TYPE type, unsigned flags);

/* ---- zones ------------------------------------------------------------------------------------------------------ */

/* kavo_zonesmap_init forgets every configured zone. KAVOE_NOMEM; KAVOE_BADPAR; KAVOE_SRV while running. */
KAVO_EXPORT KAVO_ERR kavo_zonesmap_init(KAVO kavo);

/*
 * kavo_zonesmap_init_cfg replaces the zones by those of a text file: a line "#IP" (or DOMAIN, IP_TXT, DOMAIN_TXT, A6,
 * MX, SRV, CNAME, NS) opens the list of a type, each line after it is one of its zones, an empty line closes it. After
 * a failure to read or understand the file no zones are configured. KAVOE_SRV while running; KAVOE_FILE; KAVOE_NOMEM.
 */
KAVO_EXPORT KAVO_ERR kavo_zonesmap_init_cfg(KAVO kavo, const char *zones_file_path);

/* kavo_zonesmap_save_cfg writes the zones to such a file, replacing it. KAVOE_FILE. */
KAVO_EXPORT KAVO_ERR kavo_zonesmap_save_cfg(KAVO kavo, const char *zones_file_path);

/* kavo_add_zone appends a zone (at most 254 bytes of text, copied) to the list of a list type, if it is not there.
 * KAVOE_NOMEM also when the list is full; KAVOE_SRV while running. A text that is no domain name is taken, with a
 * warning, and answers every question with KAVOE_BADPAR. So does a zone that makes a question's name longer than 255
 * bytes. Such an answer alone ends no wait but one for KAVOWT_NONE. A question to which every zone of its type answers
 * so fails: reading its answers gives KAVOE_SRV. */
KAVO_EXPORT KAVO_ERR kavo_add_zone(KAVO kavo, KAVO_TYPE type, const char *zone);

/* kavo_free_zones releases the zones; kavo_zonesmap_init brings the context back into use. Nothing happens on a running
 * context, but a warning. */
KAVO_EXPORT void kavo_free_zones(KAVO kavo);

/* kavo_zonesmap_zone returns the name of a zone number, as answers carry it, or null. The name stays the context's and
 * is valid until the zones are configured anew. kavo_zonesmap_zone_cpy copies it, terminated, into `buflen` bytes. */
KAVO_EXPORT const char *kavo_zonesmap_zone(KAVO kavo, int zone);
KAVO_EXPORT KAVO_ERR kavo_zonesmap_zone_cpy(KAVO kavo, int zone, char *buf, int buflen);

/* kavo_get_zonesmap returns the context's zones map, for the two calls below. It stays the context's. */
KAVO_EXPORT kavo_zonesmap *kavo_get_zonesmap(KAVO kavo);

/*
 * kavo_zonesmap_save_bin writes a zones map to a stream of the host's, which stays open, as one binary record: names,
 * zone numbers and lists. The record is in the machine's byte order; other data may come before and after it. What was
 * written before a failure stays written. KAVOE_FILE; KAVOE_BADPAR also for a map that was released.
 */
KAVO_EXPORT KAVO_ERR kavo_zonesmap_save_bin(KAVO kavo, kavo_zonesmap *zonesmap, FILE *zones_file_bin);

/*
 * kavo_zonesmap_init_bin replaces a context's zones by those of such a record and leaves the stream, which stays open,
 * after the record. After a failure the map is released: no zones are configured, and kavo_zonesmap_init brings it back
 * into use. KAVOE_SRV while running: the zones stay; KAVOE_FILE for a record that is cut off or malformed, or that has
 * more zones for one type than the context allows; KAVOE_NOMEM; KAVOE_BADPAR also for a map that is not this context's.
 */
KAVO_EXPORT KAVO_ERR kavo_zonesmap_init_bin(KAVO kavo, kavo_zonesmap *zonesmap, FILE *zones_file_bin);

/* ---- records ---------------------------------------------------------------------------------------------------- */

/* kavo_rr_alloc makes an empty block of `size` bytes, at most 1024, the caller's (kavo_rr_free). KAVOE_NOMEM. */
KAVO_EXPORT KAVO_ERR kavo_rr_alloc(KAVO_RR *rr, unsigned int size);

/* kavo_rr_realloc makes sure that a block has `size` bytes (at most 1024). If the block has moved, its content must be
 * written anew. A null block is allocated. KAVOE_NOMEM: the block is unchanged. */
KAVO_EXPORT KAVO_ERR kavo_rr_realloc(KAVO_RR *rr, unsigned int size);

/* kavo_rr_cpy copies a block of a type into an existing block. KAVOE_FAIL for a type without blocks; KAVOE_NOMEM when
 * the destination is too small. */
KAVO_EXPORT KAVO_ERR kavo_rr_cpy(KAVO_TYPE type, const KAVO_RR *src_rr, KAVO_RR *dst_rr);

/* kavo_rr_dup does the same after allocating or growing the destination, which is the caller's. KAVOE_NOMEM. */
KAVO_EXPORT KAVO_ERR kavo_rr_dup(KAVO_TYPE type, const KAVO_RR *src_rr, KAVO_RR *dst_rr);

/* kavo_rr_get_size returns the bytes of a block in use, 0 for null. */
KAVO_EXPORT unsigned int kavo_rr_get_size(const KAVO_RR *rr);

/* kavo_rr_free releases a block and sets the pointer to null; null is fine. */
KAVO_EXPORT void kavo_rr_free(KAVO_RR *rr);

/*
 * kavo_rr_write writes a block of a type to a stream of the host's as one record, which says neither its type nor its
 * length; records may follow one another. kavo_rr_read reads the next record of the stream back into a block of the
 * same type: `rr` is null or holds a block, which is reused or grown, and is the caller's. A block whose names shared
 * one text comes back with two. The stream must have been written by a machine of the same byte order.
 *
 * KAVOE_FAIL for a type without blocks; KAVOE_FILE when the stream cannot be written or read, or ends inside a record,
 * or a record contradicts itself: the block then holds a part of it; KAVOE_NOMEM, also for a record of a block above
 * 1024 bytes; KAVOE_BADPAR, also for a block to write whose counts and lengths cannot be right. Any thread; a stream
 * and a block by one at a time.
 */
KAVO_EXPORT KAVO_ERR kavo_rr_write(KAVO_TYPE type, const KAVO_RR *rr, FILE *f);
KAVO_EXPORT KAVO_ERR kavo_rr_read(KAVO_TYPE type, KAVO_RR *rr, FILE *f);

/* ---- answer cache ----------------------------------------------------------------------------------------------- */

/*
 * These reach into a cache: a context's (kavo_get_ext_cache), one of the host's own (dns_cache_cacher) or any other
 * cacher. `query` is a name of `query_len` bytes of text, 1 to 255, letter case ignored; an address is a name like any
 * other and is not reversed. Types that ask for the same DNS type share entries. They log nothing of their own and may
 * be called from any thread at any time, while the context runs too.
 *
 * All of them: KAVOE_BADPAR, also for a type without a DNS type to ask for; KAVOE_FAIL for a query that is no name, and
 * when the cache fails.
 */

/* kavo_cache_put stores a block (its TTL the entry's lifetime in seconds) in the place of any older entry. A block
 * without entries is stored as a negative answer: the name has no such records. The block is only read. KAVOE_BADPAR
 * too for entries of a type that has no blocks; KAVOE_NOMEM. */
KAVO_EXPORT KAVO_ERR kavo_cache_put(KAVO_CACHE cacher, KAVO_TYPE kavo_query_type, const char *query, int query_len,
                                    KAVO_RR *kavo_rr);

/*
 * kavo_cache_get fetches an entry as an answer.
 *
 *   answer             out; its `rr` is null or holds a block, which is reused or grown, and is the caller's
 *                      (kavo_rr_free). err_code is KAVOE_OK, or KAVOE_NODATA or KAVOE_NXDOM for a negative answer;
 *                      cache_code is KAVOCC_EXISTS, or KAVOCC_OLD for an expired entry, whose TTL in the block is
 *                      negative.
 *   need_expired_also  not 0: fetch an expired entry too
 *
 * KAVOE_NODATA when there is no entry (the answer is left alone); KAVOE_FAIL too for an entry that the type cannot
 * show, or whose block would be above 1024 bytes.
 */
KAVO_EXPORT KAVO_ERR kavo_cache_get(KAVO_CACHE cacher, KAVO_TYPE kavo_query_type, const char *query, int query_len,
                                    KAVO_ANSWER *answer, int need_expired_also);

/* kavo_cache_del deletes an entry; KAVOE_OK too when there was none. */
KAVO_EXPORT KAVO_ERR kavo_cache_del(KAVO_CACHE cacher, KAVO_TYPE kavo_query_type, const char *query, int query_len);

/* kavo_cache_has returns KAVOE_OK when an entry is there, an expired one only where the cache returns those
 * (DNS_CR_EXPIRED), KAVOE_NODATA when not. */
KAVO_EXPORT KAVO_ERR kavo_cache_has(KAVO_CACHE cacher, KAVO_TYPE kavo_query_type, const char *query, int query_len);

/*
 * kavo_cachesave writes the context's own caches to a file, which it creates (permissions 0644) or overwrites, and
 * kavo_cacheload fills the context's own caches from one; caches of the host's are left alone. A dump holds the live
 * entries with their ages, so that times to live continue to count while the file is not loaded. It holds expired
 * entries too where the cache returns them. A cache of the dump is loaded into the context's cache for its use: one
 * cache that served answers and referrals into two caches, two caches into one that serves both. An entry of the
 * context's cache that is as fresh, or fresher, stays. From any thread at any time, while the context runs too, but not
 * while kavo_set_ext_cache is called or KAVOOPT_DNSREC_CACHESIZE is set. A large file is loaded with the help of up to
 * three threads, which run no code of the host's and end before kavo_cacheload returns.
 *
 * The file is written in place: a process that is killed while saving leaves a file that kavo_cacheload refuses, as it
 * refuses every file that is cut off, altered, or no dump. What a failed load has put into the caches before the
 * failure stays; none of it is from the damaged cache. KAVOE_BADPAR; KAVOE_FILE when the file cannot be opened, written
 * or read, and for one that is refused; KAVOE_FAIL for what is no regular file to load from; KAVOE_NOMEM.
 */
KAVO_EXPORT KAVO_ERR kavo_cachesave(KAVO kavo, const char *filename);
KAVO_EXPORT KAVO_ERR kavo_cacheload(KAVO kavo, const char *filename);

/* ---- servers ---------------------------------------------------------------------------------------------------- */

/* kavo_set_dns_server replaces the servers to ask: by one, where `server_domain` is an address as kavo_add_dns_server
 * takes it; with `direct` not 0, by the addresses of the host `server_domain`; with 0, by the addresses of the name
 * servers of the zone `server_domain`. A host's IPv4 addresses come before its IPv6 addresses. All are asked on `port`
 * (0: KAVOOPT_DNS_PORT's; at most 65534). Names are looked up through the servers so far, and the call waits for as
 * long as timeouts and attempts allow. KAVOE_BADPAR; KAVOE_SRV while running; KAVOE_NXDOM, KAVOE_NODATA, KAVOE_TIMEOUT,
 * KAVOE_DNS or another code when a name cannot be looked up: the servers stay; KAVOE_NOMEM; KAVOE_DNS too when a server
 * cannot be added: those before it are set. */
KAVO_EXPORT KAVO_ERR kavo_set_dns_server(KAVO kavo, const char *server_domain, unsigned port, int direct);

/* kavo_add_dns_server appends a server to ask by its address, IPv4 in four decimal octets or IPv6 (2001:db8::53), a
 * link-local one with its interface (fe80::1%eth0), on `port` (0: KAVOOPT_DNS_PORT's; at most 65534); a null address
 * empties the list. KAVOE_BADPAR; KAVOE_SRV while running; KAVOE_DNS. */
KAVO_EXPORT KAVO_ERR kavo_add_dns_server(KAVO kavo, const char *addr, unsigned port);

/* kavo_get_dns_servers copies the socket addresses of the IPv4 servers into `serv`, an array of `*nserv` entries, and
 * stores their number. KAVOE_NOMEM when there are more, with their number stored. kavo_get_dns_servers_ss does so for
 * all servers. */
KAVO_EXPORT KAVO_ERR kavo_get_dns_servers(KAVO kavo, struct sockaddr *serv, unsigned *nserv);
KAVO_EXPORT KAVO_ERR kavo_get_dns_servers_ss(KAVO kavo, struct sockaddr_storage *serv, unsigned *nserv);

/* kavo_set_cookies turns the exchange of DNS cookies with the servers (RFC 7873) on, or off, as it is at first. Cookies
 * make forged answers hopeless where servers give them, but some forwarders and filters drop queries with a cookie.
 * KAVOE_BADPAR; KAVOE_SRV while running; KAVOE_DNS. */
KAVO_EXPORT KAVO_ERR kavo_set_cookies(KAVO kavo, int on);

/* ---- trace ------------------------------------------------------------------------------------------------------ */

/* kavo_set_trace has `fn` called, with `udata`, for everything that the context's DNS engine does: packets sent and
 * received, and what the cache held (DNS_D_... codes, see dns_dbg_fn). `fn` runs on the server thread, and on the
 * calling thread of kavo_set_dns_server; it must neither block nor call the library. Null ends the trace. KAVOE_BADPAR;
 * KAVOE_SRV while running. */
KAVO_EXPORT KAVO_ERR kavo_set_trace(KAVO kavo, dns_dbg_fn *fn, void *udata);

/* kavo_dbgcb is a ready-made function for kavo_set_trace and dns_set_dbgfn. It prints every packet for people to read:
 * a line on the question and on faults to standard output; addresses and the whole packet, laid out as by dig, to
 * standard error. It ignores `unused_ctx` and `unused_udata`, and every event that is no packet's. */
KAVO_EXPORT void kavo_dbgcb(struct dns_ctx *unused_ctx, struct dns_query *qh, int code, void *ddata,
                            void *unused_udata);

#ifdef __cplusplus
}
#endif

#endif /* KAVO_H */
